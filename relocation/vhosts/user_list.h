// The accounts of hostings whose homes lie in the directory that moves: each account and its row in
// the panel's database are pointed at the new home, the homes that exist are moved, and quotas
// follow to another volume.
//
//     UserList users(factory, information);
//     users.move(from, to);
//     users.commit();           // or rollback()
//
// Homes may be shared, and lie in one another. A home that a mover has moved along already gets no
// mover of its own, and one that holds some that have been moved leaves them out
// (backupmove::leaveOut). Directories that are missing above a new home are made
// (RunTime::Directory::intermediate), and taken over by the mover that comes to them
// (backupmove::adopt).
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
    // Reports what cannot be put back, and goes on with the rest. What could not be is kept, and
    // tried again by the next rollback(); directories that were made above homes go when empty.
    bool rollback();
    // Whether rollback() has something left to put back.
    bool isPending() const noexcept;

    // For the movers of homes (backupcopy). All streams and no owners at first.
    void set_streams(StreamType streams) noexcept { streams_ = streams; }
    void set_copyOwner(bool copyOwner) noexcept { copyOwner_ = copyOwner; }
    // The movers, until commit() or rollback().
    const std::vector<std::unique_ptr<backupmove>>& get_movers() const noexcept { return movers_; }
    // Directories that were made above new homes, in long form, outermost first.
    const std::vector<std::wstring>& get_made() const noexcept { return made_; }
    // Of the movers, by the last commit() or rollback() (backupmove).
    const std::vector<std::wstring>& get_leftBehind() const noexcept { return leftBehind_; }
    const std::vector<std::wstring>& get_pendingRestart() const noexcept { return pendingRestart_; }

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
    std::vector<std::wstring> made_;
    std::vector<std::wstring> leftBehind_;
    std::vector<std::wstring> pendingRestart_;
    StreamType streams_ = StreamType::All;
    bool copyOwner_ = false;
    bool differentVolume_ = false;
    bool scanned_ = false;
};
