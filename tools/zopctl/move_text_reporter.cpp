#include "runtime/log_manager.h"
#include "tools/zopctl/move_reporter.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>

namespace zopctl {

namespace {

class MoveTextReporter final : public MoveReporter {
public:
    MoveTextReporter(const MoveOptions& options, Console& console)
        : options_(options), console_(console) {}

    void start(const JsonFields&) override {}

    void preflight(const MovePreflight::Result& seen, const MoveDetails& plan) override {
        for (const MoveFinding& finding : seen.findings) {
            show(finding);
        }
        if (seen.isExamined && !seen.isRefused() && !options_.quiet) {
            showPlan(seen);
            for (const std::wstring& line : plan.lines) {
                console_.line(line);
            }
        }
    }

    // On a console the progress line has it.
    void step(std::int32_t number, std::int32_t of, const std::wstring& name) override {
        if (!options_.quiet && !console_.isConsole()) {
            console_.line(L"Step " + std::to_wstring(number) + L" of " + std::to_wstring(of) +
                          L": " + name);
        }
    }

    void progress(const MoveProgress& progress) override {
        if (options_.quiet) {
            return;
        }
        if (console_.isConsole()) {
            console_.status(progressLine(progress.view, console_.width()));
            return;
        }
        // Into a file: a line for every tenth of the way, and one now and then.
        const int tenth = static_cast<int>(progress.view.fraction * 10);
        const std::uint64_t since = ::GetTickCount64() - printed_;
        if (since > 30000 || (since > 2000 && tenth != tenth_)) {
            tenth_ = tenth;
            printed_ += since;
            console_.line(progressLine(progress.view, 1000));
        }
    }

    void progressEnds() override { console_.status({}); }

    void item(const std::wstring& text) override { console_.line(printable(text)); }

    void failed(const FailedItem& item) override {
        console_.errorLine(L"Error: " + describeItem(item));
    }

    void difference(const TreeDifference& difference) override {
        std::wstring line = L"Different: ";
        line.append(difference.path.empty() ? std::wstring(1, L'.') : printable(difference.path));
        line.append(L": ").append(describe(difference.kind));
        if (!difference.detail.empty()) {
            line.append(L": ").append(printable(difference.detail));
        }
        console_.errorLine(line);
    }

    void warning(const std::wstring& text) override { console_.errorLine(L"Warning: " + text); }
    void logged(const std::wstring& text) override {
        console_.line(L"Log: " + LogManager::singleLine(text));
    }

    void result(const MoveOutcome& outcome) override {
        console_.status({});
        const bool done =
            outcome.code == ExitCode::Success || outcome.code == ExitCode::DoneWithRemainder;
        if (done && !options_.quiet && !options_.dryRun) {
            console_.line(doneLine(outcome));
            for (const std::wstring& line : outcome.details.lines) {
                console_.line(line);
            }
        }
        if (!outcome.message.empty() && !(done && options_.quiet)) {
            if (done) {
                console_.line(printableLines(outcome.message));
            } else {
                console_.errorLine(printableLines(outcome.message));
            }
        }
        // After a rollback nothing needs to be done about single items; they have been named.
        if (done || outcome.code == ExitCode::RollbackIncomplete) {
            listFailed(outcome);
        }
        list(L"Still there:", outcome.leftBehind);
        list(L"Done by the system at its next restart:", outcome.pendingRestart);
        if (done) {
            listLosses(outcome.losses);
        }
        if (!(done && options_.quiet)) {
            for (const std::wstring& text : outcome.advice) {
                console_.line(text);
            }
        }
    }

private:
    void show(const MoveFinding& finding) {
        if (finding.severity == MoveFinding::Severity::Refuse) {
            console_.errorLine(L"Refused: " + printable(finding.reason));
        } else if (finding.severity == MoveFinding::Severity::Warn) {
            console_.errorLine(L"Warning: " + printable(finding.reason));
        } else if (!options_.quiet) {
            console_.line(L"Note:    " + printable(finding.reason));
            if (!finding.remedy.empty()) {
                console_.line(L"         " + printable(finding.remedy));
            }
            return;
        } else {
            return;
        }
        if (!finding.remedy.empty()) {
            console_.errorLine(L"         " + printable(finding.remedy));
        }
    }

    void showPlan(const MovePreflight::Result& seen) {
        const TreeContents& tree = seen.contents;
        console_.line(std::wstring(seen.willCopy ? L"Copy   " : L"Rename ") + quoted(seen.source));
        console_.line(L"    to " + quoted(seen.target));
        std::wstring holds = countOf(tree.files, L"file", L"files") + L", " +
                             countOf(tree.directories, L"directory", L"directories") + L", ";
        if (tree.links != 0) {
            holds += countOf(tree.links, L"link", L"links") + L", ";
        }
        console_.line(L"Holds: " + holds + formatBytes(tree.bytes) +
                      L"; the longest path will have " +
                      formatCount(static_cast<std::int64_t>(seen.longestPath)) + L" characters");
        if (seen.willCopy) {
            console_.line(L"Space: " + formatBytes(seen.bytesNeeded) + L" needed, " +
                          formatBytes(seen.bytesFree) + L" free");
            console_.line(seen.keepsSource ? L"Then:  the old directory stays where it is"
                          : options_.verify
                              ? L"Then:  the copy is compared, and the old directory removed"
                              : L"Then:  the old directory is removed");
        } else {
            console_.line(L"Then:  nothing is left at the old place; a rename takes no space");
        }
    }

    static std::wstring describeItem(const FailedItem& item) {
        // Most messages name their file.
        if (item.path.empty() || item.reason.find(item.path) != std::wstring::npos) {
            return printableLines(item.reason);
        }
        return printable(item.path) + L": " + printableLines(item.reason);
    }

    static std::wstring doneLine(const MoveOutcome& outcome) {
        std::wstring text = L"Moved " + quoted(outcome.source) + L" to " + quoted(outcome.target);
        text += outcome.renamed ? L" by a rename: " : L" by a copy: ";
        text += countOf(outcome.files, L"file", L"files") + L", " +
                countOf(outcome.directories, L"directory", L"directories") + L", " +
                formatBytes(outcome.bytes) + L" in " + formatDuration(outcome.milliseconds);
        const std::wstring rate = formatRate(outcome.bytes, outcome.milliseconds);
        constexpr std::uint64_t telling = 500; // what took less says nothing about the speed
        if (!outcome.renamed && !rate.empty() && outcome.milliseconds >= telling) {
            text += L" (" + rate + L")";
        }
        if (outcome.verified) {
            text += L", verified";
        }
        const auto items = std::count_if(outcome.failed.begin(), outcome.failed.end(),
                                         [](const FailedItem& item) { return !item.path.empty(); });
        const auto others = std::ssize(outcome.failed) - items;
        if (items != 0) {
            text += L"; " + countOf(items, L"item", L"items") + L" not moved";
        }
        if (others != 0) {
            text += L"; " + countOf(others, L"error", L"errors");
        }
        return text + L".";
    }

    void listFailed(const MoveOutcome& outcome) {
        if (outcome.failed.empty()) {
            return;
        }
        console_.errorLine(L"Failed:");
        for (const FailedItem& item : outcome.failed) {
            console_.errorLine(L"  " + describeItem(item));
        }
    }

    void list(const wchar_t* title, const std::vector<std::wstring>& paths) {
        if (paths.empty()) {
            return;
        }
        console_.errorLine(title);
        for (const std::wstring& path : paths) {
            console_.errorLine(L"  " + printable(path));
        }
    }

    void listLosses(const CopyReport& losses) {
        if (losses.isEmpty()) {
            return;
        }
        console_.errorLine(L"Not carried over as it was:");
        for (std::size_t i = 0; i < static_cast<std::size_t>(CopyLoss::Count); ++i) {
            const auto kind = static_cast<CopyLoss>(i);
            const CopyReport::Entry& entry = losses.of(kind);
            if (entry.count == 0) {
                continue;
            }
            console_.errorLine(L"  " + std::wstring(::describe(kind)) + L": " +
                               formatCount(entry.count));
            constexpr std::size_t shown = 3;
            for (std::size_t k = 0; k < std::min(entry.examples.size(), shown); ++k) {
                console_.errorLine(L"    " + printable(entry.examples[k]));
            }
        }
    }

    const MoveOptions& options_;
    Console& console_;
    int tenth_ = 0;
    std::uint64_t printed_ = ::GetTickCount64(); // short work needs no line
};

} // namespace

std::unique_ptr<MoveReporter> makeMoveTextReporter(const MoveOptions& options, Console& console) {
    return std::make_unique<MoveTextReporter>(options, console);
}

std::unique_ptr<MoveReporter> makeMoveReporter(const MoveOptions& options, Console& console) {
    return options.json ? makeMoveJsonReporter(console) : makeMoveTextReporter(options, console);
}

} // namespace zopctl
