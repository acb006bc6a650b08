#include "relocation/vhosts/reconfigure.h"

#include "relocation/failure.h"
#include "runtime/exception.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

bool Reconfigure::reconfigure(const std::wstring& fromPath, const std::wstring& toPath,
                              bool forward) {
    const NativeSpan span(texts_.function, __LINE__);
    // The caller may have given us our own texts.
    std::wstring from = fromPath;
    toPath_ = std::wstring(toPath);
    fromPath_ = std::move(from);
    failure_.clear();
    bool cancel = false;
    progressEvent_Total.raise(1, cancel);
    if (cancel) {
        throw CanceledException({L"", texts_.function, __LINE__});
    }
    progressEvent_Name.raise(texts_.stepName, cancel);
    if (cancel) {
        throw CanceledException({L"", texts_.function, __LINE__});
    }
    if (fromPath_.empty()) {
        return false;
    }
    try {
        const ThreadCancelation::CancelationPoint cancellable;
        ThreadCancelation::check();
        work(forward);
        return false;
    } catch (const CanceledException&) {
        throw;
    } catch (...) { // the other parts of the move have still to be brought into line
        failure_ = texts_.failure + currentCause();
    }
    LogManager::getInstance().vAddLog(LogType::Error, failure_);
    span.markFailure(failure_);
    if (forward) {
        bool ignore = false;
        errorEvent.raise(failure_, ignore);
    }
    return false;
}
