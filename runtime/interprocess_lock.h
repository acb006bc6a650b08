// A machine-wide named lock (a mutex), shared with the product's other processes.
#pragma once

#include "runtime/auto_handle.h"

#include <string>
#include <windows.h>

namespace RunTime {

// One client of the lock. Used by one thread; the thread that locks must unlock. A destroyed client
// gives up its hold. An abandoned lock (its holder died) counts as acquired.
class InterprocessLock {
public:
    explicit InterprocessLock(std::wstring name) : name_(std::move(name)) {}
    ~InterprocessLock();
    InterprocessLock(const InterprocessLock&) = delete;
    InterprocessLock& operator=(const InterprocessLock&) = delete;

    // Waits up to timeout milliseconds, a cancellation point meanwhile; the mutex is created at
    // first use, open to administrators and the system. A client that holds the lock already gets
    // ERROR_POSSIBLE_DEADLOCK. failure is the detail text of the error
    // thrown: vosexception with the code (ERROR_TIMEOUT when the time has passed).
    void lock(const wchar_t* failure, DWORD timeout = INFINITE);
    void unlock(const wchar_t* failure);
    bool isHeld() const noexcept { return held_; }

private:
    std::wstring name_;
    AutoHandle mutex_;
    bool held_ = false;
};

} // namespace RunTime
