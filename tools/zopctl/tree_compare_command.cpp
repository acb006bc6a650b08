#include "tools/zopctl/tree_compare_command.h"

#include "relocation/tree_compare.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "tools/zopctl/cancel_key.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/text_format.h"
#include "tools/zopctl/tree_compare_arguments.h"

namespace zopctl {

namespace {

constexpr std::uint64_t redrawTime = 100; // milliseconds

std::wstring differenceLine(const TreeDifference& difference) {
    // The tops themselves have no name below them.
    std::wstring line =
        printable(difference.path.empty() ? std::wstring(1, L'.') : difference.path);
    line.append(L": ").append(describe(difference.kind));
    if (!difference.detail.empty()) {
        line.append(L": ").append(printable(difference.detail));
    }
    return line;
}

class Comparison {
public:
    Comparison(const TreeCompareOptions& options, Console& console)
        : options_(options), console_(console) {}

    ExitCode run() {
        CancelKey key([this](const std::wstring& text) { console_.errorLine(text); });
        TreeComparison comparison;
        const Hook differences = comparison.differenceEvent.hook(
            [this](const TreeDifference& difference) { show(difference); });
        const Hook progress = comparison.progressEvent.hook(
            [&](const std::wstring& path, bool, std::int64_t bytes, bool& cancel) {
                cancel = key.isRequested();
                draw(path, bytes);
            });
        start_ = ::GetTickCount64();
        try {
            const TreeComparison::Result result =
                comparison.compare(options_.first, options_.second, options_.compared);
            console_.status({});
            return finish(result);
        } catch (const CanceledException&) {
            console_.status({});
            return fail(L"cancelled", L"Cancelled.", ExitCode::Cancelled);
        } catch (const vexception& e) {
            console_.status({});
            return fail(L"failed", e.message(), ExitCode::Failed);
        }
    }

private:
    void show(const TreeDifference& difference) {
        console_.line(options_.json ? jsonLine(L"difference", {{"kind", describe(difference.kind)},
                                                               {"path", difference.path},
                                                               {"detail", difference.detail}})
                                    : differenceLine(difference));
    }

    void draw(const std::wstring& path, std::int64_t bytes) {
        if (options_.quiet || options_.json || !console_.isConsole()) {
            return;
        }
        const std::uint64_t now = ::GetTickCount64();
        if (now - drawn_ < redrawTime) {
            return;
        }
        drawn_ = now;
        const std::wstring head =
            L"Comparing " + formatBytes(bytes) + L"  " + formatRate(bytes, now - start_) + L"  ";
        const int width = console_.width() - 1;
        console_.status(
            cutToCells(head + cutToCells(printable(path), width - cellWidth(head)), width));
    }

    ExitCode finish(const TreeComparison::Result& result) {
        const std::uint64_t time = ::GetTickCount64() - start_;
        const bool equal = result.differences == 0;
        const ExitCode code = equal ? ExitCode::Success : ExitCode::Different;
        if (options_.json) {
            console_.line(jsonLine(L"result", {{"status", equal ? L"equal" : L"different"},
                                               {"exitCode", static_cast<int>(code)},
                                               {"items", result.items},
                                               {"files", result.files},
                                               {"bytes", result.bytes},
                                               {"differences", result.differences},
                                               {"unreadable", result.unreadable},
                                               {"streamsCompared", result.streamsCompared},
                                               {"auditCompared", result.auditCompared},
                                               {"milliseconds", time}}));
        } else if (!options_.quiet) {
            std::wstring text = L"Equal: ";
            if (!equal) {
                text = countOf(result.differences, L"difference", L"differences") + L" in ";
            }
            text += countOf(result.items, L"item", L"items") + L" (" +
                    countOf(result.files, L"file", L"files") + L", " + formatBytes(result.bytes) +
                    L" read) in " + formatDuration(time) + L".";
            console_.line(text);
        }
        return code;
    }

    ExitCode fail(const wchar_t* status, const std::wstring& message, ExitCode code) {
        if (options_.json) {
            console_.line(jsonLine(
                L"result",
                {{"status", status}, {"exitCode", static_cast<int>(code)}, {"message", message}}));
        } else {
            console_.errorLine(message);
        }
        return code;
    }

    const TreeCompareOptions& options_;
    Console& console_;
    std::uint64_t start_ = 0;
    std::uint64_t drawn_ = 0;
};

} // namespace

ExitCode runTreeCompare(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseTreeCompare(arguments), console, [&](const TreeCompareOptions& options) {
        return Comparison(options, console).run();
    });
}

} // namespace zopctl
