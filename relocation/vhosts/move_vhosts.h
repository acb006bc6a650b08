// Moves the directory of virtual hosts and everything on the server that names it, as one
// transaction: move() does the work in nineteen steps, commit() makes it final, rollback() or
// undo() puts everything back. One thread at a time; handlers run on the calling thread, where all
// four are refused (vexception).
//
// The object is itself the mover of the tree (backupmove) and owns a component for each other step,
// whose events come out of it folded into one stream.
//
// While it works, a record of what it has begun lies on disk (relocation/vhosts/move_record.h),
// from before the first change until everything is final or back. Where a process ended before
// that, move() refuses to begin another one until the first has been recovered.
//
// The homes of users are copied before the tree moves, and lie in it. The tree's mover leaves out
// what has been moved so.
#pragma once

#include "relocation/backupmove.h"
#include "relocation/vhosts/app_vault_reconfigure.h"
#include "relocation/vhosts/asp_net_reconfigure.h"
#include "relocation/vhosts/folded_progress.h"
#include "relocation/vhosts/interrupted_move.h"
#include "relocation/vhosts/move_record.h"
#include "relocation/vhosts/multiple_key_value_change.h"
#include "relocation/vhosts/php_settings_reconfigure.h"
#include "relocation/vhosts/saved_file.h"
#include "relocation/vhosts/tarvo_iis_sites.h"
#include "relocation/vhosts/user_list.h"
#include "relocation/vhosts/www_root_reconfigure.h"
#include "runtime/accounts/user_information.h"
#include "runtime/event.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

class MoveVHosts : private backupmove {
public:
    MoveVHosts();
    ~MoveVHosts() override;

    // to    absolute, in either form; need not exist
    // from  where the directory is now; "HTTPD_VHOSTS_D" when it is not given
    // Returns false; throws CanceledException when a handler cancels, and what the step that failed
    // throws. undo() puts back what was done until then; rollback() does not. Refused (vexception)
    // while a move is neither committed nor undone, be it of this object or of another process.
    bool move(const std::wstring& from, const std::wstring& to);
    bool move(const std::wstring& to);

    // Removes what is left in the old place. Refused (vexception) for a move that has not been
    // completed. May be called again after a failure; rollback() and undo() are refused once it has
    // begun. Handlers cannot cancel it.
    bool commit();

    // Undoes a completed move; does nothing after one that threw. Every part is attempted; when one
    // fails, vexception at the end says which. Only the FTP sites may fail unsaid, but for
    // errorEvent and the log. May be called again, and goes on with what is left; commit() is
    // refused from then on. Handlers cannot cancel it.
    bool rollback();

    // The same for a move that threw, as far as it had come; a failure with the FTP sites counts as
    // one. Does nothing when there is nothing to undo.
    bool undo();

    // Puts back what a process has begun that has ended before its time, as undo() does, and its
    // record goes then; where the commit had begun, only the record goes: what is in the new place
    // stays. Refused (vexception) where the outlook is. Copies are left where they are, and are
    // in get_leftBehind(). After a failure undo() goes on, or the next recover().
    bool recover(InterruptedMove interrupted);

    // A link of the tree is about to be pointed at the new place by somebody else, after move().
    void recordLink(const LinkRelink::Changed& link);

    // Of the tree's mover, with the homes that it leaves to theirs.
    using backupmove::get_copyOwner;
    using backupmove::get_failed;
    using backupmove::get_report;
    using backupmove::get_streams;
    using backupmove::set_copyOwner;
    using backupmove::set_streams;

    // The settings of webmail that name the directory; left alone where a path has a quotation mark
    // (') in it, which errorEvent tells.
    static std::wstring webmailFile(const std::wstring& vhosts);

    // Whether a completed move waits for commit() or rollback().
    bool isMoved() const noexcept { return !oldPath_.empty(); }
    // Whether there is something that undo() would put back.
    bool isPending() const noexcept { return !record_.begun.empty(); }
    // Of the last commit(), rollback() or undo(), the homes included (backupmove).
    const std::vector<std::wstring>& get_leftBehind() const noexcept { return leftBehind_; }
    const std::vector<std::wstring>& get_pendingRestart() const noexcept { return pendingRestart_; }

    // The events of the tree's mover under these names are folded into these.
    FoldedProgress::Cost progressEvent_Cost; // amount of work, cancel
    // cppcheck-suppress duplInheritedMember
    FoldedProgress::Name progressEvent_Name; // name, position, names so far, delta, cancel
    FoldedProgress::Sub subProgressEvent_Start;
    FoldedProgress::Sub subProgressEvent_End;
    // cppcheck-suppress duplInheritedMember
    Event<const std::wstring&> errorEvent;                 // message
    Event<const std::wstring&, bool&> ignorebleErrorEvent; // message, ignore
    Event<std::int32_t, const std::wstring&> stepEvent;    // number from 1 to 19, its log line

private:
    using Part = MovePart;
    // What undo() goes by. It outlives clearVars(). What of it is needed after the end of the
    // process is in file_ as well.
    struct Record {
        std::set<Part> begun;
        std::wstring from; // as step 3 made them
        std::wstring to;
        std::wstring setting;
        bool renamed = false; // a rename moved the tree
        bool undoing = false; // parts may have been put back
        std::optional<InstallerPaths> installer;
        std::wstring serversAside; // where the directory of the FTP server waits for commit()
        std::optional<SavedFile> webmail;
        std::vector<LinkRelink::Changed> links;       // of another process
        std::vector<std::wstring> left;               // that nobody puts back
        std::optional<SavedFile::Stamp> webmailStamp; // in place of it, of another process
        std::vector<std::wstring> made;               // outermost first
    };
    class PuttingBack;
    // One operation at a time: a handler must not begin another within the one that calls it.
    class Running {
    public:
        explicit Running(MoveVHosts& owner);
        ~Running() { owner_.isRunning_ = false; }
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;

    private:
        MoveVHosts& owner_;
    };

    void registerHooks();
    void saveVars();
    void clearVars() noexcept;
    bool start(const std::wstring* from, const std::wstring& to);
    bool moveInternal(const std::wstring& source, const std::wstring& target);
    // Before it is touched.
    void begin(Part part);
    bool isBegun(Part part) const { return record_.begun.contains(part); }

    void makeTarget();
    void moveTree();
    void intend(Intent intent, const std::wstring& name) override;
    void forgetFile() noexcept;
    void reconfigure(int number, const wchar_t* logLine, Part part, Reconfigure* what);
    void fixWebmail();
    void setServersAside();
    void removeServersAside();

    bool putBack(bool ftpMayFail);
    void resume(const RecordedMove& move, const InterruptedMove::Outlook& outlook);
    void restoreSetting();
    void restoreLinks();
    const std::wstring& treeRoot() const;
    void restoreWebmail();
    void restoreUsers(bool& canceled);
    void removeTarget();
    bool treeIsAway() const;
    void gatherLeftovers();

    void enterStep(std::int32_t number, const wchar_t* logLine);
    void checkCanceled();
    void nameStep(const wchar_t* name);
    void runUtil(const std::vector<std::wstring>& arguments, const std::wstring& program,
                 bool is64Bit);
    void runCreationUtil(const std::wstring& script, const std::vector<std::wstring>& arguments);

    std::shared_ptr<UserManagement::IUserInformation> information_;
    UserList users_;
    TarvoIIsSites sites_;
    FoldedProgress progress_;
    // Null: the step is passed by.
    std::unique_ptr<AppVaultReconfigure> appVault_;
    std::unique_ptr<WwwRootReconfigure> wwwRoot_;
    std::unique_ptr<AspNetReconfigure> aspNet_;
    std::unique_ptr<PHPSettingsReconfigure> phpSettings_;
    std::wstring oldPath_;
    InstallerPaths installerPaths_;
    Record record_;
    std::unique_ptr<MoveRecord> file_; // while there is something to put back, or to finish
    bool committing_ = false;
    bool isRunning_ = false;
    std::vector<std::wstring> leftBehind_;
    std::vector<std::wstring> pendingRestart_;
    std::vector<Hook> hooks_; // after the events they hook, so they go first
};
