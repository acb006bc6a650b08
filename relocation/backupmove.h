// Moves one directory tree (or file) as a transaction: move() does the work and keeps what is
// needed to undo it, commit() makes it final, rollback() puts the old state back. A rename does the
// move where source and target lie on one volume, otherwise a copy; the old place stays untouched
// and usable until commit(). One thread at a time; handlers run on the calling thread.
//
// A copy into a target that holds something already keeps a log of every item it creates, in a
// file in the root of the target's volume (relocation/transaction_log.h), so that rollback()
// removes exactly those.
#pragma once

#include "relocation/backupcopy.h"
#include "relocation/transaction_log.h"
#include "runtime/event.h"
#include "runtime/interprocess_lock.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace RunTime {
class PinnedPath;
}

class backupmove : public backupcopy {
public:
    backupmove();
    // Releases the log file and the lock. Does not roll back.
    ~backupmove() override;

    // source, target  absolute paths, in either form, of any length
    // copy            true copies even where a rename would do
    // Returns true when a rename did the move, or when both paths name one directory (then nothing
    // is done and no transaction is open); false after a copy.
    // Throws vexception ("Unable to start new transaction") while a transaction is open,
    // CanceledException when a handler cancels, vosexception for a failed system call; after the
    // last two the transaction is open and the caller rolls it back.
    bool move(const std::wstring& source, const std::wstring& target, bool copy);

    // For the next move: what another mover has moved out of its source already is passed over, and
    // what that leaves there in the end stays at commit(). The other's failed items and report are
    // counted in, so it has done its move.
    void leaveOut(const backupmove& moved);
    // For the next move: a directory that was made in the target, or as the target, on behalf of
    // this move. A copy treats it as one of its own: it takes over attributes, security and streams
    // of the source. rollback() puts it back as it is now.
    void adopt(const std::wstring& directory);

    // Makes the move final: removes the old place, except for items that could not be copied or
    // were made or written to after their copy, which are kept where they were (get_leftBehind).
    // What cannot be removed now is scheduled for the next restart. Refuses (vexception) a move
    // that has not been completed. After a failure the new place is whole, and commit() may be
    // called again; rollback() is refused from then on.
    void commit();

    // Undoes the move. May be called again after a failure or a cancel, and goes on where it
    // stopped; commit() is refused once it has begun to.
    void rollback();

    // Deletes a tree with this object's events ("Remove: " and the nice path).
    void remove(const std::wstring& path);

    const std::wstring& get_source() const noexcept { return source_; }
    const std::wstring& get_target() const noexcept { return target_; }
    // Whether the rename, commit() and rollback() are done under the lock of the product's log
    // files.
    bool get_lockLogs() const noexcept { return lockLogs_; }
    void set_lockLogs(bool lockLogs) noexcept { lockLogs_ = lockLogs; }

    // Of the last commit() or rollback(): what was left in place (nice form), and what the system
    // will remove or move at its next restart.
    const std::vector<std::wstring>& get_leftBehind() const noexcept { return leftBehind_; }
    const std::vector<std::wstring>& get_pendingRestart() const noexcept { return pendingRestart_; }
    // Whether commit() leaves the old place alone, because the target's path begins with the
    // source's ("D:\data2" and "D:\data\new" beside "D:\data").
    static bool keepsSource(const std::wstring& source, const std::wstring& target);

    // text ("Copy: ", "Remove: ", "Move: ", "Commit: ", "Rollback: " and a path), isFile, bytes
    // done before this item, cancel. Totals and errors come through the events of backupcopy.
    Event<const std::wstring&, bool, std::int64_t, bool&> progressEvent_Name;

protected:
    // What move() is about to do with the tree. By default nobody is told; what a derived class
    // throws ends the move.
    enum class Intent {
        SetAside, // name: what stands at the target is renamed to it
        Rename,
        Copy, // name: of the log; empty without one
    };
    virtual void intend(Intent intent, const std::wstring& name);
    // Takes up a rename of a process that has ended, for rollback(). isRenamed: the tree is at the
    // target. aside: where what stood there is; empty where nothing is.
    void resumeRename(const std::wstring& source, const std::wstring& target, bool isRenamed,
                      const std::wstring& aside);

private:
    // What rollback() has to do for the tree.
    enum class Undo { Nothing, RemoveTarget, EmptyTarget, ReplayLog, RenameBack };

    // A text with two paths in it, in nice form.
    static std::wstring withNames(const wchar_t* format, const std::wstring& first,
                                  const std::wstring& second);
    bool setTargetAside();
    bool renameSource(); // false when the system sees two volumes
    void copySource();
    bool isLeftOut() const;
    void removeSource();
    void mergeSetAside();
    void undoMove();
    void replayLog();
    void removeLogged(const TransactionLog::Record& record, RunTime::PinnedPath& pinned);
    void restoreExisting();
    void renameBack();
    void removeTree(const std::wstring& path, bool keepTop, RunTime::Directory::Keep keep);
    bool isNewerThanCopy(const std::wstring& path, const RunTime::FileInformation& entry) const;
    bool holdsNewerItems();
    void removeLater(const std::wstring& path);
    void takeOwnership(const std::wstring& path);
    void reportStep(const std::wstring& text, bool isFile, bool mayCancel);
    void close();

    std::wstring source_;
    std::wstring target_;
    std::wstring from_; // the two in long form
    std::wstring to_;
    std::wstring targetBackup_;
    bool started_ = false;
    bool moved_ = false;
    bool completed_ = false;  // move() did all of its work
    bool committing_ = false; // commit() has begun to remove
    bool undoing_ = false;    // rollback() has
    Undo undo_ = Undo::Nothing;
    std::int64_t itemsMade_ = 0; // by the copy, in the target
    std::int64_t copyBegan_ = 0; // FILETIME as a number
    TransactionLog log_;
    bool itemLogged_ = false; // the log has a record of the item last named
    RunTime::InterprocessLock logsLock_;
    bool lockLogs_ = false;
    std::vector<std::wstring> leftBehind_;
    std::vector<std::wstring> pendingRestart_;
    std::vector<Hook> hooks_; // after the events they hook, so they go first
};
