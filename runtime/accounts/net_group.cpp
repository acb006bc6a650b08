#include "runtime/accounts/net_group.h"

#include "runtime/format_string.h"

#include <type_traits>
#include <utility>

namespace UserManagement {

namespace {

// Collects what comes in pieces. ask fills a buffer, a count and the place to go on from.
template <class Item, class Ask, class Take>
NET_API_STATUS enumerate(Ask&& ask, Take&& take) {
    DWORD_PTR resume = 0;
    for (;;) {
        RunTime::NetBuffer<Item, LPBYTE> items;
        DWORD count = 0;
        DWORD total = 0;
        const NET_API_STATUS status = ask(items.put(), &count, &total, &resume);
        if (status != NERR_Success && status != ERROR_MORE_DATA) {
            return status;
        }
        for (DWORD i = 0; items && i < count; ++i) {
            take(items.operator->()[i]);
        }
        if (status == NERR_Success || count == 0) { // more, but nothing comes: not to ask for ever
            return status;
        }
    }
}

} // namespace

NetGroup::NetGroup(std::wstring server, std::wstring name, GroupKind kind)
    : server_(std::move(server)), name_(std::move(name)), kind_(kind) {}

void NetGroup::create(const std::wstring& server, const std::wstring& name,
                      const std::wstring& comment) {
    checkText(comment, L"comment");
    LOCALGROUP_INFO_1 information{textOf(name), textOf(comment)};
    const NET_API_STATUS status =
        ::NetLocalGroupAdd(serverOf(server), 1, reinterpret_cast<LPBYTE>(&information), nullptr);
    if (status != NERR_Success) {
        throwForAccount(L"Unable to create the group", name, status,
                        {L"", "UserManagement::NetGroup::create", __LINE__});
    }
}

void NetGroup::remove() {
    const NET_API_STATUS status = isGlobal() ? ::NetGroupDel(serverOf(server_), name_.c_str())
                                             : ::NetLocalGroupDel(serverOf(server_), name_.c_str());
    if (status != NERR_Success) {
        throwForAccount(L"Unable to delete the group", name_, status,
                        {L"", "UserManagement::NetGroup::remove", __LINE__});
    }
}

std::wstring NetGroup::getComment() {
    static_assert(std::is_same_v<decltype(GROUP_INFO_1::grpi1_comment),
                                 decltype(LOCALGROUP_INFO_1::lgrpi1_comment)> &&
                  sizeof(GROUP_INFO_1) == sizeof(LOCALGROUP_INFO_1));
    RunTime::NetBuffer<LOCALGROUP_INFO_1, LPBYTE> found;
    const NET_API_STATUS status =
        isGlobal() ? ::NetGroupGetInfo(serverOf(server_), name_.c_str(), 1, found.put())
                   : ::NetLocalGroupGetInfo(serverOf(server_), name_.c_str(), 1, found.put());
    if (status != NERR_Success) {
        throwForAccount(L"Unable to read the group", name_, status,
                        {L"", "UserManagement::NetGroup::getComment", __LINE__});
    }
    return found->lgrpi1_comment != nullptr ? found->lgrpi1_comment : L"";
}

void NetGroup::setComment(const std::wstring& comment) {
    static_assert(sizeof(GROUP_INFO_1002) == sizeof(LOCALGROUP_INFO_1002));
    checkText(comment, L"comment");
    LOCALGROUP_INFO_1002 information{textOf(comment)};
    auto* bytes = reinterpret_cast<LPBYTE>(&information);
    const NET_API_STATUS status =
        isGlobal() ? ::NetGroupSetInfo(serverOf(server_), name_.c_str(), 1002, bytes, nullptr)
                   : ::NetLocalGroupSetInfo(serverOf(server_), name_.c_str(), 1002, bytes, nullptr);
    if (status != NERR_Success) {
        throwForAccount(L"Unable to set the comment of the group", name_, status,
                        {L"", "UserManagement::NetGroup::setComment", __LINE__});
    }
}

std::vector<std::wstring> NetGroup::getMembers() {
    std::vector<std::wstring> members;
    NET_API_STATUS status = NERR_Success;
    if (isGlobal()) {
        status = enumerate<GROUP_USERS_INFO_0>(
            [this](LPBYTE* items, DWORD* count, DWORD* total, DWORD_PTR* resume) {
                return ::NetGroupGetUsers(serverOf(server_), name_.c_str(), 0, items,
                                          MAX_PREFERRED_LENGTH, count, total, resume);
            },
            [&](const GROUP_USERS_INFO_0& item) { members.emplace_back(item.grui0_name); });
    } else {
        status = enumerate<LOCALGROUP_MEMBERS_INFO_1>(
            [this](LPBYTE* items, DWORD* count, DWORD* total, DWORD_PTR* resume) {
                return ::NetLocalGroupGetMembers(serverOf(server_), name_.c_str(), 1, items,
                                                 MAX_PREFERRED_LENGTH, count, total, resume);
            },
            [&](const LOCALGROUP_MEMBERS_INFO_1& item) {
                if (item.lgrmi1_sidusage == SidTypeUser && item.lgrmi1_name != nullptr) {
                    members.emplace_back(item.lgrmi1_name);
                }
            });
    }
    if (status != NERR_Success) {
        throwForAccount(L"Unable to list the members of the group", name_, status,
                        {L"", "UserManagement::NetGroup::getMembers", __LINE__});
    }
    return members;
}

// A local group takes members by their SID: a name alone could be that of another account, of a
// domain that the server trusts.
void NetGroup::addMember(const std::wstring& user) {
    const std::wstring name = accountName(user);
    UserSid found;
    NET_API_STATUS status = findUser(server_, name, found);
    if (status == NERR_UserNotFound) {
        status = ERROR_NO_SUCH_MEMBER;
    } else if (status == NERR_Success && isGlobal()) {
        status = ::NetGroupAddUser(serverOf(server_), name_.c_str(), name.c_str());
    } else if (status == NERR_Success) {
        LOCALGROUP_MEMBERS_INFO_0 member{found->usri23_user_sid};
        status = ::NetLocalGroupAddMembers(serverOf(server_), name_.c_str(), 0,
                                           reinterpret_cast<LPBYTE>(&member), 1);
    }
    if (status != NERR_Success && status != ERROR_MEMBER_IN_ALIAS &&
        status != ERROR_MEMBER_IN_GROUP && status != NERR_UserInGroup) {
        throwForAccount(
            formatString(L"Unable to add the user (%s) to the group", name.c_str()).c_str(), name_,
            status, {L"", "UserManagement::NetGroup::addMember", __LINE__});
    }
}

void NetGroup::removeMember(const std::wstring& user) {
    const std::wstring name = accountName(user);
    UserSid found;
    NET_API_STATUS status = findUser(server_, name, found);
    if (status == NERR_UserNotFound) {
        return; // the system takes accounts that are deleted out of its groups
    }
    if (status == NERR_Success && isGlobal()) {
        status = ::NetGroupDelUser(serverOf(server_), name_.c_str(), name.c_str());
    } else if (status == NERR_Success) {
        LOCALGROUP_MEMBERS_INFO_0 member{found->usri23_user_sid};
        status = ::NetLocalGroupDelMembers(serverOf(server_), name_.c_str(), 0,
                                           reinterpret_cast<LPBYTE>(&member), 1);
    }
    if (status != NERR_Success && status != ERROR_MEMBER_NOT_IN_ALIAS &&
        status != ERROR_MEMBER_NOT_IN_GROUP && status != NERR_UserNotInGroup) {
        throwForAccount(
            formatString(L"Unable to remove the user (%s) from the group", name.c_str()).c_str(),
            name_, status, {L"", "UserManagement::NetGroup::removeMember", __LINE__});
    }
}

} // namespace UserManagement
