#include "config/deadline.h"

#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>

namespace config {

namespace {

constexpr DWORD longestSlice = 100;

}

Deadline::Deadline(std::chrono::milliseconds timeout) noexcept
    : end_(::GetTickCount64() +
           static_cast<std::uint64_t>(std::max<std::int64_t>(0, timeout.count()))) {}

DWORD Deadline::slice() const noexcept {
    const std::uint64_t now = ::GetTickCount64();
    return now < end_ ? static_cast<DWORD>(std::min<std::uint64_t>(end_ - now, longestSlice)) : 0;
}

bool Deadline::wait(HANDLE object, DWORD milliseconds) const {
    const Deadline sooner{std::chrono::milliseconds(milliseconds)};
    for (;;) {
        ThreadCancelation::check();
        const DWORD time = std::min(slice(), sooner.slice());
        const DWORD result = ::WaitForSingleObject(object, time);
        if (result == WAIT_FAILED) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to wait for the configuration service", code,
                        {L"", "config::Deadline::wait", __LINE__});
        }
        if (result == WAIT_OBJECT_0 || time == 0) {
            return result == WAIT_OBJECT_0;
        }
    }
}

} // namespace config
