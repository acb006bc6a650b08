// The time that a call has in all, however many waits it consists of.
#pragma once

#include <chrono>
#include <cstdint>
#include <windows.h>

namespace config {

class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds timeout) noexcept;

    // Milliseconds to go, but no more than the longest time without a look for cancellation; 0 at
    // the end.
    DWORD slice() const noexcept;

    // Waits until the object is signaled, which is true, or for so long, or to the end. Throws
    // CanceledException.
    bool wait(HANDLE object, DWORD milliseconds = INFINITE) const;

private:
    std::uint64_t end_;
};

} // namespace config
