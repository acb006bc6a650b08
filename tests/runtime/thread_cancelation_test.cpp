#include "runtime/thread_cancelation.h"

#include "tests/support/expect_error.h"

#include <future>
#include <thread>

namespace {

using Point = ThreadCancelation::CancelationPoint;

bool isCancelled() {
    try {
        ThreadCancelation::check();
        return false;
    } catch (const CanceledException& e) {
        EXPECT_EQ(L"Canceled!", e.message());
        return true;
    }
}

// Requests of one test must not reach the next.
class ThreadCancelationTest : public testing::Test {
protected:
    ~ThreadCancelationTest() override { ThreadCancelation::clear(self); }
    const DWORD self = ::GetCurrentThreadId();
};

} // namespace

TEST_F(ThreadCancelationTest, RequestEndsTheCallOfThatThreadOnce) {
    std::promise<DWORD> started;
    std::promise<void> requested;
    auto requestMade = requested.get_future();
    bool cancelled = false;
    bool again = true;
    std::thread worker([&] {
        const Point point;
        started.set_value(::GetCurrentThreadId());
        requestMade.wait();
        cancelled = isCancelled();
        again = isCancelled();
    });
    ThreadCancelation::request(started.get_future().get());
    const Point point;
    EXPECT_FALSE(isCancelled()) << "another thread was asked";
    requested.set_value();
    worker.join();
    EXPECT_TRUE(cancelled);
    EXPECT_FALSE(again) << "the request was consumed";
}

TEST_F(ThreadCancelationTest, RequestBetweenCallsEndsTheNextOne) {
    ThreadCancelation::request(self);
    EXPECT_FALSE(isCancelled()) << "no cancellable call";
    {
        const Point point;
        EXPECT_TRUE(isCancelled());
    }
    const Point next;
    EXPECT_FALSE(isCancelled());
}

TEST_F(ThreadCancelationTest, UnheardRequestGoesWithItsCall) {
    {
        const Point call;
        {
            const Point nested;
            ThreadCancelation::request(self);
        }
        EXPECT_TRUE(isCancelled()) << "an inner scope is not the call";
        ThreadCancelation::request(self);
    }
    const Point next;
    EXPECT_FALSE(isCancelled());
}

TEST_F(ThreadCancelationTest, ShieldedStepsRunToTheirEnd) {
    const Point call;
    ThreadCancelation::request(self);
    {
        const Point shield(false);
        EXPECT_FALSE(isCancelled());
        {
            const Point inner;
            EXPECT_FALSE(isCancelled()) << "a shield holds for all that is inside it";
        }
        ThreadCancelation::request(self);
        EXPECT_FALSE(isCancelled());
    }
    EXPECT_TRUE(isCancelled());
}

TEST_F(ThreadCancelationTest, StandingRequestEndsEveryCallUntilItIsCleared) {
    ThreadCancelation::request(self, eCancelationType::UntilCleared);
    for (int i = 0; i < 2; ++i) {
        const Point call;
        EXPECT_TRUE(isCancelled());
    }
    ThreadCancelation::clear(self);
    const Point call;
    EXPECT_FALSE(isCancelled());
}

TEST_F(ThreadCancelationTest, UnknownAndForeignThreadsAreRefused) {
    expectError<vosexception>(ERROR_INVALID_PARAMETER, L"Unable to open the thread (0)",
                              [] { ThreadCancelation::request(0); });
}
