#include "runtime/accounts/privilege_scope.h"

#include "runtime/accounts/token.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace RunTime {

namespace {

std::uint64_t number(const LUID& id) {
    return static_cast<std::uint64_t>(static_cast<std::uint32_t>(id.HighPart)) << 32 | id.LowPart;
}

// What scopes want of a token.
struct Use {
    int scopes = 0;
    bool held = false;
    bool ours = false;   // the first scope had to enable it
    LUID privilege = {}; // of one that is held
};

struct Uses {
    std::mutex mutex;
    std::map<std::pair<std::uint64_t, std::wstring>, Use> map; // token and name
};

Uses& uses() {
    static Uses instance;
    return instance;
}

// Sets one privilege. On success was tells whether it had been enabled before. Returns a Win32
// code; ERROR_NOT_ALL_ASSIGNED when the token does not hold the privilege.
DWORD adjust(HANDLE token, const LUID& privilege, DWORD attributes, bool& was) noexcept {
    TOKEN_PRIVILEGES wanted = {};
    wanted.PrivilegeCount = 1;
    wanted.Privileges[0].Luid = privilege;
    wanted.Privileges[0].Attributes = attributes;
    TOKEN_PRIVILEGES before = {};
    DWORD size = sizeof(before);
    ::SetLastError(ERROR_SUCCESS);
    if (!::AdjustTokenPrivileges(token, FALSE, &wanted, sizeof(before), &before, &size)) {
        return ::GetLastError();
    }
    const DWORD code = ::GetLastError(); // TRUE comes back even when nothing was enabled
    // What did not change is not listed.
    was = before.PrivilegeCount == 0
              ? attributes != 0
              : (before.Privileges[0].Attributes & SE_PRIVILEGE_ENABLED) != 0;
    return code;
}

} // namespace

PrivilegeScope::PrivilegeScope(std::initializer_list<const wchar_t*> names)
    : token_(openTokenInForce(TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY,
                              "RunTime::PrivilegeScope::PrivilegeScope", __LINE__)) {
    TOKEN_STATISTICS statistics = {};
    DWORD size = 0;
    if (!::GetTokenInformation(token_.get(), TokenStatistics, &statistics, sizeof(statistics),
                               &size)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to open token", code,
                    {L"", "RunTime::PrivilegeScope::PrivilegeScope", __LINE__});
    }
    tokenId_ = number(statistics.TokenId);
    try {
        // One by one: asked for together, one that is missing would hide which.
        for (const wchar_t* name : names) {
            enable(name);
        }
    } catch (...) {
        giveBack(); // no destructor runs for an object that was not made
        throw;
    }
}

PrivilegeScope::~PrivilegeScope() {
    giveBack();
}

bool PrivilegeScope::holds(const wchar_t* name) const {
    return std::find(held_.begin(), held_.end(), name) != held_.end();
}

void PrivilegeScope::enable(const wchar_t* name) {
    const std::lock_guard lock(uses().mutex);
    const auto [found, isNew] = uses().map.try_emplace({tokenId_, name});
    Use& use = found->second;
    if (isNew) {
        bool was = false;
        DWORD code = ::LookupPrivilegeValueW(nullptr, name, &use.privilege) ? ERROR_SUCCESS
                                                                            : ::GetLastError();
        if (code == ERROR_SUCCESS) {
            code = adjust(token_.get(), use.privilege, SE_PRIVILEGE_ENABLED, was);
        }
        if (code != ERROR_SUCCESS && code != ERROR_NOT_ALL_ASSIGNED &&
            code != ERROR_NO_SUCH_PRIVILEGE) {
            uses().map.erase(found);
            _throwError(L"Unable to adjust token privileges", code,
                        {L"", "RunTime::PrivilegeScope::enable", __LINE__});
        }
        use.held = code == ERROR_SUCCESS;
        use.ours = use.held && !was;
    }
    ++use.scopes;
    (use.held ? held_ : missing_).emplace_back(name);
    if (isNew && !use.held) {
        newlyMissing_.emplace_back(name);
    }
}

void PrivilegeScope::giveBack() noexcept {
    const DWORD code = ::GetLastError();
    const std::lock_guard lock(uses().mutex);
    for (const auto* names : {&held_, &missing_}) {
        for (const std::wstring& name : *names) {
            const auto use = uses().map.find({tokenId_, name});
            if (use == uses().map.end() || --use->second.scopes != 0) {
                continue;
            }
            if (use->second.ours) {
                bool was = false;
                adjust(token_.get(), use->second.privilege, 0, was);
            }
            uses().map.erase(use);
        }
    }
    ::SetLastError(code);
}

} // namespace RunTime
