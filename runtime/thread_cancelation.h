// Cancelling what another thread is doing:
//
//     ThreadCancelation::request(threadId);            // any thread of the process
//
//     ThreadCancelation::CancelationPoint cancellable; // the working thread: opens a call
//     for (...) { ThreadCancelation::check(); ... }    // throws CanceledException
//
// Every public method is a cancellable call, and checks once before its work begins. A request
// made while the thread is in such a call ends that call at its next check. One made while the
// thread is in none waits and ends the next one. Ending a call consumes the request, so the
// Rollback that follows a cancelled operation runs; a request still unheard when its call returns
// goes with the call, so that it cannot hit the Commit after it.
#pragma once

#include <atomic>
#include <windows.h>

// How long a request lasts.
enum class eCancelationType {
    Call,         // ends one cancellable call
    UntilCleared, // ends every cancellable call until clear(); for a caller that is shutting down
};

class ThreadCancelation {
public:
    // A scope in which the thread can be cancelled, or, with enable false, cannot: steps that must
    // run to their end, such as those of a rollback, shield themselves so, and the request waits
    // for the first check outside. Scopes nest, and a shield holds for all that is inside it.
    class CancelationPoint {
    public:
        explicit CancelationPoint(bool enable = true) noexcept;
        ~CancelationPoint();
        CancelationPoint(const CancelationPoint&) = delete;
        CancelationPoint& operator=(const CancelationPoint&) = delete;

    private:
        bool outer_;
        bool outerShield_;
        bool outermost_;
    };

    // Asks a thread of this process to stop. Returns at once. A second request replaces the first.
    // Throws vosexception when the thread does not exist (any more) or belongs to another process.
    static void request(DWORD threadId, eCancelationType type = eCancelationType::Call);

    // Takes back what request() asked, if it has not been heard yet.
    static void clear(DWORD threadId) noexcept;

    // Throws CanceledException when the calling thread is in a cancellable scope and was asked to
    // stop. Costs one atomic read while no thread has been asked, so it may run once per file.
    static void check() {
        if (requests_.load(std::memory_order_acquire) != 0) {
            checkRequests();
        }
    }

private:
    static void checkRequests();

    static std::atomic<int> requests_; // pending ones, of all threads
};
