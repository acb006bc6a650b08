// A stand-in for netapi32.dll: users and groups that last, where the real one has none or would
// change the machine's. It has the functions and levels that the library uses, and refuses with the
// codes that Windows has. Lists come in pieces of two. The server is ignored.
#include "tests/panel/netapi32/account_store.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#define _DSGETDCAPI_ // DsGetDcNameW is ours, not imported
#include <dsgetdc.h>
#include <lm.h>
#include <vector>

using panel::getNumber;
using panel::getText;
using panel::groupPath;
using panel::setNumber;
using panel::setText;
using panel::userPath;

namespace {

std::atomic<long> buffers{0}; // given out and not freed

// A buffer of the caller's: structures first, what they point to behind them.
class Buffer {
public:
    explicit Buffer(std::size_t structures)
        : start_(static_cast<BYTE*>(std::calloc(1, structures + room))), end_(start_ + structures) {
        ++buffers;
    }
    template <class Structure>
    Structure* structures() {
        return reinterpret_cast<Structure*>(start_);
    }
    wchar_t* text(const std::wstring& text) {
        return static_cast<wchar_t*>(bytes(text.c_str(), (text.size() + 1) * sizeof(wchar_t)));
    }
    PSID sid(DWORD rid) {
        BYTE sid[] = {1, 5, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0, 1, 0,
                      0, 0, 2, 0, 0, 0, 3, 0, 0,  0, 0, 0, 0, 0};
        std::memcpy(sid + 24, &rid, sizeof rid);
        return bytes(sid, rid != 0 ? 28 : domainSid(sid));
    }
    BYTE* give() const { return start_; }

private:
    static constexpr std::size_t room = 65'536; // five texts as long as the store's

    static std::size_t domainSid(BYTE* sid) {
        sid[1] = 4;
        return 24;
    }
    void* bytes(const void* from, std::size_t size) {
        void* to = std::memcpy(end_, from, size);
        end_ += (size + 7) / 8 * 8;
        return to;
    }

    BYTE* start_;
    BYTE* end_;
};

std::wstring memberPath(const std::wstring& group) {
    return groupPath(group) + L"\\Members";
}

bool isUser(const wchar_t* name) {
    return panel::accountKey(userPath(name)) ? true : false;
}

bool isGroup(const wchar_t* name, bool global) {
    return panel::accountKey(groupPath(name)) &&
           getNumber(groupPath(name), L"global").value_or(0) == (global ? 1UL : 0UL);
}

std::wstring textOf(const std::wstring& path, const wchar_t* value) {
    return getText(path, value).value_or(L"");
}

NET_API_STATUS getGroup(bool global, const wchar_t* name, DWORD level, LPBYTE* result) {
    if (level > 1) {
        return ERROR_INVALID_LEVEL;
    }
    if (!isGroup(name, global)) {
        return NERR_GroupNotFound;
    }
    Buffer buffer(sizeof(LOCALGROUP_INFO_1)); // a global group's is alike
    auto* information = buffer.structures<LOCALGROUP_INFO_1>();
    information->lgrpi1_name = buffer.text(name);
    information->lgrpi1_comment =
        level == 1 ? buffer.text(textOf(groupPath(name), L"comment")) : nullptr;
    *result = buffer.give();
    return NERR_Success;
}

NET_API_STATUS setGroup(bool global, const wchar_t* name, DWORD level, const BYTE* information) {
    if (level != 1002) {
        return ERROR_INVALID_LEVEL;
    }
    if (!isGroup(name, global)) {
        return NERR_GroupNotFound;
    }
    setText(groupPath(name), L"comment",
            reinterpret_cast<const LOCALGROUP_INFO_1002*>(information)->lgrpi1002_comment);
    return NERR_Success;
}

NET_API_STATUS deleteGroup(bool global, const wchar_t* name) {
    if (!isGroup(name, global)) {
        return NERR_GroupNotFound;
    }
    panel::deleteAccount(groupPath(name));
    return NERR_Success;
}

NET_API_STATUS setMember(bool global, const wchar_t* group, DWORD rid, bool member) {
    if (!isGroup(group, global)) {
        return NERR_GroupNotFound;
    }
    const std::wstring name = std::to_wstring(rid);
    if (getText(memberPath(group), name.c_str()).has_value() == member) {
        return global ? (member ? NERR_UserInGroup : NERR_UserNotInGroup)
                      : (member ? ERROR_MEMBER_IN_ALIAS : ERROR_MEMBER_NOT_IN_ALIAS);
    }
    if (member) {
        setText(memberPath(group), name.c_str(), L"");
    } else {
        ::RegDeleteValueW(panel::accountKey(memberPath(group)).get(), name.c_str());
    }
    return NERR_Success;
}

DWORD ridOf(const BYTE* member) {
    const PSID sid = reinterpret_cast<const LOCALGROUP_MEMBERS_INFO_0*>(member)->lgrmi0_sid;
    return *::GetSidSubAuthority(sid, *::GetSidSubAuthorityCount(sid) - 1UL);
}

// Structures of Item, whose fields put() fills for a user.
template <class Item, class Put>
NET_API_STATUS getMembers(bool global, const wchar_t* group, LPBYTE* result, DWORD* count,
                          DWORD* total, DWORD_PTR* resume, Put&& put) {
    if (!isGroup(group, global)) {
        return NERR_GroupNotFound;
    }
    std::vector<std::wstring> members;
    panel::forEachName(L"Users", [&](const std::wstring& name) {
        const std::wstring rid = std::to_wstring(getNumber(userPath(name), L"rid").value_or(0));
        if (getText(memberPath(group), rid.c_str())) {
            members.push_back(name);
        }
    });
    Buffer buffer(2 * sizeof(Item));
    *count = 0;
    *total = static_cast<DWORD>(members.size() - *resume);
    for (; *resume < members.size() && *count < 2; ++*resume) {
        put(buffer, buffer.structures<Item>()[(*count)++], members[*resume]);
    }
    *result = buffer.give();
    return *resume < members.size() ? ERROR_MORE_DATA : NERR_Success;
}

} // namespace

DWORD WINAPI NetApiBufferFree(void* buffer) {
    buffers -= buffer != nullptr ? 1 : 0;
    std::free(buffer);
    return NERR_Success;
}

// For tests: how many buffers their owners have not freed.
extern "C" long WINAPI panelBuffers() {
    return buffers;
}

DWORD WINAPI DsGetDcNameW(LPCWSTR, LPCWSTR, GUID*, LPCWSTR, ULONG,
                          PDOMAIN_CONTROLLER_INFOW* result) {
    const auto controller = getText(L"", L"controller");
    if (!controller) {
        return ERROR_NO_SUCH_DOMAIN;
    }
    Buffer buffer(sizeof(DOMAIN_CONTROLLER_INFOW));
    *result = buffer.structures<DOMAIN_CONTROLLER_INFOW>();
    (*result)->DomainControllerName = buffer.text(L"\\\\" + *controller);
    return ERROR_SUCCESS;
}

NET_API_STATUS WINAPI NetUserModalsGet(LPCWSTR, DWORD level, LPBYTE* result) {
    if (level != 2) {
        return ERROR_INVALID_LEVEL;
    }
    Buffer buffer(sizeof(USER_MODALS_INFO_2));
    auto* information = buffer.structures<USER_MODALS_INFO_2>();
    information->usrmod2_domain_name = buffer.text(L"PANEL");
    information->usrmod2_domain_id = buffer.sid(0);
    *result = buffer.give();
    return NERR_Success;
}

NET_API_STATUS WINAPI NetUserAdd(LPCWSTR, DWORD level, LPBYTE information, LPDWORD) {
    if (level != 2) {
        return ERROR_INVALID_LEVEL;
    }
    const auto& user = *reinterpret_cast<const USER_INFO_2*>(information);
    const std::wstring name = user.usri2_name;
    if (name.size() > LM20_UNLEN ||
        name.find_first_of(L"\"/\\[]:;|=,+*?<>") != std::wstring::npos) {
        return NERR_BadUsername;
    }
    if (isUser(user.usri2_name)) {
        return NERR_UserExists;
    }
    if (*user.usri2_password == L'\0') {
        return NERR_PasswordTooShort;
    }
    const DWORD rid = getNumber(L"", L"next rid").value_or(1001);
    setNumber(L"", L"next rid", rid + 1);
    const std::wstring path = userPath(name);
    setNumber(path, L"rid", rid);
    setNumber(path, L"flags", user.usri2_flags);
    setText(path, L"password", user.usri2_password);
    setText(path, L"full name", user.usri2_full_name);
    setText(path, L"comment", user.usri2_usr_comment);
    setText(path, L"description", user.usri2_comment);
    setText(path, L"home", user.usri2_home_dir);
    return NERR_Success;
}

NET_API_STATUS WINAPI NetUserGetInfo(LPCWSTR, LPCWSTR name, DWORD level, LPBYTE* result) {
    if (level != 0 && level != 2 && level != 23) {
        return ERROR_INVALID_LEVEL;
    }
    if (!isUser(name)) {
        return NERR_UserNotFound;
    }
    const std::wstring path = userPath(name);
    Buffer buffer(sizeof(USER_INFO_2));
    if (level == 23) {
        auto* information = buffer.structures<USER_INFO_23>();
        information->usri23_name = buffer.text(name);
        information->usri23_user_sid = buffer.sid(getNumber(path, L"rid").value_or(0));
    } else {
        auto* information = buffer.structures<USER_INFO_2>();
        information->usri2_name = buffer.text(name);
        if (level == 2) {
            information->usri2_full_name = buffer.text(textOf(path, L"full name"));
            information->usri2_usr_comment = buffer.text(textOf(path, L"comment"));
            information->usri2_comment = buffer.text(textOf(path, L"description"));
            information->usri2_home_dir = buffer.text(textOf(path, L"home"));
            information->usri2_flags = getNumber(path, L"flags").value_or(0);
            information->usri2_priv = getNumber(path, L"administrator").value_or(0) != 0
                                          ? USER_PRIV_ADMIN
                                          : USER_PRIV_USER;
        }
    }
    *result = buffer.give();
    return NERR_Success;
}

NET_API_STATUS WINAPI NetUserSetInfo(LPCWSTR, LPCWSTR name, DWORD level, LPBYTE information,
                                     LPDWORD) {
    if (!isUser(name)) {
        return NERR_UserNotFound;
    }
    const std::wstring path = userPath(name);
    if (level == 1008) {
        setNumber(path, L"flags",
                  reinterpret_cast<const USER_INFO_1008*>(information)->usri1008_flags);
        return NERR_Success;
    }
    const wchar_t* value = level == 1003   ? L"password"
                           : level == 1006 ? L"home"
                           : level == 1007 ? L"description"
                           : level == 1011 ? L"full name"
                           : level == 1012 ? L"comment"
                                           : nullptr;
    if (value == nullptr) {
        return ERROR_INVALID_LEVEL;
    }
    setText(path, value, reinterpret_cast<const USER_INFO_1003*>(information)->usri1003_password);
    return NERR_Success;
}

NET_API_STATUS WINAPI NetUserDel(LPCWSTR, LPCWSTR name) {
    if (!isUser(name)) {
        return NERR_UserNotFound;
    }
    panel::deleteAccount(
        userPath(name)); // members are known by their rid, which is never given again
    return NERR_Success;
}

NET_API_STATUS WINAPI NetLocalGroupAdd(LPCWSTR, DWORD level, LPBYTE information, LPDWORD) {
    if (level != 1) {
        return ERROR_INVALID_LEVEL;
    }
    const auto& group = *reinterpret_cast<const LOCALGROUP_INFO_1*>(information);
    if (panel::accountKey(groupPath(group.lgrpi1_name))) {
        return ERROR_ALIAS_EXISTS;
    }
    setText(groupPath(group.lgrpi1_name), L"comment", group.lgrpi1_comment);
    return NERR_Success;
}

NET_API_STATUS WINAPI NetLocalGroupGetInfo(LPCWSTR, LPCWSTR name, DWORD level, LPBYTE* result) {
    return getGroup(false, name, level, result);
}

NET_API_STATUS WINAPI NetLocalGroupSetInfo(LPCWSTR, LPCWSTR name, DWORD level, LPBYTE information,
                                           LPDWORD) {
    return setGroup(false, name, level, information);
}

NET_API_STATUS WINAPI NetLocalGroupDel(LPCWSTR, LPCWSTR name) {
    return deleteGroup(false, name);
}

NET_API_STATUS WINAPI NetLocalGroupAddMembers(LPCWSTR, LPCWSTR group, DWORD level, LPBYTE member,
                                              DWORD count) {
    return level != 0 || count != 1 ? ERROR_INVALID_LEVEL
                                    : setMember(false, group, ridOf(member), true);
}

NET_API_STATUS WINAPI NetLocalGroupDelMembers(LPCWSTR, LPCWSTR group, DWORD level, LPBYTE member,
                                              DWORD count) {
    return level != 0 || count != 1 ? ERROR_INVALID_LEVEL
                                    : setMember(false, group, ridOf(member), false);
}

NET_API_STATUS WINAPI NetLocalGroupGetMembers(LPCWSTR, LPCWSTR group, DWORD level, LPBYTE* result,
                                              DWORD, LPDWORD count, LPDWORD total,
                                              PDWORD_PTR resume) {
    if (level != 1) {
        return ERROR_INVALID_LEVEL;
    }
    return getMembers<LOCALGROUP_MEMBERS_INFO_1>(
        false, group, result, count, total, resume,
        [](Buffer& buffer, LOCALGROUP_MEMBERS_INFO_1& item, const std::wstring& name) {
            item.lgrmi1_sidusage = SidTypeUser;
            item.lgrmi1_name = buffer.text(name);
        });
}

NET_API_STATUS WINAPI NetGroupGetInfo(LPCWSTR, LPCWSTR name, DWORD level, LPBYTE* result) {
    return getGroup(true, name, level, result);
}

NET_API_STATUS WINAPI NetGroupSetInfo(LPCWSTR, LPCWSTR name, DWORD level, LPBYTE information,
                                      LPDWORD) {
    return setGroup(true, name, level, information);
}

NET_API_STATUS WINAPI NetGroupDel(LPCWSTR, LPCWSTR name) {
    return deleteGroup(true, name);
}

NET_API_STATUS WINAPI NetGroupAddUser(LPCWSTR, LPCWSTR group, LPCWSTR user) {
    return setMember(true, group, getNumber(userPath(user), L"rid").value_or(0), true);
}

NET_API_STATUS WINAPI NetGroupDelUser(LPCWSTR, LPCWSTR group, LPCWSTR user) {
    return setMember(true, group, getNumber(userPath(user), L"rid").value_or(0), false);
}

NET_API_STATUS WINAPI NetGroupGetUsers(LPCWSTR, LPCWSTR group, DWORD level, LPBYTE* result, DWORD,
                                       LPDWORD count, LPDWORD total, PDWORD_PTR resume) {
    if (level != 0) {
        return ERROR_INVALID_LEVEL;
    }
    return getMembers<GROUP_USERS_INFO_0>(
        true, group, result, count, total, resume,
        [](Buffer& buffer, GROUP_USERS_INFO_0& item, const std::wstring& name) {
            item.grui0_name = buffer.text(name);
        });
}
