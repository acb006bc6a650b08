#include "relocation/backupmove.h"

#include "relocation/directory.h"
#include "relocation/failure.h"
#include "relocation/logs_lock.h"
#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/pending_operations.h"
#include "runtime/files/pinned_path.h"
#include "runtime/format_string.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <utility>

using RunTime::Directory;
using RunTime::FileInformation;
using RunTime::longPath;
using RunTime::nicePath;

namespace {

constexpr wchar_t logsLockName[] = L"Global\\{C715576D-9449-4f09-8D28-C7B869DABB5E}";
constexpr wchar_t setAsidePrefix[] = L"$Backup";

// The clock of a file system may lag behind the system's by so much.
constexpr std::int64_t clockStep = 50 * 10'000; // of 100 ns

std::int64_t now() {
    FILETIME time;
    ::GetSystemTimePreciseAsFileTime(&time);
    return (static_cast<std::int64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

// Empty where the system cannot tell it: it needs to list every directory above, and was seen to
// miss the path where others made and removed directories beside it.
std::wstring shortPathIfTold(const std::wstring& path) {
    try {
        return RunTime::shortPath(path);
    } catch (const vosexception&) {
        return {};
    }
}

// Whether a directory holds nothing at all: no entry, and no named stream of its own.
bool isEmptyDirectory(const std::wstring& path) {
    if (!RunTime::isDirectory(path)) {
        return false;
    }
    std::vector<FileInformation> entries;
    Directory(path).list(entries, 2);
    WIN32_FIND_STREAM_DATA stream;
    const RunTime::AutoFindHandle find(
        ::FindFirstStreamW(path.c_str(), FindStreamInfoStandard, &stream, 0));
    return entries.empty() && !find;
}

} // namespace

backupmove::backupmove() : logsLock_(logsLockName) {
    hooks_.push_back(
        progressEvent_Name2.hook([this](const std::wstring& source, const std::wstring& target,
                                        bool isFile, std::int64_t cost, bool& cancel) {
            ++itemsMade_;
            itemLogged_ = false;
            progressEvent_Name.raise(L"Copy: " + nicePath(source), isFile, cost, cancel);
            if (log_.isOpen() && !cancel) { // a cancelled item is not created
                log_.append(isFile, target, cost);
                itemLogged_ = true;
            }
        }));
    hooks_.push_back(itemAbandonedEvent.hook([this] {
        --itemsMade_;
        if (std::exchange(itemLogged_, false)) { // else the last record is the item's before it
            log_.dropLast();
        }
    }));
}

backupmove::~backupmove() = default;

std::wstring backupmove::withNames(const wchar_t* format, const std::wstring& first,
                                   const std::wstring& second) {
    return formatString(format, nicePath(first).c_str(), nicePath(second).c_str());
}

bool backupmove::move(const std::wstring& source, const std::wstring& target, bool copy) {
    const NativeSpan span("backupmove::move", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    ThreadCancelation::check();
    if (!source_.empty() || !target_.empty()) {
        throw vexception(L"Unable to start new transaction", {L"", "backupmove::move", __LINE__});
    }
    from_ = RunTime::withoutTrailingBackslash(longPath(source));
    to_ = RunTime::withoutTrailingBackslash(longPath(target));
    leftBehind_.clear();
    pendingRestart_.clear();
    failed_ = failedBefore_;
    failedPaths_.clear();
    existing_.clear();
    report_ = reportBefore_;
    if (!RunTime::exists(from_)) {
        _throwError(formatString(L"Unable to move (%s)", nicePath(source).c_str()).c_str(),
                    ERROR_PATH_NOT_FOUND, {L"", "backupmove::move", __LINE__});
    }
    // What the system was to do with these names at its next restart is not meant for what they
    // hold from now on.
    RunTime::dropPendingOperations({from_, to_});

    source_ = source;
    target_ = target;
    // A tree cannot be renamed into itself. Volumes are compared, which takes a while, only where
    // it matters.
    bool copies = copy || RunTime::isStrictlyInside(to_, from_);
    const bool leftOut = isLeftOut();
    if (!leftOut && RunTime::exists(to_)) {
        const std::wstring shortSource = shortPathIfTold(from_);
        if ((!shortSource.empty() && RunTime::equalNames(shortSource, shortPathIfTold(to_))) ||
            RunTime::theSameDirectory(from_, to_)) {
            source_.clear();
            target_.clear();
            return true;
        }
        const auto isEmpty = [this] {
            return RunTime::treeSize(to_, [](const RunTime::TreeSize& size) {
                       return size.bytes != 0;
                   }).bytes == 0;
        };
        if (!RunTime::theSameVolume(from_, to_) || !isEmpty() || !setTargetAside()) {
            copies = true;
        }
    } else if (!leftOut && !copies) {
        copies = !RunTime::theSameVolume(from_, to_);
    }
    started_ = true;
    if (!leftOut && (copies || !renameSource())) {
        copySource();
    }
    completed_ = true;
    return moved_;
}

void backupmove::leaveOut(const backupmove& moved) {
    if (moved.source_.empty()) { // it was there already
        return;
    }
    leftOut_.insert(RunTime::exists(moved.from_) ? RunTime::longNamePath(moved.from_)
                                                 : moved.from_);
    failedBefore_.insert(failedBefore_.end(), moved.failed_.begin(), moved.failed_.end());
    reportBefore_.add(moved.report_);
}

void backupmove::adopt(const std::wstring& directory) {
    adopted_.insert(RunTime::withoutTrailingBackslash(RunTime::longPath(directory)));
}

// Whether the whole source is something that another mover has moved.
bool backupmove::isLeftOut() const {
    return !leftOut_.empty() && leftOut_.contains(RunTime::longNamePath(from_));
}

bool backupmove::setTargetAside() {
    std::wstring given = shortPathIfTold(target_);
    while (!given.empty() && given.back() == L'\\') {
        given.pop_back();
    }
    const std::size_t last = given.rfind(L'\\');
    constexpr std::size_t fifth = 4;
    const bool allowed = last != std::wstring::npos &&
                         (given.starts_with(RunTime::longPrefix) || last > fifth) &&
                         !RunTime::isRoot(RunTime::parentPath(to_));
    if (!allowed || !RunTime::isDirectory(to_)) {
        return false;
    }
    try {
        const std::wstring name = RunTime::temporaryName(RunTime::parentPath(to_), setAsidePrefix);
        intend(Intent::SetAside, name);
        RunTime::moveEx(to_, name);
        targetBackup_ = name;
    } catch (const CanceledException&) {
        throw;
    } catch (const vexception&) {
        logFailure(formatString(L"Set (%s) aside", nicePath(to_).c_str()));
        targetBackup_.clear();
    }
    return !targetBackup_.empty();
}

bool backupmove::renameSource() {
    const NativeSpan span("backupmove::rename", __LINE__);
    LogsLock lock(logsLock_, lockLogs_);
    intend(Intent::Rename, {});
    try {
        RunTime::moveEx(from_, to_);
    } catch (const vosexception& error) {
        if (error.get_errorCode() == ERROR_NOT_SAME_DEVICE) { // two volumes after all
            return false;
        }
        logFailure(withNames(L"Move (%s) to (%s)", from_, to_));
        throw;
    }
    moved_ = true;
    undo_ = Undo::RenameBack;
    lock.release();
    reportStep(L"Move: " + nicePath(source_), false, true);
    return true;
}

void backupmove::copySource() {
    Target kind = Target::Filled;
    if (!RunTime::exists(to_)) {
        kind = Target::Missing;
        undo_ = Undo::RemoveTarget;
    } else if (isEmptyDirectory(to_)) {
        kind = Target::Empty;
        undo_ = Undo::EmptyTarget;
    } else {
        log_.create(RunTime::volumeRoot(to_));
        undo_ = Undo::ReplayLog;
    }
    itemsMade_ = 0;
    intend(Intent::Copy, log_.name());
    copyBegan_ = now() - clockStep;
    const RunTime::PrivilegeScope privilege{SE_BACKUP_NAME};
    backupcopy::copy(from_, to_, kind);
}

void backupmove::intend(Intent, const std::wstring&) {}

void backupmove::resumeRename(const std::wstring& source, const std::wstring& target,
                              bool isRenamed, const std::wstring& aside) {
    close();
    source_ = source;
    target_ = target;
    from_ = RunTime::withoutTrailingBackslash(longPath(source));
    to_ = RunTime::withoutTrailingBackslash(longPath(target));
    started_ = true;
    moved_ = isRenamed;
    undo_ = isRenamed ? Undo::RenameBack : Undo::Nothing;
    targetBackup_ = aside.empty() ? aside : longPath(aside);
}

void backupmove::commit() {
    const NativeSpan span("backupmove::commit", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    ThreadCancelation::check();
    const ThreadCancelation::CancelationPoint shielded(false);
    LogsLock lock(logsLock_, lockLogs_);
    try {
        if (!target_.empty()) {
            if (!completed_) { // what is not in the new place must not go from the old one
                throw vexception(
                    L"Unable to commit files: the move was not completed and must be rolled back",
                    {L"", "backupmove::commit", __LINE__});
            }
            if (undoing_) { // parts of the new place are gone
                throw vexception(
                    L"Unable to commit files: the rollback has begun and must be repeated",
                    {L"", "backupmove::commit", __LINE__});
            }
            committing_ = true;
            leftBehind_.clear();
            if (!moved_ && RunTime::exists(from_) && !isLeftOut()) {
                removeSource();
            }
            if (!targetBackup_.empty()) {
                mergeSetAside();
            }
        }
        close();
    } catch (...) {
        logFailure(L"Unable to commit files");
        throw;
    }
    lock.release();
}

void backupmove::removeSource() {
    if (keepsSource(from_, to_)) {
        reportStep(L"Commit: " + nicePath(source_), true, false);
        return;
    }
    try {
        removeTree(from_, false, [this](const std::wstring& path, const FileInformation& entry) {
            return failedPaths_.contains(path) || leftOut_.contains(path) ||
                   isNewerThanCopy(path, entry);
        });
    } catch (...) {
        logFailure(withNames(L"Commit move (%s) to (%s) transaction ", target_, source_));
        if (!failedPaths_.empty() || !leftBehind_.empty() ||
            std::any_of(leftOut_.begin(), leftOut_.end(), RunTime::exists) || holdsNewerItems()) {
            // They are not in the new place, so they must outlive a restart.
            leftBehind_.push_back(nicePath(from_));
            return;
        }
        removeLater(from_);
    }
}

// Whether an item of the old place was made or written to after it had been copied, by those who
// still work there. What has not changed since the copy began is not looked up.
bool backupmove::isNewerThanCopy(const std::wstring& path, const FileInformation& entry) const {
    const std::int64_t latest =
        std::max({entry.creationTime, entry.lastWriteTime, entry.changeTime});
    if (latest < copyBegan_) {
        return false;
    }
    try {
        const FileInformation copy = RunTime::fileInformation(to_ + path.substr(from_.size()));
        return !entry.isDirectory() && copy.lastWriteTime < entry.lastWriteTime;
    } catch (const VFileNotFoundException&) {
        return true;
    } catch (const VPathNotFoundException&) {
        return true;
    }
}

// Looks where a removal that stopped has not been. Empty directories go; handlers are not asked.
bool backupmove::holdsNewerItems() {
    try {
        Directory walker(from_, true);
        walker.set_keepTop(true);
        walker.set_keep([this](const std::wstring& path, const FileInformation& entry) {
            const bool newer = isNewerThanCopy(path, entry);
            if (newer) {
                leftBehind_.push_back(nicePath(path));
            }
            return newer || !entry.isDirectory() || entry.isLink();
        });
        const Hook goingOn =
            walker.errorEvent.hook([](const std::wstring&, bool& ignore) { ignore = true; });
        walker.remove(1, false, false, nullptr);
    } catch (const vosexception&) { // what follows takes ownership, and looks for itself
        logFailure(formatString(L"Look for newer items in (%s)", nicePath(from_).c_str()));
    }
    return !leftBehind_.empty();
}

bool backupmove::keepsSource(const std::wstring& source, const std::wstring& target) {
    std::wstring from = RunTime::withoutTrailingBackslash(longPath(source));
    std::wstring to = RunTime::withoutTrailingBackslash(longPath(target));
    if (RunTime::exists(from) && RunTime::exists(to)) {
        from = RunTime::longNamePath(from);
        to = RunTime::longNamePath(to);
    }
    return RunTime::beginsWith(to, from); // of characters, not of components
}

void backupmove::mergeSetAside() {
    struct Pair {
        std::wstring from;
        std::wstring to;
        RunTime::AutoHandle heldFrom; // neither can be replaced by a link meanwhile
        RunTime::AutoHandle heldTo;
        std::vector<FileInformation> entries;
    };
    const auto open = [](std::wstring from, std::wstring to) {
        Pair pair;
        pair.heldFrom = RunTime::openPinnedDirectory(from);
        pair.heldTo = RunTime::openPinnedDirectory(to);
        if (pair.heldFrom && pair.heldTo) {
            Directory(from).list(pair.entries, 2);
        }
        pair.from = std::move(from);
        pair.to = std::move(to);
        return pair;
    };
    std::vector<Pair> pairs;
    pairs.push_back(open(targetBackup_, to_));
    while (!pairs.empty()) {
        if (pairs.back().entries.empty()) {
            pairs.pop_back();
            continue;
        }
        const FileInformation entry = std::move(pairs.back().entries.back());
        pairs.back().entries.pop_back();
        const std::wstring from = RunTime::combine(pairs.back().from, entry.name);
        const std::wstring to = RunTime::combine(pairs.back().to, entry.name);
        if (!RunTime::exists(to)) {
            RunTime::moveEx(from, to);
        } else if (entry.isDirectory() && !entry.isLink() && RunTime::isDirectory(to)) {
            pairs.push_back(open(from, to));
        }
    }
    try {
        removeTree(targetBackup_, false, {});
    } catch (...) {
        logFailure(withNames(L"Commit move (%s) to (%s) transaction ", target_, source_));
        removeLater(targetBackup_);
    }
    targetBackup_.clear();
}

void backupmove::remove(const std::wstring& path) {
    removeTree(longPath(path), false, {});
}

void backupmove::removeTree(const std::wstring& path, bool keepTop, Directory::Keep keep) {
    Directory walker(path, true);
    walker.set_keepTop(keepTop);
    walker.set_keep(std::move(keep));
    const Hook hooks[] = {
        forwardEvent(walker.progressEvent_Total, progressEvent_Total),
        walker.progressEvent_Name.hook(
            [this](const std::wstring& name, bool isFile, std::int64_t cost, bool& cancel) {
                progressEvent_Name.raise(L"Remove: " + nicePath(name), isFile, cost, cancel);
            }),
        forwardEvent(walker.errorEvent, errorEvent),
    };
    const auto report = [&] {
        for (const std::wstring& left : walker.get_leftBehind()) {
            leftBehind_.push_back(nicePath(left));
        }
    };
    try {
        walker.remove(RunTime::defaultTryCount, true, true, nullptr);
    } catch (...) {
        report();
        throw;
    }
    report();
}

void backupmove::removeLater(const std::wstring& path) {
    takeOwnership(path);
    pendingRestart_.push_back(nicePath(RunTime::removeAtRestart(path)));
}

void backupmove::takeOwnership(const std::wstring& path) {
    try {
        Directory::setOwner(path, true);
    } catch (...) { // the attempt that follows shows whether it was needed
        logFailure(formatString(L"Take ownership of (%s)", nicePath(path).c_str()));
    }
}

void backupmove::reportStep(const std::wstring& text, bool isFile, bool mayCancel) {
    bool cancel = false;
    progressEvent_Total.raise(1, 1, cancel);
    if (cancel && mayCancel) {
        throw CanceledException({L"", "backupmove::move", __LINE__});
    }
    progressEvent_Name.raise(text, isFile, 1, cancel);
    if (cancel && mayCancel) {
        throw CanceledException({L"", "backupmove::move", __LINE__});
    }
}

void backupmove::close() {
    source_.clear();
    target_.clear();
    started_ = false;
    moved_ = false;
    completed_ = false;
    committing_ = false;
    undoing_ = false;
    undo_ = Undo::Nothing;
    leftOut_.clear();
    adopted_.clear();
    failedBefore_.clear();
    reportBefore_.clear();
    const std::wstring logName = log_.name();
    try {
        log_.remove();
    } catch (...) { // the move is done or undone all the same
        logFailure(formatString(L"Remove (%s) log file", nicePath(logName).c_str()));
    }
}
