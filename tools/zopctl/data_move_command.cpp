#include "tools/zopctl/data_move_command.h"

#include "relocation/backupmove.h"
#include "relocation/open_files.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "tools/zopctl/data_move_arguments.h"
#include "tools/zopctl/move_session.h"
#include "tools/zopctl/text_format.h"

namespace zopctl {

namespace {

// It drives the mover of the library directly, not its public class: that one never copies where a
// rename would do, and does not tell the target's names or which items were given up.
class DataMove final : public MoveSession {
public:
    DataMove(const DataMoveOptions& options, Console& console)
        : MoveSession(L"data move", options, console), copy_(options.copy) {
        hooks_.push_back(mover_.progressEvent_Name2.hook(
            [this](const std::wstring& source, const std::wstring&, bool isFile, std::int64_t cost,
                   bool&) { itemBegins(source, isFile, cost); }));
        hooks_.push_back(mover_.progressEvent_Bytes.hook([this](std::int64_t bytes, bool& cancel) {
            cancel = isCancelled();
            meter_.advance(0, currentCost_ + bytes, RunTime::nicePath(currentSource_));
        }));
        hooks_.push_back(mover_.itemAbandonedEvent.hook([this] { itemAbandoned(); }));
        hooks_.push_back(mover_.progressEvent_Name.hook(
            [this](const std::wstring& text, bool, std::int64_t cost, bool& cancel) {
                itemNamed(text, cost);
                cancel = isCancelled();
            }));
        hooks_.push_back(mover_.progressEvent_Total.hook(
            [this](std::int32_t, std::int64_t, bool& cancel) { cancel = isCancelled(); }));
        hooks_.push_back(mover_.errorEvent.hook([this](const std::wstring& message, bool& ignore) {
            ignore = itemFailed(currentSource_, message);
        }));
    }

private:
    JsonFields startFields() const override { return {{"copy", copy_}}; }

    MovePreflight::Result examine() override {
        MovePreflight preflight;
        const Hook progress = preflight.progressEvent.hook(
            [this](const TreeContents& contents, bool& cancel) { look(contents, cancel); });
        MovePreflight::Options options;
        options.copy = copy_;
        options.keepGoing = options_.keepGoing;
        options.copyOwner = options_.copyOwner;
        options.streams = options_.streams;
        return preflight.examine(options_.source, options_.target, options);
    }

    void transfer() override {
        meter_.begin(seen_.willCopy ? MoveMeter::Step::Copy : MoveMeter::Step::Rename);
        outcome_.renamed = mover_.move(seen_.source, seen_.target, copy_);
        reporter_->progressEnds();
        countMoved();
        verify();
    }

    void commitMove() override { mover_.commit(); }
    void rollBackMove() override { mover_.rollback(); }
    std::vector<std::wstring> failedItems() const override { return mover_.get_failed(); }
    CopyReport losses() const override { return mover_.get_report(); }
    std::vector<std::wstring> leftBehind() const override { return mover_.get_leftBehind(); }
    std::vector<std::wstring> pendingRestart() const override {
        return mover_.get_pendingRestart();
    }

    std::wstring undoCommand() const override {
        return L"zopctl data move " + quotedPath(seen_.target) + L" " + quotedPath(seen_.source);
    }

    // A directory is not renamed while anything in it is open, and the system does not say what: it
    // is looked for once the old state is back.
    void advise() override {
        if (seen_.willCopy ||
            (failureCode_ != ERROR_ACCESS_DENIED && failureCode_ != ERROR_SHARING_VIOLATION)) {
            return MoveSession::advise();
        }
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

    void itemBegins(const std::wstring& source, bool isFile, std::int64_t cost) {
        currentSource_ = source;
        currentIsFile_ = isFile;
        currentCost_ = cost;
        (isFile ? outcome_.files : outcome_.directories) += 1;
    }

    void itemAbandoned() { (currentIsFile_ ? outcome_.files : outcome_.directories) -= 1; }

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

    bool copy_;
    std::wstring currentSource_; // of the item being copied, long form
    bool currentIsFile_ = false;
    std::int64_t currentCost_ = 0;
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
