// One move from the command line, whatever moves: looks, asks, works, compares, and ends with a
// commit or a rollback, whose outcome it tells. What is special to a kind of move is in a derived
// class. One object at a time, used once, on one thread.
#pragma once

#include "relocation/move_preflight.h"
#include "relocation/tree_compare.h"
#include "runtime/interprocess_lock.h"
#include "runtime/log_manager.h"
#include "tools/zopctl/cancel_key.h"
#include "tools/zopctl/move_meter.h"
#include "tools/zopctl/move_options.h"
#include "tools/zopctl/move_reporter.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace zopctl {

class MoveSession {
public:
    virtual ~MoveSession() = default;
    MoveSession(const MoveSession&) = delete;
    MoveSession& operator=(const MoveSession&) = delete;

    ExitCode run();

protected:
    using Stage = CancelKey::Stage;

    // command  "data move"
    // options and console must outlive the object.
    MoveSession(const wchar_t* command, const MoveOptions& options, Console& console);

    // ---- what each kind of move does in its own way, in the order of the calls

    // Of the JSON object that begins the output.
    virtual JsonFields startFields() const = 0;
    // Looks at everything and changes nothing; look() is told of progress.
    virtual MovePreflight::Result examine() = 0;
    // What the preflight shows besides.
    virtual MoveDetails plan() const { return {}; }
    virtual std::wstring question() const;
    virtual void planWork(MoveMeter& meter) { meter.plan(seen_, options_.verify); }
    // Moves everything; what it throws is rolled back. Sets outcome_.renamed, and calls verify()
    // while the copy is as its original was.
    virtual void transfer() = 0;
    // The last step that can be undone.
    virtual void complete() {}
    virtual void commitMove() = 0;
    virtual void rollBackMove() = 0;
    // Of the transfer, and of the last commit or rollback.
    virtual std::vector<std::wstring> failedItems() const = 0;
    virtual CopyReport losses() const = 0;
    virtual std::vector<std::wstring> leftBehind() const = 0;
    virtual std::vector<std::wstring> pendingRestart() const = 0;
    // What the result shows besides, after a success.
    virtual MoveDetails summary() const { return {}; }
    // The command that moves everything back.
    virtual std::wstring undoCommand() const = 0;
    // The one that goes on with a rollback that this program has not brought to its end.
    virtual std::wstring putBackCommand() const { return undoCommand(); }
    // After a failure that has been undone: what to do about it. Adds to outcome_.advice.
    virtual void advise();
    // After a failure that could not be undone wholly: what is where, and what to do.
    virtual void tellWhatIsWhere();

    // ---- for derived classes

    // Compares the copy with the original, where that was asked for and there is a copy. Throws
    // when they differ.
    void verify();

    // Of examine(): what the source has been seen to hold so far.
    void look(const TreeContents& contents, bool& cancel);
    // Whether work that is under way is to end.
    bool isCancelled() const noexcept { return mayCancel_ && key_.isRequested(); }
    // An error; the result is whether the work goes on.
    bool itemFailed(const std::wstring& path, const std::wstring& message);
    // An error of something that a further rollback attempts again.
    void partFailed(const std::wstring& message);
    void itemNamed(const std::wstring& text, std::int64_t bytes);
    // Of the item that a mover names; empty for other texts.
    static std::wstring pathOf(const std::wstring& text);
    bool isRollingBack() const noexcept { return rollingBack_; }

    const MoveOptions& options_;
    Console& console_;
    std::unique_ptr<MoveReporter> reporter_;
    MoveMeter meter_;
    MovePreflight::Result seen_;
    MoveOutcome outcome_;
    std::int64_t differences_ = 0;
    DWORD failureCode_ = ERROR_SUCCESS; // of what ended the work, where the system said

private:
    bool lookFirst();
    bool acquireLock();
    bool agree();
    bool work();
    void commit();
    void oldCopyStays(const std::wstring& reason);
    bool mayAsk() const;
    std::wstring tryRollback();
    void tell(const FailedItem& item);
    void rollBack(ExitCode code, const wchar_t* status, const std::wstring& reason);
    void sayFromHandler(const std::wstring& text);
    void end(ExitCode code, const wchar_t* status, const std::wstring& message);
    ExitCode finish();

    const wchar_t* command_;
    CancelKey key_;
    RunTime::InterprocessLock lock_;
    std::uint64_t start_ = 0;
    bool mayCancel_ = false;
    bool ignoreErrors_ = false;
    bool rollingBack_ = false;
    std::vector<FailedItem> rollbackErrors_;
    std::vector<FailedItem> partErrors_; // of the last attempt to roll back
    std::set<std::wstring> toldInRollback_;
    LogManager::Registration listener_;
};

inline constexpr wchar_t moveLock[] = L"Global\\zopctl-data-move"; // one at a time, whatever moves

// For messages: nice and in quotation marks.
std::wstring quotedPath(const std::wstring& path);

} // namespace zopctl
