#include "runtime/accounts/net_call.h"

#include "runtime/accounts/user_information.h"
#include "runtime/format_string.h"

namespace UserManagement {

namespace {

struct Hint {
    DWORD status;
    const wchar_t* text;
};

// The codes from 2100 on have no text of the system's.
constexpr Hint hints[] = {
    {NERR_UserNotFound, L"there is no such user"},
    {NERR_GroupNotFound, L"there is no such group"},
    {NERR_UserExists, L"an account of this name exists already"},
    {NERR_GroupExists, L"a group of this name exists already"},
    {NERR_BadUsername, L"the name is too long, or has characters that no account's name may have"},
    {NERR_PasswordTooShort, L"give a password that the server's password policy admits: long and "
                            L"complex enough, and not used lately"},
    {NERR_InvalidComputer, L"the server does not answer"},
    {NERR_NotPrimary, L"the server is no domain controller that can be written to"},
    {RPC_S_SERVER_UNAVAILABLE, L"make sure that the domain controller runs and can be reached"},
    {ERROR_ACCESS_DENIED, L"run this as an administrator"},
};

} // namespace

std::wstring accountName(const std::wstring& name) {
    std::wstring bare = UserInformation::getNameWithoutDomain(name);
    if (bare.empty()) {
        throw ArgumentException(L"An account needs a name",
                                {L"", "UserManagement::accountName", __LINE__});
    }
    checkText(bare, L"name");
    return bare;
}

void checkText(const std::wstring& text, const wchar_t* what) {
    if (text.find(L'\0') != std::wstring::npos) {
        throw ArgumentException(
            formatString(L"The %s of an account has a zero character in it", what),
            {L"", "UserManagement::checkText", __LINE__});
    }
}

NET_API_STATUS findUser(const std::wstring& server, const std::wstring& name, UserSid& found) {
    return ::NetUserGetInfo(serverOf(server), name.c_str(), 23, found.put());
}

GroupKind findGroup(const std::wstring& server, const std::wstring& name) {
    RunTime::NetBuffer<BYTE> found;
    DWORD status = ::NetLocalGroupGetInfo(serverOf(server), name.c_str(), 0, found.put());
    if (status == NERR_Success) {
        return GroupKind::Local;
    }
    const auto meansMissing = [&] {
        return status == NERR_GroupNotFound || status == ERROR_NO_SUCH_ALIAS;
    };
    if (meansMissing() && !server.empty()) {
        status = ::NetGroupGetInfo(serverOf(server), name.c_str(), 0, found.put());
        if (status == NERR_Success) {
            return GroupKind::Global;
        }
    }
    if (!meansMissing()) {
        throwForAccount(L"Unable to find out whether the group exists", name, status,
                        {L"", "UserManagement::findGroup", __LINE__});
    }
    return GroupKind::Missing;
}

void throwForAccount(const wchar_t* what, const std::wstring& name, DWORD status,
                     const vexception::CallStackInfo& frame) {
    std::wstring text = formatString(L"%s (%s)", what, name.c_str());
    for (const Hint& hint : hints) {
        if (hint.status == status) {
            text.append(L": ").append(hint.text);
        }
    }
    _throwError(text.c_str(), status, frame);
}

} // namespace UserManagement
