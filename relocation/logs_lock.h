// Holds the lock of the product's log files for a scope, where the owner of a move asked for that.
#pragma once

#include "runtime/interprocess_lock.h"

class LogsLock {
public:
    // wanted  false: nothing is locked, and nothing released
    // Throws vosexception ("Unable to lock Tarvo logs"), which the log then has as well.
    LogsLock(RunTime::InterprocessLock& lock, bool wanted);
    // Releases what is still held. A failure is logged: where an exception passes, that is the one
    // to be seen.
    ~LogsLock();
    LogsLock(const LogsLock&) = delete;
    LogsLock& operator=(const LogsLock&) = delete;

    // Throws vosexception ("Unable to unlock Tarvo logs").
    void release();

private:
    RunTime::InterprocessLock& lock_;
    bool held_;
};
