// How far a job of several phases is, on one scale from its beginning to its end: a percentage that
// never goes back, and a time left. Pure arithmetic on times that are given to it.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace zopctl {

enum class Phase { Copy, Verify, Settings, Remove, Count };

// What a phase has to do. An item costs as much as this many bytes beside its data: opening,
// creating and closing take longer than the data of a small file.
struct PhaseWork {
    static constexpr std::int64_t itemCost = 32 * 1024;

    std::int64_t items = 0;
    std::int64_t bytes = 0;
    double weight = 1; // effort of a unit, against one of copying
};

class WorkProgress {
public:
    void plan(Phase phase, const PhaseWork& work) { work_[index(phase)] = work; }

    // now is a time in milliseconds, of any origin but always the same.
    void begin(Phase phase, std::uint64_t now);
    // Of the phase at hand. More than was planned does no harm.
    void advance(std::int64_t items, std::int64_t bytes, std::uint64_t now);

    // 0 to 1 over all phases.
    double fraction() const;
    // Milliseconds, judged by the speed so far; -1 while there is too little to judge by.
    std::int64_t timeLeft() const;
    // Bytes of this phase and since when, for a rate.
    std::int64_t phaseBytes() const noexcept { return bytes_; }
    std::uint64_t phaseTime() const noexcept { return now_ - phaseStart_; }

private:
    static std::size_t index(Phase phase) { return static_cast<std::size_t>(phase); }
    static double effort(const PhaseWork& work);

    std::array<PhaseWork, static_cast<std::size_t>(Phase::Count)> work_{
        PhaseWork{0, 0, 0}, PhaseWork{0, 0, 0}, PhaseWork{0, 0, 0}, PhaseWork{0, 0, 0}};
    Phase phase_ = Phase::Copy;
    bool started_ = false;
    std::uint64_t start_ = 0;
    std::uint64_t phaseStart_ = 0;
    std::uint64_t now_ = 0;
    std::int64_t items_ = 0;
    std::int64_t bytes_ = 0;
};

// What a progress line shows.
struct ProgressView {
    std::wstring verb;          // "Copying"
    double fraction = 0;        // below 0: not known, and not shown
    std::int64_t timeLeft = -1; // milliseconds
    std::wstring rate;          // "31 MB/s"; may be empty
    std::int64_t errors = 0;
    std::wstring name; // of the current item, nice form
};

// One line of at most width cells: bar, percentage, rate, time left, errors, name.
std::wstring progressLine(const ProgressView& view, int width);

} // namespace zopctl
