#include "runtime/accounts/net_user.h"

#include "runtime/accounts/disk_quota.h"
#include "runtime/format_string.h"

#include <utility>
#include <wtsapi32.h>

namespace UserManagement {

NetUser::NetUser(std::wstring server, std::wstring name)
    : server_(std::move(server)), name_(std::move(name)) {}

void NetUser::create(const std::wstring& server, const std::wstring& name, const NewUser& user) {
    checkText(user.password, L"password");
    checkText(user.fullName, L"full name");
    checkText(user.comment, L"comment");
    checkText(user.description, L"description");
    USER_INFO_2 information{};
    information.usri2_name = textOf(name);
    information.usri2_password = textOf(user.password);
    information.usri2_priv = USER_PRIV_USER;
    information.usri2_comment = textOf(user.description);
    // Nobody is asked for a new password when a site's process or a transfer logs on: with an old
    // one it would just stop.
    information.usri2_flags = UF_SCRIPT | UF_NORMAL_ACCOUNT | UF_DONT_EXPIRE_PASSWD;
    information.usri2_full_name = textOf(user.fullName);
    information.usri2_usr_comment = textOf(user.comment);
    information.usri2_acct_expires = TIMEQ_FOREVER;
    information.usri2_max_storage = USER_MAXSTORAGE_UNLIMITED;
    information.usri2_units_per_week = UNITS_PER_WEEK;
    const NET_API_STATUS status =
        ::NetUserAdd(serverOf(server), 2, reinterpret_cast<LPBYTE>(&information), nullptr);
    if (status != NERR_Success) {
        throwForAccount(L"Unable to create the user", name, status,
                        {L"", "UserManagement::NetUser::create", __LINE__});
    }
}

void NetUser::setPassword(const std::wstring& password) {
    writeText(1003, password, L"password", __LINE__);
}

std::wstring NetUser::getFullName() {
    return readText(&USER_INFO_2::usri2_full_name);
}

void NetUser::setFullName(const std::wstring& fullName) {
    writeText(1011, fullName, L"full name", __LINE__);
}

std::wstring NetUser::getComment() {
    return readText(&USER_INFO_2::usri2_usr_comment);
}

void NetUser::setComment(const std::wstring& comment) {
    writeText(1012, comment, L"comment", __LINE__);
}

std::wstring NetUser::getDescription() {
    return readText(&USER_INFO_2::usri2_comment);
}

void NetUser::setDescription(const std::wstring& description) {
    writeText(1007, description, L"description", __LINE__);
}

std::wstring NetUser::getHomeDirectory() {
    return readText(&USER_INFO_2::usri2_home_dir);
}

void NetUser::setHomeDirectory(const std::wstring& home) {
    writeText(1006, home, L"home directory", __LINE__);
}

bool NetUser::getFlagPasswordNeverExpires() {
    return hasFlag(UF_DONT_EXPIRE_PASSWD);
}

void NetUser::setFlagPasswordNeverExpires(bool set) {
    setFlag(UF_DONT_EXPIRE_PASSWD, set);
}

bool NetUser::getFlagCannotChangePassword() {
    return hasFlag(UF_PASSWD_CANT_CHANGE);
}

void NetUser::setFlagCannotChangePassword(bool set) {
    setFlag(UF_PASSWD_CANT_CHANGE, set);
}

bool NetUser::isAdministrator() {
    return read()->usri2_priv == USER_PRIV_ADMIN;
}

bool NetUser::isEnabled() {
    return !hasFlag(UF_ACCOUNTDISABLE);
}

void NetUser::enable(bool enabled) {
    setFlag(UF_ACCOUNTDISABLE, !enabled);
}

void NetUser::allowUserRDPLogon(DWORD allow) {
    DWORD value = allow != 0 ? 1 : 0;
    if (!::WTSSetUserConfigW(server_.empty() ? WTS_CURRENT_SERVER_NAME : textOf(server_),
                             textOf(name_), WTSUserConfigfAllowLogonTerminalServer,
                             reinterpret_cast<LPWSTR>(&value), sizeof value)) {
        const DWORD code = ::GetLastError();
        throwForAccount(L"Unable to set the remote desktop logon of the user", name_, code,
                        {L"", "UserManagement::NetUser::allowUserRDPLogon", __LINE__});
    }
}

std::optional<std::uint64_t> NetUser::getQuota(const std::wstring& path) {
    return DiskQuota(path, name_, sid()->usri23_user_sid).limit();
}

void NetUser::setQuota(const std::wstring& path, std::uint64_t bytes) {
    DiskQuota(path, name_, sid()->usri23_user_sid).setLimit(bytes);
}

void NetUser::removeQuota(const std::wstring& path) {
    DiskQuota(path, name_, sid()->usri23_user_sid).setLimit(std::nullopt);
}

NetUser::Information NetUser::read() const {
    Information found;
    const NET_API_STATUS status =
        ::NetUserGetInfo(serverOf(server_), name_.c_str(), 2, found.put());
    if (status != NERR_Success) {
        throwForAccount(L"Unable to read the user", name_, status,
                        {L"", "UserManagement::NetUser::read", __LINE__});
    }
    return found;
}

std::wstring NetUser::readText(wchar_t* USER_INFO_2::*field) const {
    const Information information = read();
    const wchar_t* text = (*information).*field;
    return text != nullptr ? text : L"";
}

// Every level that has one text is a structure of one pointer.
void NetUser::writeText(DWORD level, const std::wstring& text, const wchar_t* what,
                        int line) const {
    static_assert(sizeof(USER_INFO_1003) == sizeof(wchar_t*));
    checkText(text, what);
    USER_INFO_1003 information{textOf(text)};
    const NET_API_STATUS status = ::NetUserSetInfo(serverOf(server_), name_.c_str(), level,
                                                   reinterpret_cast<LPBYTE>(&information), nullptr);
    if (status != NERR_Success) {
        throwForAccount(formatString(L"Unable to set the %s of the user", what).c_str(), name_,
                        status, {L"", "UserManagement::NetUser::writeText", line});
    }
}

bool NetUser::hasFlag(DWORD flag) const {
    return (read()->usri2_flags & flag) != 0;
}

void NetUser::setFlag(DWORD flag, bool set) const {
    const DWORD old = read()->usri2_flags;
    USER_INFO_1008 information{(set ? old | flag : old & ~flag) | UF_SCRIPT};
    if (information.usri1008_flags == old) {
        return;
    }
    const NET_API_STATUS status = ::NetUserSetInfo(serverOf(server_), name_.c_str(), 1008,
                                                   reinterpret_cast<LPBYTE>(&information), nullptr);
    if (status != NERR_Success) {
        throwForAccount(L"Unable to set the flags of the user", name_, status,
                        {L"", "UserManagement::NetUser::setFlag", __LINE__});
    }
}

UserSid NetUser::sid() const {
    UserSid found;
    const NET_API_STATUS status = findUser(server_, name_, found);
    if (status != NERR_Success) {
        throwForAccount(L"Unable to get the SID of the user", name_, status,
                        {L"", "UserManagement::NetUser::sid", __LINE__});
    }
    return found;
}

} // namespace UserManagement
