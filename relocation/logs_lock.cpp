#include "relocation/logs_lock.h"

#include "relocation/failure.h"
#include "runtime/exception.h"
#include "runtime/native_span.h"

#include <utility>

LogsLock::LogsLock(RunTime::InterprocessLock& lock, bool wanted) : lock_(lock), held_(wanted) {
    if (held_) {
        const NativeSpan span("backupmove::lockLogs", __LINE__);
        try {
            lock_.lock(L"Unable to lock Tarvo logs");
        } catch (...) {
            logFailure(L"Unable to lock Tarvo logs");
            throw;
        }
    }
}

LogsLock::~LogsLock() {
    try {
        release();
    } catch (const vexception&) {
        logFailure(L"Unable to unlock Tarvo logs");
    }
}

void LogsLock::release() {
    if (std::exchange(held_, false)) {
        const NativeSpan span("backupmove::unlockLogs", __LINE__);
        lock_.unlock(L"Unable to unlock Tarvo logs");
    }
}
