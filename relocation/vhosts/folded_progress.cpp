#include "relocation/vhosts/folded_progress.h"

template <class Raise>
void FoldedProgress::raise(bool& cancel, Raise&& raiseEvent) {
    bool unheard = false;
    raiseEvent(shields_ > 0 ? unheard : cancel);
}

void FoldedProgress::pop() noexcept {
    if (!frames_.empty()) {
        frames_.pop_back();
    }
}

void FoldedProgress::progress1_TotalHandler(std::int32_t items, std::int64_t bytes, bool& cancel) {
    if (frames_.empty()) {
        return;
    }
    ProgressInfo& frame = frames_.back();
    frame.itemsDone += items;
    frame.bytesDone += bytes;
    raiseCost(frame.itemsDone, cancel);
}

void FoldedProgress::progress1_NameHandler(const std::wstring& name, bool hasPosition,
                                           std::int64_t position, bool& cancel) {
    if (frames_.empty()) {
        return;
    }
    ProgressInfo& frame = frames_.back();
    ++frame.namesSeen;
    std::int64_t passed = 0;
    if (frame.itemsDone != 0) {
        passed = frame.itemsDone;
    } else if (frame.bytesDone != 0) {
        passed = frame.lastPosition;
    }
    const std::int64_t delta = hasPosition ? position - frame.lastPosition : -1;
    frame.lastPosition = position;
    raiseName(name, passed, frame.namesSeen, delta, cancel);
}

void FoldedProgress::progress2_TotalHandler(std::int32_t items, bool& cancel) {
    progress1_TotalHandler(items, 0, cancel);
}

void FoldedProgress::progress2_NameHandler(const std::wstring& name, bool& cancel) {
    progress1_NameHandler(name, false, -1, cancel);
}

void FoldedProgress::subProgressEvent_StartHandler(bool& cancel) {
    push();
    raise(cancel, [&](bool& heard) { start_.raise(heard); });
}

void FoldedProgress::subProgressEvent_EndHandler(bool& cancel) {
    pop();
    raise(cancel, [&](bool& heard) { end_.raise(heard); });
}

void FoldedProgress::raiseCost(std::int64_t cost, bool& cancel) {
    raise(cancel, [&](bool& heard) { cost_.raise(cost, heard); });
}

void FoldedProgress::raiseName(const std::wstring& name, std::int64_t position, std::int32_t count,
                               std::int64_t delta, bool& cancel) {
    raise(cancel, [&](bool& heard) { name_.raise(name, position, count, delta, heard); });
}
