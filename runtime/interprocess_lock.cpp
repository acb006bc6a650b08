#include "runtime/interprocess_lock.h"

#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <sddl.h>

namespace RunTime {

namespace {

struct LocalTraits {
    using Value = void*;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::LocalFree(value); }
};

// Creates the mutex for SYSTEM and the administrators, or opens the one that is there. A mutex that
// another program made may grant no more than waiting and releasing. Returns a Win32 code.
DWORD openMutex(const wchar_t* name, AutoHandle& mutex) {
    AutoResource<LocalTraits> descriptor;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(
            L"D:P(A;;GA;;;SY)(A;;GA;;;BA)", SDDL_REVISION_1, descriptor.put(), nullptr)) {
        return ::GetLastError();
    }
    SECURITY_ATTRIBUTES security = {};
    security.nLength = sizeof(security);
    security.lpSecurityDescriptor = descriptor.get();
    mutex.reset(::CreateMutexW(&security, FALSE, name));
    if (mutex) {
        return ERROR_SUCCESS;
    }
    const DWORD code = ::GetLastError();
    if (code != ERROR_ACCESS_DENIED) {
        return code;
    }
    mutex.reset(::OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, name));
    return mutex ? ERROR_SUCCESS : ::GetLastError();
}

} // namespace

InterprocessLock::~InterprocessLock() {
    if (held_) {
        ::ReleaseMutex(mutex_.get());
    }
}

void InterprocessLock::lock(const wchar_t* failure, DWORD timeout) {
    const auto fail = [&](DWORD code, int line) {
        _throwError(failure, code, {L"", "RunTime::InterprocessLock::lock", line});
    };
    if (held_) {
        fail(ERROR_POSSIBLE_DEADLOCK, __LINE__);
    }
    if (!mutex_) {
        const DWORD code = openMutex(name_.c_str(), mutex_);
        if (code != ERROR_SUCCESS) {
            fail(code, __LINE__);
        }
    }
    // In slices, since nothing wakes the wait when the thread is asked to stop.
    const ULONGLONG start = ::GetTickCount64();
    for (;;) {
        ThreadCancelation::check();
        constexpr ULONGLONG slice = 100;
        const ULONGLONG passed = ::GetTickCount64() - start;
        const ULONGLONG rest =
            timeout == INFINITE ? slice : (passed < timeout ? timeout - passed : 0);
        const DWORD result =
            ::WaitForSingleObject(mutex_.get(), static_cast<DWORD>(std::min(slice, rest)));
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) {
            held_ = true;
            return;
        }
        if (result != WAIT_TIMEOUT) {
            fail(::GetLastError(), __LINE__);
        }
        if (rest == 0) {
            fail(ERROR_TIMEOUT, __LINE__);
        }
    }
}

void InterprocessLock::unlock(const wchar_t* failure) {
    const DWORD code = !mutex_                             ? ERROR_NOT_OWNER
                       : ::ReleaseMutex(mutex_.get()) == 0 ? ::GetLastError()
                                                           : ERROR_SUCCESS;
    if (code != ERROR_SUCCESS) {
        _throwError(failure, code, {L"", "RunTime::InterprocessLock::unlock", __LINE__});
    }
    held_ = false;
}

} // namespace RunTime
