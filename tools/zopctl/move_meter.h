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
    enum class Step { Copy, Rename, Verify, Settings, Remove, RollBack };

    // The reporter outlives the meter.
    explicit MoveMeter(MoveReporter& reporter) : reporter_(reporter) {}

    // What the source has been seen to hold so far.
    void look(const TreeContents& contents);
    // What there is to do, once that is known.
    void plan(const MovePreflight::Result& seen, bool verify);
    // Settings that are to be changed besides, each by a call of a utility or two.
    void planSettings(std::int64_t count);
    void begin(Step step);
    // An operation of many steps has come to this one.
    void enterStep(std::int32_t number, std::int32_t of, const std::wstring& name);
    // items more have been begun; bytes of this step are done; name is the item at hand.
    void advance(std::int64_t items, std::int64_t bytes, const std::wstring& name);
    void countError() noexcept { ++errors_; }

private:
    bool isDue();
    void tell(std::int64_t bytes, const std::wstring& name);

    MoveReporter& reporter_;
    WorkProgress progress_;
    Step step_ = Step::Copy;
    std::int32_t number_ = 0; // of enterStep(); 0: none
    std::int32_t of_ = 0;
    std::wstring stepName_;
    std::int64_t items_ = 0; // of the step
    std::int64_t errors_ = 0;
    std::uint64_t now_ = 0;
    std::uint64_t told_ = 0;
};

} // namespace zopctl
