#include "tools/zopctl/data_move_command.h"

#include "relocation/backupmove.h"
#include "relocation/move_preflight.h"
#include "relocation/open_files.h"
#include "relocation/tree_compare.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/interprocess_lock.h"
#include "runtime/log_manager.h"
#include "runtime/text.h"
#include "tools/zopctl/cancel_key.h"
#include "tools/zopctl/data_move_arguments.h"
#include "tools/zopctl/move_meter.h"
#include "tools/zopctl/move_reporter.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>
#include <exception>
#include <set>

namespace zopctl {

namespace {

using Stage = CancelKey::Stage;

constexpr wchar_t moveLock[] = L"Global\\zopctl-data-move";

std::wstring quoted(const std::wstring& path) {
    return L"\"" + RunTime::nicePath(path) + L"\"";
}

bool isThere(const std::wstring& path) {
    try {
        return RunTime::exists(path);
    } catch (const vexception&) {
        return false;
    }
}

// The message of an error without the places in the code that it passed, which what() adds.
std::wstring withoutFrames(const std::wstring& text) {
    return text.substr(0, text.find(L"\n   at "));
}

// One move, from the first look to the result. It drives the mover of the library directly, not
// its public class: that one never copies where a rename would do, and does not tell the target's
// names or which items were given up.
class DataMove {
public:
    DataMove(const DataMoveOptions& options, Console& console)
        : options_(options), console_(console), reporter_(makeMoveReporter(options, console)),
          meter_(*reporter_), key_([this](const std::wstring& text) { sayFromHandler(text); }),
          lock_(moveLock) {
        if (options.verbose) {
            listener_ = LogManager::getInstance().addListener(
                [this](LogType, const std::wstring& text) { reporter_->logged(text); });
        }
        hooks_.push_back(mover_.progressEvent_Name2.hook(
            [this](const std::wstring& source, const std::wstring& target, bool isFile,
                   std::int64_t cost, bool&) { itemBegins(source, target, isFile, cost); }));
        hooks_.push_back(mover_.progressEvent_Bytes.hook([this](std::int64_t bytes, bool& cancel) {
            cancel = mayCancel_ && key_.isRequested();
            meter_.advance(0, currentCost_ + bytes, RunTime::nicePath(currentSource_));
        }));
        hooks_.push_back(mover_.itemAbandonedEvent.hook([this] { itemAbandoned(); }));
        hooks_.push_back(mover_.progressEvent_Name.hook(
            [this](const std::wstring& text, bool, std::int64_t cost, bool& cancel) {
                itemNamed(text, cost);
                cancel = mayCancel_ && key_.isRequested();
            }));
        hooks_.push_back(
            mover_.progressEvent_Total.hook([this](std::int32_t, std::int64_t, bool& cancel) {
                cancel = mayCancel_ && key_.isRequested();
            }));
        hooks_.push_back(mover_.errorEvent.hook([this](const std::wstring& message, bool& ignore) {
            itemFailed(message);
            ignore = ignoreErrors_;
        }));
    }

    ExitCode run() {
        start_ = ::GetTickCount64();
        reporter_->start(options_);
        try {
            if (!look() || !agree()) {
                return finish();
            }
        } catch (const CanceledException&) {
            end(ExitCode::Cancelled, L"cancelled", L"Cancelled; nothing has been changed.");
            return finish();
        } catch (const vexception& e) {
            end(ExitCode::Failed, L"failed", e.message() + L". Nothing has been changed.");
            return finish();
        }
        start_ = ::GetTickCount64(); // the time to answer is nobody's work
        if (work()) {
            commit();
        }
        return finish();
    }

private:
    // ---- before

    // False when the outcome is clear already.
    bool look() {
        if (!options_.dryRun && !acquireLock()) {
            return false;
        }
        MovePreflight preflight;
        const Hook progress =
            preflight.progressEvent.hook([this](const TreeContents& contents, bool& cancel) {
                cancel = key_.isRequested();
                meter_.look(contents);
            });
        MovePreflight::Options options;
        options.copy = options_.copy;
        options.keepGoing = options_.keepGoing;
        options.copyOwner = options_.copyOwner;
        options.streams = options_.streams;
        seen_ = preflight.examine(options_.source, options_.target, options);
        outcome_.source = seen_.source;
        outcome_.target = seen_.target;
        reporter_->progressEnds();
        reporter_->preflight(seen_);
        if (seen_.isRefused()) {
            end(ExitCode::Refused, L"refused", L"Nothing has been changed.");
            return false;
        }
        if (options_.verify && !seen_.willCopy) {
            reporter_->warning(L"--verify has nothing to compare: a rename moves the directory "
                               L"itself, and makes no copy.");
        }
        if (options_.dryRun) {
            end(ExitCode::Success, L"dry-run",
                L"Nothing has been changed: this was a dry run. Without --dry-run the move would "
                L"start now.");
            return false;
        }
        return true;
    }

    bool acquireLock() {
        try {
            lock_.lock(L"Unable to lock the move", 0);
            return true;
        } catch (const vosexception& e) {
            MovePreflight::Result refusal;
            refusal.source = RunTime::nicePath(options_.source);
            refusal.target = RunTime::nicePath(options_.target);
            refusal.findings.push_back(
                {MoveFinding::Severity::Refuse, "another-move",
                 e.get_errorCode() == ERROR_TIMEOUT
                     ? L"Another move is running on this computer."
                     : L"It cannot be told whether another move is running: " + e.message(),
                 L"Wait until it has ended."});
            reporter_->preflight(refusal);
            end(ExitCode::Refused, L"refused", L"Nothing has been changed.");
            return false;
        }
    }

    // The one question, before anything is changed.
    bool agree() {
        if (options_.yes) {
            return true;
        }
        if (options_.json || !console_.canAsk()) {
            end(ExitCode::Refused, L"refused",
                L"Refused: there is nobody to ask whether to start. Nothing has been changed.");
            outcome_.advice.push_back(
                L"Add --yes to start without a question, or --dry-run to look only.");
            return false;
        }
        if (options_.quiet) {
            console_.line(L"Move " + quoted(seen_.source) + L" to " + quoted(seen_.target));
        }
        key_.enter(Stage::Asking);
        const bool yes = console_.ask(question());
        key_.enter(Stage::Looking);
        if (yes && !key_.isRequested()) {
            return true;
        }
        end(ExitCode::Cancelled, L"declined", L"Nothing has been changed.");
        return false;
    }

    std::wstring question() const {
        std::wstring text;
        if (seen_.targetHoldsItems()) {
            text += L"The target holds something already. ";
        }
        if (seen_.keepsSource) {
            text += L"The old directory will stay. ";
        } else if (seen_.willCopy) {
            text += L"The old directory is removed once the copy is complete. ";
        }
        return text + L"Continue? (y/N) ";
    }

    // ---- the work

    // True when everything is at the new place and may be committed.
    bool work() {
        meter_.plan(seen_, options_.verify);
        key_.enter(Stage::Working);
        mayCancel_ = true;
        ignoreErrors_ = options_.keepGoing;
        try {
            meter_.begin(seen_.willCopy ? MoveMeter::Step::Copy : MoveMeter::Step::Rename);
            outcome_.renamed = mover_.move(seen_.source, seen_.target, options_.copy);
            reporter_->progressEnds();
            countMoved();
            if (options_.verify && !outcome_.renamed && !verify()) {
                rollback(ExitCode::Failed, L"failed",
                         L"The copy differs from the original in " +
                             countOf(differences_, L"place", L"places") + L".");
                return false;
            }
            if (!key_.enter(Stage::Committing)) {
                return true;
            }
            rollback(ExitCode::Cancelled, L"cancelled", L"Cancelled.");
        } catch (const CanceledException&) {
            rollback(ExitCode::Cancelled, L"cancelled", L"Cancelled.");
        } catch (const vosexception& e) {
            const DWORD code = e.get_errorCode();
            // A directory is not renamed while anything in it is open, and the system does not say
            // what: it is looked for once the old state is back.
            inUse_ =
                !seen_.willCopy && (code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION);
            rollback(ExitCode::Failed, L"failed", L"The move failed: " + e.message() + L".");
        } catch (const vexception& e) {
            rollback(ExitCode::Failed, L"failed", L"The move failed: " + e.message() + L".");
        } catch (const std::exception& e) {
            rollback(ExitCode::Failed, L"failed", L"The move failed: " + toWide(e.what()) + L".");
        }
        return false;
    }

    // Whether the copy equals the original, as far as it was asked to.
    bool verify() {
        meter_.begin(MoveMeter::Step::Verify);
        std::set<std::wstring> failed; // by path below the source
        for (const std::wstring& path : mover_.get_failed()) {
            if (path.size() > seen_.source.size() + 1) {
                failed.insert(path.substr(seen_.source.size() + 1));
            }
        }
        TreeComparison::Options options;
        options.contents = options.sizes = has(options_.streams, StreamType::Data);
        options.streams = has(options_.streams, StreamType::AlternateData) && !seen_.losesStreams;
        options.security = has(options_.streams, StreamType::SecurityData);
        options.owner = options_.copyOwner && options.security;
        // What the target held before is not ours to judge: directories kept their properties.
        options.onlyInSecond = !seen_.targetHoldsItems();
        options.directoryProperties = !seen_.targetHoldsItems() && failed.empty();
        options.ignoredAttributes = seen_.lostAttributes;
        options.uncached = TreeComparison::Uncached::Second;
        options.leaveOut = [&](const std::wstring& path) { return failed.contains(path); };
        TreeComparison comparison;
        const Hook differs =
            comparison.differenceEvent.hook([this](const TreeDifference& difference) {
                ++differences_;
                reporter_->difference(difference);
            });
        const Hook progress = comparison.progressEvent.hook(
            [&](const std::wstring& path, bool, std::int64_t bytes, bool& cancel) {
                cancel = key_.isRequested();
                meter_.advance(1, bytes, path);
            });
        comparison.compare(seen_.source, seen_.target, options);
        reporter_->progressEnds();
        outcome_.verified = differences_ == 0;
        return outcome_.verified;
    }

    void commit() {
        mayCancel_ = false;
        ignoreErrors_ = false; // what cannot be removed now is left to the next restart
        meter_.begin(MoveMeter::Step::Remove);
        outcome_.losses = mover_.get_report();
        const std::size_t failedBefore = outcome_.failed.size();
        try {
            mover_.commit();
            outcome_.failed.resize(failedBefore); // errors that it got over are in its lists
        } catch (const vexception& e) {
            oldCopyStays(e.message());
        } catch (const std::exception& e) {
            oldCopyStays(toWide(e.what()));
        }
        reporter_->progressEnds();
        outcome_.leftBehind = mover_.get_leftBehind();
        outcome_.pendingRestart = mover_.get_pendingRestart();
        // Seen, not believed: a removal may be reported and yet not have happened.
        if (outcome_.leftBehind.empty() && outcome_.pendingRestart.empty() &&
            isThere(seen_.source)) {
            outcome_.leftBehind.push_back(seen_.source);
            outcome_.advice.push_back(
                seen_.keepsSource ? L"The old directory was left, since the name of the target "
                                    L"begins with its name: remove it yourself."
                                  : L"The old directory is still there: remove it yourself.");
        }
        if (!outcome_.pendingRestart.empty()) {
            outcome_.advice.push_back(L"Restart the computer to have it finished.");
        }
        if (!seen_.targetHoldsItems()) { // else what was there before would be moved as well
            outcome_.advice.push_back(L"To undo: zopctl data move " + quoted(seen_.target) + L" " +
                                      quoted(seen_.source));
        }
        if (!outcome_.leftBehind.empty() || !outcome_.pendingRestart.empty() ||
            !outcome_.failed.empty()) {
            outcome_.code = ExitCode::DoneWithRemainder;
        }
        if (outcome_.code == ExitCode::DoneWithRemainder) {
            outcome_.status = L"moved-with-remainder";
        }
    }

    void oldCopyStays(const std::wstring& reason) {
        outcome_.code = ExitCode::DoneWithRemainder;
        outcome_.message =
            L"Everything is at the new place, but the old copy could not be removed: " + reason +
            L".";
        outcome_.advice.push_back(L"Remove what is left of " + quoted(seen_.source) +
                                  L" yourself.");
    }

    // ---- undoing

    void rollback(ExitCode code, const wchar_t* status, const std::wstring& reason) {
        key_.enter(Stage::RollingBack);
        mayCancel_ = false;
        ignoreErrors_ = true; // it goes on past its own errors
        rollingBack_ = true;
        reporter_->progressEnds();
        reporter_->warning(L"Rolling back...");
        outcome_.files = outcome_.directories = outcome_.bytes = 0;
        rollbackErrors_.clear();
        std::wstring failure;
        // A rollback goes on where it stopped; what stopped it may have passed.
        for (int attempt = 0; attempt < 2; ++attempt) {
            failure.clear();
            meter_.begin(MoveMeter::Step::RollBack);
            try {
                mover_.rollback();
                break;
            } catch (const vexception& e) {
                failure = e.message();
            } catch (const std::exception& e) {
                failure = toWide(e.what());
            }
        }
        reporter_->progressEnds();
        outcome_.leftBehind = mover_.get_leftBehind();
        outcome_.pendingRestart = mover_.get_pendingRestart();
        if (failure.empty() && rollbackErrors_.empty() && outcome_.leftBehind.empty() &&
            outcome_.pendingRestart.empty()) {
            end(code, status, reason + L" Everything is as it was before.");
            if (code == ExitCode::Failed) {
                advise();
            }
            return;
        }
        end(ExitCode::RollbackIncomplete, L"rollback-incomplete",
            reason + L" Not everything could be put back" +
                (failure.empty() ? std::wstring(1, L'.') : L": " + failure));
        outcome_.failed.insert(outcome_.failed.end(), rollbackErrors_.begin(),
                               rollbackErrors_.end());
        tellWhatIsWhere();
    }

    void advise() {
        if (inUse_) {
            adviseToClose();
        } else if (differences_ != 0) {
            outcome_.advice.push_back(L"If the source is being written to, stop what writes to it "
                                      L"(sites, services), and start again.");
        } else {
            outcome_.advice.push_back(L"Remove the cause and start again"
                                      L"; --keep-going leaves single items that fail behind.");
        }
    }

    void adviseToClose() {
        constexpr std::size_t shown = 10;
        const std::vector<OpenItem> open = findOpenItems(seen_.source, shown);
        outcome_.advice.push_back(
            open.empty() ? L"Something in the source may be in use: stop the programs and services "
                           L"that work there, and start again. With --copy it need not be closed."
                         : L"These are in use; stop what uses them, and start again:");
        for (const OpenItem& item : open) {
            std::wstring line = L"  " + item.path;
            for (const std::wstring& holder : item.holders) {
                line += (&holder == &item.holders.front() ? L": " : L", ") + holder;
            }
            outcome_.advice.push_back(line);
        }
    }

    void tellWhatIsWhere() {
        const bool source = isThere(seen_.source);
        const bool target = isThere(seen_.target);
        if (outcome_.renamed || !source) {
            outcome_.advice.push_back(
                target ? L"The whole directory is at " + quoted(seen_.target) +
                             L". Stop what holds files in it open, then move it back: zopctl data "
                             L"move " +
                             quoted(seen_.target) + L" " + quoted(seen_.source)
                       : L"Neither " + quoted(seen_.source) + L" nor " + quoted(seen_.target) +
                             L" can be seen now: check the drives.");
            return;
        }
        outcome_.advice.push_back(L"The source " + quoted(seen_.source) +
                                  L" is whole and can be used.");
        if (!target) {
            return;
        }
        outcome_.advice.push_back(
            seen_.targetHoldsItems()
                ? L"In " + quoted(seen_.target) +
                      L" some of the copied items are left beside what was there before; those "
                      L"that could not be removed are listed above."
                : L"What is left in " + quoted(seen_.target) + L" was copied, and can be deleted.");
        if (!outcome_.pendingRestart.empty()) {
            outcome_.advice.push_back(L"Restart the computer before you move there again.");
        }
    }

    // ---- events of the mover

    void itemBegins(const std::wstring& source, const std::wstring& target, bool isFile,
                    std::int64_t cost) {
        currentSource_ = source;
        currentTarget_ = target;
        currentIsFile_ = isFile;
        currentCost_ = cost;
        (isFile ? outcome_.files : outcome_.directories) += 1;
    }

    void itemAbandoned() { (currentIsFile_ ? outcome_.files : outcome_.directories) -= 1; }

    void itemNamed(const std::wstring& text, std::int64_t cost) {
        if (options_.verbose) {
            reporter_->item(text);
        }
        const std::size_t prefix = text.find(L": ");
        meter_.advance(1, cost, prefix == std::wstring::npos ? text : text.substr(prefix + 2));
    }

    void itemFailed(const std::wstring& message) {
        FailedItem item{rollingBack_ ? std::wstring() : RunTime::nicePath(currentSource_),
                        withoutFrames(message)};
        reporter_->failed(item);
        meter_.countError();
        (rollingBack_ ? rollbackErrors_ : outcome_.failed).push_back(std::move(item));
    }

    // Files and directories are counted as they are named; bytes are told before each item only.
    void countMoved() {
        if (outcome_.renamed) {
            outcome_.files = seen_.contents.files;
            outcome_.directories = seen_.contents.directories;
            outcome_.bytes = seen_.contents.bytes;
            return;
        }
        if (!seen_.targetExists && outcome_.directories > 0) {
            --outcome_.directories; // the top, which the numbers shown before did not count
        }
        outcome_.bytes = currentCost_ + (currentIsFile_ ? sizeOf(currentSource_) : 0);
        for (const std::wstring& failed : mover_.get_failed()) {
            outcome_.bytes -= sizeOf(failed);
        }
        const TreeContents& tree = seen_.contents;
        std::int64_t merged = mover_.get_report().of(CopyLoss::MergedDirectory).count;
        merged -= merged > 0 ? 1 : 0; // the top
        const std::int64_t before = tree.files + tree.directories + tree.links;
        const std::int64_t now = outcome_.files + outcome_.directories + merged;
        if (mover_.get_failed().empty() && before != now) {
            reporter_->warning(L"The source has changed while it was being copied: it held " +
                               countOf(before, L"item", L"items") + L" before, and " +
                               countOf(now, L"item was", L"items were") + L" copied.");
        }
    }

    static std::int64_t sizeOf(const std::wstring& path) {
        try {
            return RunTime::fileInformation(path).size;
        } catch (const vexception&) {
            return 0; // it has gone meanwhile
        }
    }

    void sayFromHandler(const std::wstring& text) {
        if (options_.json) {
            reporter_->warning(text);
        } else {
            console_.errorLine(text);
        }
    }

    // ---- the end

    void end(ExitCode code, const wchar_t* status, const std::wstring& message) {
        outcome_.code = code;
        outcome_.status = status;
        outcome_.message = message;
    }

    ExitCode finish() {
        outcome_.milliseconds = ::GetTickCount64() - start_;
        if (outcome_.source.empty()) {
            outcome_.source = RunTime::nicePath(options_.source);
            outcome_.target = RunTime::nicePath(options_.target);
        }
        reporter_->progressEnds();
        reporter_->result(outcome_);
        return outcome_.code;
    }

    const DataMoveOptions& options_;
    Console& console_;
    std::unique_ptr<MoveReporter> reporter_;
    MoveMeter meter_;
    CancelKey key_;
    RunTime::InterprocessLock lock_;
    MovePreflight::Result seen_;
    MoveOutcome outcome_;
    std::uint64_t start_ = 0;
    std::int64_t differences_ = 0;
    bool mayCancel_ = false;
    bool ignoreErrors_ = false;
    bool inUse_ = false;
    bool rollingBack_ = false;
    std::vector<FailedItem> rollbackErrors_;
    std::wstring currentSource_; // of the item being copied, long form
    std::wstring currentTarget_;
    bool currentIsFile_ = false;
    std::int64_t currentCost_ = 0;
    LogManager::Registration listener_;
    backupmove mover_;
    std::vector<Hook> hooks_; // after the events they hook, so they go first
};

} // namespace

ExitCode runDataMove(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseDataMove(arguments), console, [&](const DataMoveOptions& options) {
        return DataMove(options, console).run();
    });
}

} // namespace zopctl
