// The configuration values as the service keeps them: values of one registry key under
// HKEY_LOCAL_MACHINE, in the 32-bit view, where the library also reads them directly.
//
// All functions throw vosexception: ERROR_FILE_NOT_FOUND when there is no such value,
// ERROR_DATATYPE_MISMATCH when it has another type, ERROR_INVALID_PARAMETER for a name that no
// value has here (empty, longer than the registry takes, with a backslash or a zero character). No
// text of an error holds what a value holds. Plain calls into the registry: any thread.
#pragma once

#include "config/protocol.h"

#include <string>
#include <windows.h>

namespace config {

class ConfigStore {
public:
    // key: below HKEY_LOCAL_MACHINE. It need not be there before the first value is set; then it is
    // made, open to the system and administrators only.
    explicit ConfigStore(std::wstring key);

    // value is left alone by a failure.
    void getString(const std::wstring& name, std::wstring& value) const;
    DWORD getDWORD(const std::wstring& name) const;
    // Replace a value of any type. ERROR_INVALID_PARAMETER for a text with a zero character.
    void setString(const std::wstring& name, const std::wstring& value) const;
    void setDWORD(const std::wstring& name, DWORD value) const;

    // Names and types in alphabetical order, from the first one behind a name on, or all of them
    // behind "". At most count of them; none with a name that cannot be asked for.
    std::vector<protocol::ListedValue> list(const std::wstring& behind, std::size_t count) const;

    // Whether the panel runs in a virtual machine or container: what the value "VirtualEnvironment"
    // says where there is one, else what the processor says.
    bool isVE() const;

private:
    void createKey() const;

    std::wstring key_;
};

} // namespace config
