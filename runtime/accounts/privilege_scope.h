// Enables privileges of the token in force (the thread's while it impersonates, otherwise the
// process's) for the life of the object, and gives back what was not enabled before.
#pragma once

#include "runtime/auto_handle.h"

#include <string>
#include <vector>
#include <windows.h>

namespace RunTime {

class PrivilegeScope {
public:
    // names such as SE_BACKUP_NAME. A privilege that the token does not hold is no error here; ask
    // holds() or missing(). "Unable to open token", "Unable to adjust token privileges".
    explicit PrivilegeScope(std::initializer_list<const wchar_t*> names);
    ~PrivilegeScope();
    PrivilegeScope(const PrivilegeScope&) = delete;
    PrivilegeScope& operator=(const PrivilegeScope&) = delete;

    bool holds(const wchar_t* name) const;
    const std::vector<std::wstring>& missing() const noexcept { return missing_; }

private:
    AutoHandle token_;
    std::vector<LUID> enabled_; // by us: given back at the end
    std::vector<std::wstring> missing_;
};

} // namespace RunTime
