// One stream of progress out of the streams of many components, one of which runs at a time. Items
// and bytes are summed up in frames on a stack: one frame for the whole operation, one more while a
// nested unit of work, such as the home of one user, is under way.
//
// One thread at a time. While the stack is empty, what components report is dropped.
#pragma once

#include "runtime/event.h"

#include <cstdint>
#include <string>
#include <vector>

class FoldedProgress {
public:
    // amount of work done, cancel
    using Cost = Event<std::int64_t, bool&>;
    // name, position, names so far, delta, cancel
    using Name = Event<const std::wstring&, std::int64_t, std::int32_t, std::int64_t, bool&>;
    using Sub = Event<bool&>; // cancel

    // The events that are raised; they must outlive the object.
    FoldedProgress(Cost& cost, Name& name, Sub& start, Sub& end)
        : cost_(cost), name_(name), start_(start), end_(end) {}

    void push() { frames_.emplace_back(); }
    void pop() noexcept;
    void clear() noexcept { frames_.clear(); }
    std::size_t depth() const noexcept { return frames_.size(); }

    // A component announces items and bytes. Raises the cost: the items of the frame so far.
    void progress1_TotalHandler(std::int32_t items, std::int64_t bytes, bool& cancel);
    // A component names an item. hasPosition and position are the isFile and cost of the usual
    // progress events. Passed on is the number of items announced, or the last position where only
    // bytes were; delta is what the position has grown by, -1 without one.
    void progress1_NameHandler(const std::wstring& name, bool hasPosition, std::int64_t position,
                               bool& cancel);
    // The same for components that count items only.
    void progress2_TotalHandler(std::int32_t items, bool& cancel);
    void progress2_NameHandler(const std::wstring& name, bool& cancel);
    // A nested unit of work begins and ends.
    void subProgressEvent_StartHandler(bool& cancel);
    void subProgressEvent_EndHandler(bool& cancel);

    // Straight to the listeners, whatever the frames.
    void raiseCost(std::int64_t cost, bool& cancel);
    void raiseName(const std::wstring& name, std::int64_t position, std::int32_t count,
                   std::int64_t delta, bool& cancel);

    // While an object of this class lives, no listener can cancel: for what must not stop halfway.
    class Shield {
    public:
        explicit Shield(FoldedProgress& progress) noexcept : progress_(progress) {
            ++progress_.shields_;
        }
        ~Shield() { --progress_.shields_; }
        Shield(const Shield&) = delete;
        Shield& operator=(const Shield&) = delete;

    private:
        FoldedProgress& progress_;
    };

private:
    struct ProgressInfo {
        std::int64_t bytesDone = 0;    // announced by the component that runs
        std::int64_t lastPosition = 0; // of the last name
        std::int32_t itemsDone = 0;    // announced by the component that runs
        std::int32_t namesSeen = 0;
    };

    template <class Raise>
    void raise(bool& cancel, Raise&& raiseEvent);

    Cost& cost_;
    Name& name_;
    Sub& start_;
    Sub& end_;
    std::vector<ProgressInfo> frames_;
    int shields_ = 0;
};
