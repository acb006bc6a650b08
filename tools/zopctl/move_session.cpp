#include "tools/zopctl/move_session.h"

#include "relocation/place_check.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/text.h"
#include "tools/zopctl/text_format.h"

#include <exception>
#include <set>

namespace zopctl {

namespace {

class CopyDiffers : public vexception {
    using vexception::vexception;
};

// The message of an error without the places in the code that it passed, which what() adds.
std::wstring withoutFrames(const std::wstring& text) {
    return text.substr(0, text.find(L"\n   at "));
}

} // namespace

std::wstring quotedPath(const std::wstring& path) {
    return L"\"" + RunTime::nicePath(path) + L"\"";
}

MoveSession::MoveSession(const wchar_t* command, const MoveOptions& options, Console& console)
    : options_(options), console_(console), reporter_(makeMoveReporter(options, console)),
      meter_(*reporter_), command_(command),
      key_([this](const std::wstring& text) { sayFromHandler(text); }), lock_(moveLock) {
    if (options.verbose) {
        listener_ = LogManager::getInstance().addListener(
            [this](LogType, const std::wstring& text) { reporter_->logged(text); });
    }
}

ExitCode MoveSession::run() {
    start_ = ::GetTickCount64();
    JsonFields fields{{"command", command_},
                      {"source", RunTime::nicePath(options_.source)},
                      {"target", RunTime::nicePath(options_.target)},
                      {"streams", static_cast<int>(options_.streams)}};
    const JsonFields special = startFields();
    fields.insert(fields.end(), special.begin(), special.end());
    const JsonFields common{{"copyOwner", options_.copyOwner},
                            {"keepGoing", options_.keepGoing},
                            {"verify", options_.verify},
                            {"dryRun", options_.dryRun}};
    fields.insert(fields.end(), common.begin(), common.end());
    reporter_->start(fields);
    try {
        if (!lookFirst() || !agree()) {
            return finish();
        }
    } catch (const CanceledException&) {
        end(ExitCode::Cancelled, L"cancelled", L"Cancelled; nothing has been changed.");
        return finish();
    } catch (const vexception& e) {
        end(ExitCode::Failed, L"failed", sentence(e.message()) + L" Nothing has been changed.");
        return finish();
    }
    start_ = ::GetTickCount64(); // the time to answer is nobody's work
    if (work()) {
        commit();
    }
    return finish();
}

// ---- before

// False when the outcome is clear already.
bool MoveSession::lookFirst() {
    if (!options_.dryRun && !acquireLock()) {
        return false;
    }
    seen_ = examine();
    outcome_.source = seen_.source;
    outcome_.target = seen_.target;
    reporter_->progressEnds();
    reporter_->preflight(seen_, plan());
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

bool MoveSession::acquireLock() {
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
        reporter_->preflight(refusal, {});
        end(ExitCode::Refused, L"refused", L"Nothing has been changed.");
        return false;
    }
}

void MoveSession::look(const TreeContents& contents, bool& cancel) {
    cancel = key_.isRequested();
    meter_.look(contents);
}

// The one question, before anything is changed.
bool MoveSession::agree() {
    if (options_.yes) {
        return true;
    }
    if (!mayAsk()) {
        end(ExitCode::Refused, L"refused",
            L"Refused: there is nobody to ask whether to start. Nothing has been changed.");
        outcome_.advice.push_back(
            L"Add --yes to start without a question, or --dry-run to look only.");
        return false;
    }
    if (options_.quiet) {
        console_.line(L"Move " + quotedPath(seen_.source) + L" to " + quotedPath(seen_.target));
    }
    key_.enter(Stage::Asking);
    const bool yes = console_.ask(question() + L"Continue? (y/N) ");
    key_.enter(Stage::Looking);
    if (yes && !key_.isRequested()) {
        return true;
    }
    end(ExitCode::Cancelled, L"declined", L"Nothing has been changed.");
    return false;
}

bool MoveSession::mayAsk() const {
    return !options_.yes && !options_.json && console_.canAsk();
}

std::wstring MoveSession::question() const {
    std::wstring text;
    if (seen_.targetHoldsItems()) {
        text += L"The target holds something already. ";
    }
    if (seen_.keepsSource) {
        text += L"The old directory will stay. ";
    } else if (seen_.willCopy) {
        text += L"The old directory is removed once the copy is complete. ";
    }
    return text;
}

// ---- the work

// True when everything is at the new place and may be committed.
bool MoveSession::work() {
    planWork(meter_);
    key_.enter(Stage::Working);
    mayCancel_ = true;
    ignoreErrors_ = options_.keepGoing;
    try {
        transfer();
        complete();
        reporter_->progressEnds();
        if (!key_.enter(Stage::Committing)) {
            return true;
        }
        rollBack(ExitCode::Cancelled, L"cancelled", L"Cancelled.");
    } catch (const CanceledException&) {
        rollBack(ExitCode::Cancelled, L"cancelled", L"Cancelled.");
    } catch (const CopyDiffers& e) {
        rollBack(ExitCode::Failed, L"failed", e.message());
    } catch (const vosexception& e) {
        failureCode_ = e.get_errorCode();
        rollBack(ExitCode::Failed, L"failed", L"The move failed: " + sentence(e.message()));
    } catch (const vexception& e) {
        rollBack(ExitCode::Failed, L"failed", L"The move failed: " + sentence(e.message()));
    } catch (const std::exception& e) {
        rollBack(ExitCode::Failed, L"failed", L"The move failed: " + sentence(toWide(e.what())));
    }
    return false;
}

void MoveSession::verify() {
    if (!options_.verify || outcome_.renamed) {
        return;
    }
    reporter_->progressEnds();
    meter_.begin(MoveMeter::Step::Verify);
    std::set<std::wstring> failed; // by path below the source
    for (const std::wstring& path : failedItems()) {
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
    const Hook differs = comparison.differenceEvent.hook([this](const TreeDifference& difference) {
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
    if (!outcome_.verified) {
        throw CopyDiffers(L"The copy differs from the original in " +
                              countOf(differences_, L"place", L"places") + L".",
                          {L"", "zopctl::MoveSession::verify", __LINE__});
    }
}

void MoveSession::commit() {
    mayCancel_ = false;
    ignoreErrors_ = false; // what cannot be removed now is left to the next restart
    meter_.begin(MoveMeter::Step::Remove);
    outcome_.losses = losses();
    const std::size_t failedBefore = outcome_.failed.size();
    try {
        commitMove();
        outcome_.failed.resize(failedBefore); // errors that it got over are in its lists
    } catch (const vexception& e) {
        oldCopyStays(e.message());
    } catch (const std::exception& e) {
        oldCopyStays(toWide(e.what()));
    }
    reporter_->progressEnds();
    outcome_.leftBehind = leftBehind();
    outcome_.pendingRestart = pendingRestart();
    // Seen, not believed: a removal may be reported and yet not have happened.
    if (outcome_.leftBehind.empty() && outcome_.pendingRestart.empty() && isThere(seen_.source)) {
        outcome_.leftBehind.push_back(seen_.source);
        outcome_.advice.push_back(seen_.keepsSource
                                      ? L"The old directory was left, since the name of the target "
                                        L"begins with its name: remove it yourself."
                                      : L"The old directory is still there: remove it yourself.");
    }
    if (!outcome_.pendingRestart.empty()) {
        outcome_.advice.push_back(L"Restart the computer to have it finished.");
    }
    outcome_.details = summary();
    if (!seen_.targetHoldsItems()) { // else what was there before would be moved as well
        outcome_.advice.push_back(L"To undo: " + undoCommand());
    }
    if (!outcome_.leftBehind.empty() || !outcome_.pendingRestart.empty() ||
        !outcome_.failed.empty()) {
        outcome_.code = ExitCode::DoneWithRemainder;
    }
    if (outcome_.code == ExitCode::DoneWithRemainder) {
        outcome_.status = L"moved-with-remainder";
    }
}

void MoveSession::oldCopyStays(const std::wstring& reason) {
    outcome_.code = ExitCode::DoneWithRemainder;
    outcome_.message = L"Everything is at the new place, but the old copy could not be removed: " +
                       sentence(reason);
    outcome_.advice.push_back(L"Remove what is left of " + quotedPath(seen_.source) +
                              L" yourself.");
}

// ---- undoing

void MoveSession::rollBack(ExitCode code, const wchar_t* status, const std::wstring& reason) {
    key_.enter(Stage::RollingBack);
    mayCancel_ = false;
    ignoreErrors_ = true; // it goes on past its own errors
    rollingBack_ = true;
    reporter_->progressEnds();
    reporter_->warning(L"Rolling back...");
    outcome_.files = outcome_.directories = outcome_.bytes = 0;
    // A rollback goes on where it stopped; what stopped it may have passed, or somebody may see to
    // it. Once this program has ended, nobody knows any more what there was to undo.
    std::wstring failure = tryRollback();
    if (!failure.empty()) {
        failure = tryRollback();
    }
    while (!failure.empty() && mayAsk() &&
           console_.ask(L"Not everything could be put back: " + sentence(failure) +
                        L" Remove the cause, then: try again? (y/N) ")) {
        failure = tryRollback();
    }
    outcome_.leftBehind = leftBehind();
    outcome_.pendingRestart = pendingRestart();
    rollbackErrors_.insert(rollbackErrors_.end(), partErrors_.begin(), partErrors_.end());
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
            (failure.empty() || !rollbackErrors_.empty() ? std::wstring(1, L'.')
                                                         : L": " + sentence(failure)));
    outcome_.failed.insert(outcome_.failed.end(), rollbackErrors_.begin(), rollbackErrors_.end());
    tellWhatIsWhere();
}

// Why it did not work; empty when it did.
std::wstring MoveSession::tryRollback() {
    std::wstring failure;
    partErrors_.clear(); // what is left to put back fails again, or not any more
    meter_.begin(MoveMeter::Step::RollBack);
    try {
        rollBackMove();
    } catch (const vexception& e) {
        failure = e.message();
    } catch (const std::exception& e) {
        failure = toWide(e.what());
    }
    reporter_->progressEnds();
    return failure;
}

void MoveSession::advise() {
    if (differences_ != 0) {
        outcome_.advice.push_back(L"If the source is being written to, stop what writes to it "
                                  L"(sites, services), and start again.");
    } else {
        outcome_.advice.push_back(L"Remove the cause and start again"
                                  L"; --keep-going leaves single items that fail behind.");
    }
}

void MoveSession::tellWhatIsWhere() {
    const bool source = isThere(seen_.source);
    const bool target = isThere(seen_.target);
    if (outcome_.renamed || !source) {
        outcome_.advice.push_back(
            target
                ? L"The whole directory is at " + quotedPath(seen_.target) +
                      L". Stop what holds files in it open, then move it back: " + putBackCommand()
                : L"Neither " + quotedPath(seen_.source) + L" nor " + quotedPath(seen_.target) +
                      L" can be seen now: check the drives.");
        return;
    }
    outcome_.advice.push_back(L"The source " + quotedPath(seen_.source) +
                              L" is whole and can be used.");
    if (!target) {
        return;
    }
    outcome_.advice.push_back(
        seen_.targetHoldsItems()
            ? L"In " + quotedPath(seen_.target) +
                  L" some of the copied items are left beside what was there before; those "
                  L"that could not be removed are listed above."
            : L"What is left in " + quotedPath(seen_.target) + L" was copied, and can be deleted.");
    if (!outcome_.pendingRestart.empty()) {
        outcome_.advice.push_back(L"Restart the computer before you move there again.");
    }
}

// ---- events of the work

void MoveSession::itemNamed(const std::wstring& text, std::int64_t bytes) {
    std::wstring shown = text;
    if (const std::size_t at = shown.find(RunTime::longPrefix); at != std::wstring::npos) {
        shown.erase(at, RunTime::longPrefix.size());
    }
    if (options_.verbose) {
        reporter_->item(shown);
    }
    const std::wstring path = pathOf(shown);
    meter_.advance(1, bytes, path.empty() ? shown : path);
}

std::wstring MoveSession::pathOf(const std::wstring& text) {
    for (const std::wstring_view prefix :
         {L"Copy: ", L"Remove: ", L"Move: ", L"Commit: ", L"Rollback: "}) {
        if (text.starts_with(prefix)) {
            return text.substr(prefix.size());
        }
    }
    return {};
}

bool MoveSession::itemFailed(const std::wstring& path, const std::wstring& message) {
    FailedItem item{rollingBack_ ? std::wstring() : RunTime::nicePath(path),
                    withoutFrames(message)};
    tell(item);
    (rollingBack_ ? rollbackErrors_ : outcome_.failed).push_back(std::move(item));
    return ignoreErrors_;
}

void MoveSession::partFailed(const std::wstring& message) {
    FailedItem item{{}, withoutFrames(message)};
    tell(item);
    (rollingBack_ ? partErrors_ : outcome_.failed).push_back(std::move(item));
}

void MoveSession::tell(const FailedItem& item) {
    if (rollingBack_ && !toldInRollback_.insert(item.reason).second) {
        return; // the second attempt failed like the first
    }
    reporter_->failed(item);
    meter_.countError();
}

void MoveSession::sayFromHandler(const std::wstring& text) {
    if (options_.json) {
        reporter_->warning(text);
    } else {
        console_.errorLine(text);
    }
}

// ---- the end

void MoveSession::end(ExitCode code, const wchar_t* status, const std::wstring& message) {
    outcome_.code = code;
    outcome_.status = status;
    outcome_.message = message;
}

ExitCode MoveSession::finish() {
    outcome_.milliseconds = ::GetTickCount64() - start_;
    if (outcome_.source.empty()) {
        outcome_.source = RunTime::nicePath(options_.source);
        outcome_.target = RunTime::nicePath(options_.target);
    }
    reporter_->progressEnds();
    reporter_->result(outcome_);
    return outcome_.code;
}

} // namespace zopctl
