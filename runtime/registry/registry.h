// The registry as the library reads and writes it: by hive, key and value name, in a view of the
// caller's choice.
//
// Texts are wide strings of any length. A value that grows while it is read is read again, a
// string without a terminator is whole, and what follows the first zero character is left off.
// A key or value whose name has a zero character in it cannot be reached: it is not there for
// reading and not listed, and is refused for writing (ArgumentException). Functions may be called
// from any thread.
#pragma once

#include <string>
#include <vector>
#include <windows.h>

// Which of the two registries of a 64-bit Windows an access sees. Any other value leaves it to
// the system.
enum class RegistryView : int {
    Default = 0,
    View32 = 1, // KEY_WOW64_32KEY: all configuration values
    View64 = 2, // KEY_WOW64_64KEY
    View64Alternative = 3,
};

namespace registry {

struct ValueName {
    std::wstring name; // empty: the key's default value
    DWORD type;        // REG_SZ, REG_DWORD, ...
};

// Reads a value. The status is the system's: 0, or why the key could not be opened or the value
// not be read (2: there is none), and then value is left alone. Throws vexception when the value
// has another type. A string that is kept expandable comes expanded.
LSTATUS lookup(HKEY hive, const std::wstring& subKey, const std::wstring& valueName, DWORD& value,
               RegistryView view);
LSTATUS lookup(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
               std::wstring& value, RegistryView view);

// The string that must be there. Throws vexception "lookup subKey=... value=...: " and the system's
// text of lookup's status otherwise.
std::wstring getstr(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
                    RegistryView view);

// A REG_SZ to be put back exactly: with what is stored behind the text's first zero character,
// which other readers leave off. Throws as getstr does; also for a string that is kept expandable.
std::wstring getStored(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
                       RegistryView view);

// False when there is no such key. Throws vosexception when that cannot be found out.
bool keyExists(HKEY hive, const std::wstring& subKey, RegistryView view);

// The names below a key, in the system's order, as they were at one moment: a list during which
// the key changed is begun again. Throws vosexception (170 for a key that does not come to rest).
std::vector<std::wstring> subkeys(HKEY hive, const std::wstring& subKey, RegistryView view);
std::vector<ValueName> values(HKEY hive, const std::wstring& subKey, RegistryView view);

// What a write does where the key is not there.
enum class MissingKey { Fail, Create };

// Write a value as REG_SZ or REG_DWORD, whatever it was before. Throw vosexception; for a text
// with an embedded zero ArgumentException, since a reader would see a part of it.
void setString(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
               const std::wstring& value, RegistryView view, MissingKey missing = MissingKey::Fail);
void setDWORD(HKEY hive, const std::wstring& subKey, const std::wstring& valueName, DWORD value,
              RegistryView view, MissingKey missing = MissingKey::Fail);

// Writes what getStored has read, zero characters as they are. Throws vosexception.
void setStored(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
               const std::wstring& text, RegistryView view);

} // namespace registry
