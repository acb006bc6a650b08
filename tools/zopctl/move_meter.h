// Follows a move from its first look to its end, and tells the reporter ten times a second how far
// it is. Called once per item, so it looks at a cheap clock and does no more until a tenth is over.
#pragma once

#include "relocation/move_preflight.h"
#include "tools/zopctl/move_reporter.h"
#include "tools/zopctl/work_progress.h"

#include <cstdint>
#include <string>

namespace zopctl {

class MoveMeter {
public:
    enum class Step { Copy, Rename, Verify, Remove, RollBack };

    // The reporter outlives the meter.
    explicit MoveMeter(MoveReporter& reporter) : reporter_(reporter) {}

    // What the source has been seen to hold so far.
    void look(const TreeContents& contents);
    // What there is to do, once that is known.
    void plan(const MovePreflight::Result& seen, bool verify);
    void begin(Step step);
    // items more have been begun; bytes of this step are done; name is the item at hand.
    void advance(std::int64_t items, std::int64_t bytes, const std::wstring& name);
    void countError() noexcept { ++errors_; }

private:
    bool isDue();

    MoveReporter& reporter_;
    WorkProgress progress_;
    Step step_ = Step::Copy;
    std::int64_t items_ = 0; // of the step
    std::int64_t errors_ = 0;
    std::uint64_t now_ = 0;
    std::uint64_t told_ = 0;
};

} // namespace zopctl
