#include "runtime/thread_cancelation.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"

#include <map>
#include <memory>
#include <mutex>

namespace {

struct Request {
    // An open handle keeps the id from being given to a new thread, which would then be cancelled
    // in place of the one that is gone.
    RunTime::AutoHandle thread;
    eCancelationType type;
};

struct Requests {
    std::mutex mutex;
    std::map<DWORD, Request> byThread;
};

// Never destroyed: a thread may end a call while the process is already being taken down.
Requests& requests() {
    static Requests& instance = *std::make_unique<Requests>().release();
    return instance;
}

thread_local bool cancellable = false;
thread_local bool shielded = false;
thread_local bool inCall = false; // some enabled scope is open, shielded or not

} // namespace

std::atomic<int> ThreadCancelation::requests_{0};

void ThreadCancelation::request(DWORD threadId, eCancelationType type) {
    RunTime::AutoHandle thread(
        ::OpenThread(SYNCHRONIZE | THREAD_QUERY_LIMITED_INFORMATION, FALSE, threadId));
    if (!thread) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"Unable to open the thread (%lu)", threadId).c_str(), code,
                    {L"", "ThreadCancelation::request", __LINE__});
    }
    if (::GetProcessIdOfThread(thread.get()) != ::GetCurrentProcessId()) {
        _throwError(
            formatString(L"Unable to cancel the thread (%lu) of another process", threadId).c_str(),
            ERROR_INVALID_PARAMETER, {L"", "ThreadCancelation::request", __LINE__});
    }
    Requests& all = requests();
    const std::lock_guard lock(all.mutex);
    std::erase_if(all.byThread, [](const auto& item) { // of threads that ended unasked
        return ::WaitForSingleObject(item.second.thread.get(), 0) == WAIT_OBJECT_0;
    });
    all.byThread.insert_or_assign(threadId, Request{std::move(thread), type});
    requests_.store(static_cast<int>(all.byThread.size()), std::memory_order_release);
}

void ThreadCancelation::clear(DWORD threadId) noexcept {
    Requests& all = requests();
    const std::lock_guard lock(all.mutex);
    all.byThread.erase(threadId);
    requests_.store(static_cast<int>(all.byThread.size()), std::memory_order_release);
}

void ThreadCancelation::checkRequests() {
    if (!cancellable) {
        return;
    }
    {
        Requests& all = requests();
        const std::lock_guard lock(all.mutex);
        const auto found = all.byThread.find(::GetCurrentThreadId());
        if (found == all.byThread.end()) {
            return;
        }
        if (found->second.type == eCancelationType::Call) {
            all.byThread.erase(found);
            requests_.store(static_cast<int>(all.byThread.size()), std::memory_order_release);
        }
    }
    throw CanceledException({L"", "ThreadCancelation::check", __LINE__});
}

ThreadCancelation::CancelationPoint::CancelationPoint(bool enable) noexcept
    : outer_(cancellable), outerShield_(shielded), outermost_(enable && !inCall) {
    shielded = shielded || !enable;
    cancellable = !shielded;
    inCall = inCall || enable;
}

ThreadCancelation::CancelationPoint::~CancelationPoint() {
    cancellable = outer_;
    shielded = outerShield_;
    if (!outermost_) {
        return;
    }
    inCall = false;
    if (requests_.load(std::memory_order_acquire) == 0) {
        return;
    }
    Requests& all = requests();
    const std::lock_guard lock(all.mutex);
    const auto found = all.byThread.find(::GetCurrentThreadId());
    if (found != all.byThread.end() && found->second.type == eCancelationType::Call) {
        all.byThread.erase(found);
        requests_.store(static_cast<int>(all.byThread.size()), std::memory_order_release);
    }
}
