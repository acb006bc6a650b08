// What a move tells its user: in words for people, or as JSON lines for programs. The command
// decides what happened, a reporter only how it is said.
#pragma once

#include "relocation/copy_report.h"
#include "relocation/move_preflight.h"
#include "relocation/tree_compare.h"
#include "tools/zopctl/console.h"
#include "tools/zopctl/exit_code.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/move_options.h"
#include "tools/zopctl/work_progress.h"

#include <memory>
#include <string>
#include <vector>

namespace zopctl {

struct FailedItem {
    std::wstring path; // nice form; may be empty where the message says it
    std::wstring reason;
};

struct MoveProgress {
    const char* phase = ""; // "look", "copy", "move", "verify", "settings", "remove",
                            // "rollback"
    ProgressView view;
    std::int64_t items = 0; // of the phase
    std::int64_t bytes = 0;
};

// What one kind of move shows besides: the same for people and for programs.
struct MoveDetails {
    std::vector<std::wstring> lines;
    JsonFields fields;
};

// How a move ended, with numbers that add up.
struct MoveOutcome {
    ExitCode code = ExitCode::Success;
    const wchar_t* status = L"moved"; // for programs, see docs/command-line.md
    std::wstring message;             // why, where it did not go well
    std::wstring source;              // nice form
    std::wstring target;
    bool renamed = false;
    bool verified = false;
    std::int64_t files = 0; // moved
    std::int64_t directories = 0;
    std::int64_t bytes = 0;
    std::uint64_t milliseconds = 0;
    std::vector<FailedItem> failed;           // not moved, still at the old place
    std::vector<std::wstring> leftBehind;     // paths that are still there
    std::vector<std::wstring> pendingRestart; // what the system does at its next restart
    CopyReport losses;
    MoveDetails details;
    std::vector<std::wstring> advice; // what to do now
};

class MoveReporter {
public:
    virtual ~MoveReporter() = default;

    virtual void start(const JsonFields& fields) = 0;
    virtual void preflight(const MovePreflight::Result& seen, const MoveDetails& plan) = 0;
    // An operation of many steps has come to this one.
    virtual void step(std::int32_t number, std::int32_t of, const std::wstring& name) = 0;
    // At most ten times a second.
    virtual void progress(const MoveProgress& progress) = 0;
    // Wipes what progress has drawn: lines follow that are no progress.
    virtual void progressEnds() = 0;
    virtual void item(const std::wstring& text) = 0; // each one, where asked for
    virtual void failed(const FailedItem& item) = 0;
    virtual void difference(const TreeDifference& difference) = 0;
    virtual void warning(const std::wstring& text) = 0;
    virtual void logged(const std::wstring& text) = 0;
    virtual void result(const MoveOutcome& outcome) = 0;
};

// The one that options ask for. The console outlives it.
std::unique_ptr<MoveReporter> makeMoveReporter(const MoveOptions& options, Console& console);
// Its two kinds.
std::unique_ptr<MoveReporter> makeMoveTextReporter(const MoveOptions& options, Console& console);
std::unique_ptr<MoveReporter> makeMoveJsonReporter(Console& console);

} // namespace zopctl
