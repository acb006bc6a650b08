// The accounts of hostings whose homes lie in the directory that moves: each account and its row in
// the panel's database are pointed at the new home, the homes that exist are moved, and quotas
// follow to another volume.
//
//     UserList users(factory, information);
//     users.move(from, to);
//     users.commit();           // or rollback()
//
// A home that lies outside the directory stays where it is, and its account is left alone; the log
// says so. Homes may be shared, and lie in one another: one that lies in another moves along with
// that and gets no mover of its own. Directories that are missing above a new home are made
// (RunTime::Directory::intermediate), and taken over by the mover that comes to them
// (backupmove::adopt). No link between the directory and a home is followed: such a home is an
// error of its own, which may be ignored, and is not copied.
//
// The database is the one that the configuration names.
//
// One thread at a time; handlers run on it.
#pragma once

#include "relocation/backupmove.h"
#include "relocation/vhosts/path_groups.h"
#include "relocation/vhosts/recorded_move.h"
#include "runtime/accounts/factory.h"
#include "runtime/event.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class MoveRecord;
class NativeSpan;
class ZOPDatabase;
namespace RunTime {
class PinnedPath;
}

class UserList {
public:
    UserList(std::shared_ptr<UserManagement::IFactory> factory,
             std::shared_ptr<UserManagement::IUserInformation> information);
    ~UserList();
    UserList(const UserList&) = delete;
    UserList& operator=(const UserList&) = delete;

    // from, to  absolute, in either form; to need not exist
    // Does nothing while a move is recorded. Throws CanceledException when a handler cancels;
    // otherwise returns false. After a failure what was changed is recorded, for rollback().
    bool move(const std::wstring& from, const std::wstring& to);
    // Removes the old homes, and the quotas on the old volume. Refused (vexception) for a move that
    // has not been completed. May be called again after a failure; rollback() is refused once it
    // has begun. Handlers cannot cancel it. Returns false.
    bool commit();
    // Reports what cannot be put back, and goes on with the rest. What could not be is kept, and
    // tried again by the next rollback(); directories that were made above homes go when empty.
    // An account that is gone needs nothing put back. Handlers cannot cancel it. Returns false.
    bool rollback();
    // For the next move(): where accounts are recorded before they are changed; null: nowhere.
    void set_record(MoveRecord* record) noexcept { record_ = record; }
    // Takes up what a process that has ended had recorded, for rollback(). Copies of homes are left
    // where they are. What has been given a third home since, in the database or as an account,
    // keeps that.
    void resume(const std::wstring& from, const std::wstring& to,
                const std::vector<RecordedMove::User>& users);
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

    // Copies one home, which keeps its old place until the mover's commit(). What was copied before
    // a failure is removed again.
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
    // A row of the database.
    struct Row {
        std::wstring login;
        std::wstring home;
        std::uint64_t quota = 0; // bytes; 0: none
        std::wstring path;       // of the home, in long form; empty where it has none
    };
    struct UserInfo {
        std::shared_ptr<UserManagement::IUser> user;
        std::wstring oldHome; // as the account had it
        Row row;
        std::wstring newPath; // long form
        bool homeRestored = false;
        bool quotaMoved = false;
        std::optional<std::uint64_t> oldQuota; // on the new volume
    };
    class Mover;

    void recordUsers(const PathGroups& groups, const std::vector<Row>& rows) const;
    std::wstring newPathOf(const PathGroups& groups, const Row& row) const;
    void changeUser(ZOPDatabase& database, const PathGroups& groups, Row row);
    std::vector<Row> readRows(ZOPDatabase& database) const;
    std::wstring homePath(const std::wstring& home) const;
    void moveQuota(UserInfo& info) const;
    void moveHomes();
    static bool holdAbove(RunTime::PinnedPath& above, const std::wstring& root,
                          const std::wstring& home);
    std::vector<const UserInfo*> outermostHomes() const;
    void undoPartialMove(std::unique_ptr<backupmove> mover, const NativeSpan& span);
    void restoreHomes(const NativeSpan& span);
    void restoreQuotas(const NativeSpan& span);
    void rollbackMovers(const NativeSpan& span);
    void removeMade(const NativeSpan& span);
    void collectLeftovers(const backupmove& mover);
    void raiseUndoName(const NativeSpan& span, const std::wstring& name);
    void clear() noexcept;

    void backupmove_TotalHandler(std::int32_t count, std::int64_t cost, bool& cancel);
    void backupmove_NameHandler(const std::wstring& name, bool isFile, std::int64_t cost,
                                bool& cancel);
    void backupmove_ignorebleErrorEvent_Handler(const std::wstring& message, bool& ignore);

    std::shared_ptr<UserManagement::IFactory> factory_;
    std::shared_ptr<UserManagement::IUserInformation> information_;
    std::vector<UserInfo> users_;
    std::vector<UserInfo> unchanged_;
    std::vector<std::unique_ptr<backupmove>> movers_;
    std::vector<std::wstring> made_;
    std::vector<std::wstring> leftBehind_;
    std::vector<std::wstring> pendingRestart_;
    std::wstring from_; // long form, no backslash at the end
    std::wstring to_;
    MoveRecord* record_ = nullptr;
    StreamType streams_ = StreamType::All;
    bool copyOwner_ = false;
    bool differentVolume_ = false;
    bool newVolumeHasQuotas_ = false;
    bool scanned_ = false;
    bool completed_ = false;  // move() did all of its work
    bool committing_ = false; // old homes are being removed
    bool mayCancel_ = true;   // handlers may, but for those of commit() and rollback()
};
