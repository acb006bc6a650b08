#include "security/disk/account_lookup.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <vector>

namespace DiskSecurity {

namespace {

[[noreturn]] void fail(const std::wstring& name, DWORD code, int line) {
    _throwError(formatString(L"Unable to look up the account (%s)", name.c_str()).c_str(), code,
                {L"", "DiskSecurity::SystemAccountLookup::lookup", line});
}

} // namespace

RunTime::Sid SystemAccountLookup::lookup(const std::wstring& account, const std::wstring& domain) {
    const std::wstring name = domain.empty() ? account : domain + L"\\" + account;
    if (account.empty() || name.find(L'\0') != name.npos) { // an empty name is the domain itself
        fail(name, ERROR_NONE_MAPPED, __LINE__);
    }
    std::vector<unsigned char> sid(SECURITY_MAX_SID_SIZE);
    std::vector<wchar_t> foundIn(256);
    for (;;) {
        auto sidSize = static_cast<DWORD>(sid.size());
        auto foundInSize = static_cast<DWORD>(foundIn.size());
        SID_NAME_USE type = SidTypeUnknown;
        if (::LookupAccountNameW(server_.empty() ? nullptr : server_.c_str(), name.c_str(),
                                 sid.data(), &sidSize, foundIn.data(), &foundInSize, &type)) {
            // A name may also be that of a domain, of which nobody is a member.
            if (type == SidTypeDomain || type == SidTypeInvalid || type == SidTypeUnknown ||
                (usersOnly_ && type != SidTypeUser)) {
                fail(name, ERROR_NONE_MAPPED, __LINE__);
            }
            return RunTime::Sid::fromBytes(sid);
        }
        const DWORD code = ::GetLastError();
        if (code != ERROR_INSUFFICIENT_BUFFER ||
            (sidSize <= sid.size() && foundInSize <= foundIn.size())) {
            fail(name, code, __LINE__);
        }
        sid.resize(std::max<std::size_t>(sid.size(), sidSize));
        foundIn.resize(std::max<std::size_t>(foundIn.size(), foundInSize) + 1);
    }
}

} // namespace DiskSecurity
