// The accounts of hostings whose homes lie in the directory that moves: each account and its row in
// the panel's database are pointed at the new home, the homes that exist are moved, and quotas
// follow to another volume.
//
//     UserList users(factory, information);
//     users.move(from, to);
//     users.commit();           // or rollback()
//
// One thread at a time; handlers run on it.
#pragma once

#include "relocation/backupmove.h"
#include "runtime/accounts/factory.h"
#include "runtime/event.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

class UserList {
public:
    UserList(std::shared_ptr<UserManagement::IFactory> factory,
             std::shared_ptr<UserManagement::IUserInformation> information);
    ~UserList();
    UserList(const UserList&) = delete;
    UserList& operator=(const UserList&) = delete;

    // Does nothing while a move is recorded. Throws CanceledException when a handler cancels;
    // otherwise returns false. After a failure what was changed is recorded, for rollback().
    bool move(const std::wstring& from, const std::wstring& to);
    bool commit();
    // Reports what cannot be put back, and goes on with the rest.
    bool rollback();

    std::unique_ptr<backupmove> moveUserHome(const std::wstring& from, const std::wstring& to);

    // The whole list: an item for each account.
    Event<std::int32_t, bool&> progressEvent_Total;
    Event<const std::wstring&, bool&> progressEvent_Name;
    // Around the move, commit or rollback of one home. cancel
    Event<bool&> progressEvent_MoveUserHomeStart;
    Event<bool&> progressEvent_MoveUserHomeEnd;
    // The mover of a home, with its arguments.
    Event<std::int32_t, std::int64_t, bool&> progressEvent_MoveUserHomeTotal;
    Event<const std::wstring&, bool, std::int64_t, bool&> progressEvent_MoveUserHomeName;
    // message
    Event<const std::wstring&> errorEvent;
    // message, ignore
    Event<const std::wstring&, bool&> ignorebleErrorEvent;

private:
    struct UserInfo {
        std::shared_ptr<UserManagement::IUser> user;
        std::wstring oldHome;
    };

    std::shared_ptr<UserManagement::IFactory> factory_;
    std::shared_ptr<UserManagement::IUserInformation> information_;
    std::vector<UserInfo> users_;
    std::vector<UserInfo> unchanged_;
    std::vector<std::unique_ptr<backupmove>> movers_;
    bool differentVolume_ = false;
    bool scanned_ = false;
};
