// Enables privileges of the token in force (the thread's while it impersonates, otherwise the
// process's) for the life of the object, and gives back what was not enabled before. Scopes may
// overlap, on one thread or on several: a privilege goes with the last scope that wanted it. One
// that wants what another of the same token has, or has found missing, does not ask the system
// again; so many short ones are cheap inside of a long one.
#pragma once

#include "runtime/auto_handle.h"

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>
#include <windows.h>

namespace RunTime {

class PrivilegeScope {
public:
    // names such as SE_BACKUP_NAME. A privilege that the token does not hold is no error here; ask
    // holds() or missing(). "Unable to open token", "Unable to adjust token privileges".
    PrivilegeScope(std::initializer_list<const wchar_t*> names);
    ~PrivilegeScope();
    PrivilegeScope(const PrivilegeScope&) = delete;
    PrivilegeScope& operator=(const PrivilegeScope&) = delete;

    // Whether this scope asked for the privilege and it is enabled.
    bool holds(const wchar_t* name) const;
    // Those asked for that the token does not hold, in the order asked.
    const std::vector<std::wstring>& missing() const noexcept { return missing_; }
    // Those of them that no other living scope had found missing: to be told once.
    const std::vector<std::wstring>& newlyMissing() const noexcept { return newlyMissing_; }

private:
    void enable(const wchar_t* name);
    void giveBack() noexcept;

    AutoHandle token_;
    std::uint64_t tokenId_ = 0;
    std::vector<std::wstring> held_;
    std::vector<std::wstring> missing_;
    std::vector<std::wstring> newlyMissing_;
};

} // namespace RunTime
