#include "tools/zopctl/work_progress.h"

#include "runtime/format_string.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>

namespace zopctl {

void WorkProgress::begin(Phase phase, std::uint64_t now) {
    if (!started_) {
        started_ = true;
        start_ = now;
    }
    phase_ = phase;
    phaseStart_ = now;
    now_ = now;
    items_ = 0;
    bytes_ = 0;
}

void WorkProgress::advance(std::int64_t items, std::int64_t bytes, std::uint64_t now) {
    items_ = std::max(items_, items);
    bytes_ = std::max(bytes_, bytes);
    now_ = std::max(now_, now);
}

double WorkProgress::effort(const PhaseWork& work) {
    return (static_cast<double>(work.items) * static_cast<double>(PhaseWork::itemCost) +
            static_cast<double>(work.bytes)) *
           work.weight;
}

double WorkProgress::fraction() const {
    double all = 0;
    double done = 0;
    for (std::size_t i = 0; i < work_.size(); ++i) {
        const double planned = effort(work_[i]);
        all += planned;
        if (i < index(phase_)) {
            done += planned;
        } else if (i == index(phase_)) {
            done += std::min(planned, effort({items_, bytes_, work_[i].weight}));
        }
    }
    return all > 0 ? done / all : 0;
}

std::int64_t WorkProgress::timeLeft() const {
    const double done = fraction();
    const auto spent = static_cast<double>(now_ - start_);
    if (!started_ || spent < 1000 || done < 0.005) {
        return -1;
    }
    return static_cast<std::int64_t>(spent * (1 - done) / done);
}

std::wstring progressLine(const ProgressView& view, int width) {
    const int percent = static_cast<int>(std::clamp(view.fraction, 0.0, 1.0) * 100);
    constexpr int barCells = 20;
    std::wstring text = view.verb + L" ";
    if (width >= 60 && view.fraction >= 0) {
        const int full = percent * barCells / 100;
        text += L'[';
        text.append(static_cast<std::size_t>(full), L'#');
        text.append(static_cast<std::size_t>(barCells - full), L'.');
        text += L"] ";
    }
    if (view.fraction >= 0) {
        text += formatString(L"%3d %%", percent);
    }
    if (!view.rate.empty() && width >= 60) {
        text += L"  " + view.rate;
    }
    if (view.timeLeft >= 0) {
        text += L"  " +
                formatDuration((static_cast<std::uint64_t>(view.timeLeft) + 999) / 1000 * 1000) +
                L" left";
    }
    if (view.errors != 0) {
        text += L"  " + countOf(view.errors, L"error", L"errors");
    }
    // The last cell stays free: writing there would break the line.
    const int room = width - 1 - cellWidth(text) - 2;
    if (room >= 8 && !view.name.empty()) {
        text += L"  " + cutToCells(printable(view.name), room);
    }
    return cutToCells(text, width - 1);
}

} // namespace zopctl
