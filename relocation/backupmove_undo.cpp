// How backupmove puts back what a move has changed.
#include "relocation/backupmove.h"

#include "relocation/directory.h"
#include "relocation/failure.h"
#include "relocation/logs_lock.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/pending_operations.h"
#include "runtime/files/pinned_path.h"
#include "runtime/format_string.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

using RunTime::nicePath;
using RunTime::PinnedPath;

void backupmove::rollback() {
    const NativeSpan span("backupmove::rollback", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    ThreadCancelation::check();
    const ThreadCancelation::CancelationPoint shielded(false);
    LogsLock lock(logsLock_, lockLogs_);
    try {
        if (committing_) { // parts of the old place are gone
            throw vexception(L"Unable to rollback files: the commit has begun and must be repeated",
                             {L"", "backupmove::rollback", __LINE__});
        }
        leftBehind_.clear();
        undoMove();
        undo_ = Undo::Nothing;
        if (!targetBackup_.empty()) {
            try {
                RunTime::moveEx(targetBackup_, to_);
            } catch (...) {
                logFailure(withNames(L"Restore (%s) from (%s)", to_, targetBackup_));
                throw;
            }
            targetBackup_.clear();
        }
        close();
    } catch (...) {
        logFailure(L"Unable to rollback files");
        throw;
    }
    lock.release();
}

void backupmove::undoMove() {
    const bool copied = undo_ != Undo::Nothing && undo_ != Undo::RenameBack;
    if (copied && !RunTime::exists(from_)) { // the copy is all there is left
        if (undo_ != Undo::RemoveTarget || !completed_) {
            throw vexception(
                withNames(L"Unable to rollback files: (%s) is gone, so its copy in (%s) is kept",
                          from_, to_),
                {L"", "backupmove::rollback", __LINE__});
        }
        renameBack();
        return;
    }
    undoing_ = undoing_ || undo_ != Undo::ReplayLog;
    switch (undo_) {
    case Undo::Nothing:
        break;
    case Undo::RemoveTarget:
        if (itemsMade_ > 0 && RunTime::exists(to_)) {
            try {
                removeTree(to_, false, {});
            } catch (...) {
                logFailure(withNames(L"Rollback move (%s) to (%s) transaction ", target_, source_));
                removeLater(to_);
            }
        }
        break;
    case Undo::EmptyTarget:
        removeTree(to_, true, {});
        restoreExisting();
        break;
    case Undo::ReplayLog:
        replayLog();
        restoreExisting();
        break;
    case Undo::RenameBack:
        renameBack();
        break;
    }
}

void backupmove::replayLog() {
    bool cancel = false;
    progressEvent_Total.raise(log_.totalCount(), log_.totalCost(), cancel);
    if (cancel) { // the log stays, and rollback() can be called again
        throw CanceledException({L"", "backupmove::rollback", __LINE__});
    }
    log_.seekToEnd(to_);
    undoing_ = true;
    PinnedPath pinned(to_);
    for (TransactionLog::Record record; log_.previous(record, to_);) {
        progressEvent_Name.raise(nicePath(record.name), record.isFile, record.cost, cancel);
        if (cancel) {
            throw CanceledException({L"", "backupmove::rollback", __LINE__});
        }
        try {
            removeLogged(record, pinned);
        } catch (const vosexception& failure) {
            const vosexception error(
                failure.get_errorCode(),
                formatString(L"remove(%s)", nicePath(record.name).c_str()).c_str(),
                {L"", "backupmove::rollback", __LINE__});
            bool ignore = false;
            errorEvent.raise(error.what(), ignore);
            leftBehind_.push_back(nicePath(record.name));
            if (!ignore) {
                throw vosexception(error);
            }
        }
    }
}

void backupmove::removeLogged(const TransactionLog::Record& record, PinnedPath& pinned) {
    if (!pinned.hold(RunTime::parentPath(record.name))) {
        return; // gone, with the directory it was in
    }
    if (record.isFile) {
        RunTime::deleteFile(record.name);
        return;
    }
    constexpr int tries = 3; // what was below may take a moment to be gone
    pinned.release(record.name);
    try {
        RunTime::removeDirectory(record.name, tries);
    } catch (const VDirectoryNotEmptyException&) { // it holds what is not ours
        leftBehind_.push_back(nicePath(record.name));
    }
}

void backupmove::restoreExisting() {
    for (auto existing = existing_.rbegin(); existing != existing_.rend(); ++existing) {
        const RunTime::AutoHandle directory = RunTime::openExisting(
            existing->path,
            FILE_WRITE_ATTRIBUTES |
                (existing->descriptor.empty() ? 0 : static_cast<DWORD>(WRITE_DAC)),
            FILE_SHARE_READ | FILE_SHARE_WRITE);
        DWORD code = directory ? ERROR_SUCCESS : ::GetLastError();
        if (code == ERROR_SUCCESS && !existing->descriptor.empty()) {
            code = RunTime::writeDescriptor(directory.get(), existing->descriptor, false, false);
        }
        if (code == ERROR_SUCCESS &&
            !::SetFileInformationByHandle(directory.get(), FileBasicInfo, &existing->basic,
                                          sizeof(existing->basic))) {
            code = ::GetLastError();
        }
        if (code != ERROR_SUCCESS) {
            _throwError(
                formatString(L"Unable to set attributes (%s)", nicePath(existing->path).c_str())
                    .c_str(),
                code, {L"", "backupmove::rollback", __LINE__});
        }
    }
    existing_.clear();
}

void backupmove::renameBack() {
    if (RunTime::exists(from_)) { // never over what others have put there, nor in its place
        throw vexception(withNames(L"Unable to move (%s) to (%s), which exists again", to_, from_),
                         {L"", "backupmove::rollback", __LINE__});
    }
    try {
        RunTime::moveEx(to_, from_);
    } catch (...) {
        logFailure(withNames(L"Rollback move (%s) to (%s) transaction ", target_, source_));
        takeOwnership(to_);
        RunTime::moveAtRestart(to_, from_);
        pendingRestart_.push_back(nicePath(to_));
    }
    reportStep(L"Rollback: " + nicePath(source_), false, false);
}
