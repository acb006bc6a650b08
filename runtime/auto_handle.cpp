#include "runtime/auto_handle.h"

#include "runtime/exception.h"

namespace RunTime {

void AutoHandle::reset(HANDLE handle) noexcept {
    const HANDLE old = std::exchange(handle_, handle);
    if (old != nullptr && old != INVALID_HANDLE_VALUE && old != handle) {
        const DWORD code = ::GetLastError();
        ::CloseHandle(old);
        ::SetLastError(code);
    }
}

AutoHandle AutoHandle::duplicate() const {
    const HANDLE self = ::GetCurrentProcess();
    HANDLE copy = nullptr;
    // INVALID_HANDLE_VALUE is also the pseudo handle of the process, and would be duplicated as it.
    const bool done =
        *this && ::DuplicateHandle(self, handle_, self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    if (!done) {
        const DWORD code = *this ? ::GetLastError() : ERROR_INVALID_HANDLE;
        _throwError(L"Unable to duplicate handle", code,
                    {L"", "RunTime::AutoHandle::duplicate", 837});
    }
    return AutoHandle(copy);
}

} // namespace RunTime
