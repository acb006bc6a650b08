#include "tools/zopctl/move_meter.h"

#include "runtime/format_string.h"
#include "tools/zopctl/text_format.h"

namespace zopctl {

namespace {

constexpr std::uint64_t tellTime = 100; // milliseconds

// Efforts against that of copying, per byte and item.
constexpr double verifyWeight = 0.5;
constexpr double removeWeight = 0.5;
constexpr double settingWeight = 500; // starting a program takes as long as so many small files

struct StepNames {
    const char* phase;
    const wchar_t* verb;
};

StepNames namesOf(MoveMeter::Step step) {
    switch (step) {
    case MoveMeter::Step::Copy:
        return {"copy", L"Copying"};
    case MoveMeter::Step::Rename:
        return {"move", L"Moving"};
    case MoveMeter::Step::Verify:
        return {"verify", L"Verifying"};
    case MoveMeter::Step::Settings:
        return {"settings", L"Changing settings"};
    case MoveMeter::Step::Remove:
        return {"remove", L"Removing the old copy"};
    case MoveMeter::Step::RollBack:
        break;
    }
    return {"rollback", L"Rolling back"};
}

} // namespace

void MoveMeter::look(const TreeContents& contents) {
    if (!isDue()) {
        return;
    }
    MoveProgress shown{"look", {}, contents.files + contents.directories, contents.bytes};
    shown.view.verb = L"Looking";
    shown.view.fraction = -1;
    shown.view.name = countOf(contents.files, L"file", L"files") + L", " +
                      formatBytes(contents.bytes) + L" so far";
    reporter_.progress(shown);
}

void MoveMeter::plan(const MovePreflight::Result& seen, bool verify) {
    const TreeContents& tree = seen.contents;
    if (!seen.willCopy) {
        progress_.plan(Phase::Copy, {1, 0, 1});
        return;
    }
    PhaseWork all{tree.files + tree.directories + tree.links + 1, tree.bytes, 1};
    progress_.plan(Phase::Copy, all);
    if (verify) {
        all.weight = verifyWeight;
        progress_.plan(Phase::Verify, all);
    }
    if (!seen.keepsSource) {
        // Removing costs by the item, whatever its size.
        progress_.plan(Phase::Remove, {all.items, 0, removeWeight});
    }
}

void MoveMeter::planSettings(std::int64_t count) {
    progress_.plan(Phase::Settings, {count, 0, settingWeight});
}

void MoveMeter::begin(Step step) {
    step_ = step;
    items_ = 0;
    number_ = 0;
    if (step != Step::RollBack) {
        progress_.begin(step == Step::Verify     ? Phase::Verify
                        : step == Step::Settings ? Phase::Settings
                        : step == Step::Remove   ? Phase::Remove
                                                 : Phase::Copy,
                        ::GetTickCount64());
    }
}

void MoveMeter::enterStep(std::int32_t number, std::int32_t of, const std::wstring& name) {
    number_ = number;
    of_ = of;
    stepName_ = name;
    reporter_.step(number, of, name);
    told_ = now_ = ::GetTickCount64();
    tell(progress_.phaseBytes(), {});
}

void MoveMeter::advance(std::int64_t items, std::int64_t bytes, const std::wstring& name) {
    items_ += items;
    if (isDue()) {
        tell(bytes, name);
    }
}

void MoveMeter::tell(std::int64_t bytes, const std::wstring& name) {
    const StepNames names = namesOf(step_);
    MoveProgress shown{names.phase, {}, items_, bytes};
    shown.view.verb = names.verb;
    if (number_ != 0) {
        shown.view.verb = formatString(L"%d/%d %s", number_, of_, stepName_.c_str());
    }
    shown.view.name = name;
    shown.view.errors = errors_;
    if (step_ == Step::RollBack) {
        shown.view.fraction = -1; // nobody knows how much of what was begun there is to undo
    } else {
        progress_.advance(items_, step_ == Step::Remove ? 0 : bytes, now_);
        shown.view.fraction = progress_.fraction();
        shown.view.timeLeft = progress_.timeLeft();
        shown.view.rate = formatRate(progress_.phaseBytes(), progress_.phaseTime());
    }
    reporter_.progress(shown);
}

bool MoveMeter::isDue() {
    now_ = ::GetTickCount64();
    if (now_ - told_ < tellTime) {
        return false;
    }
    told_ = now_;
    return true;
}

} // namespace zopctl
