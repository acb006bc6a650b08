// Wherever a handler or another thread cancels a move, it can be undone; nothing leaks meanwhile.
#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/process_counters.h"

#include <vector>

namespace {

// Sees every event of a move, and cancels at the n-th: by its flag, or, where an event has none,
// by a request to the thread. Errors are ignored.
class Canceller {
public:
    Canceller(backupmove& mover, long n) : left_(n) {
        hooks_.push_back(mover.progressEvent_Total.hook(
            [this](std::int32_t, std::int64_t, bool& cancel) { cancel = isDue(); }));
        hooks_.push_back(mover.progressEvent_Name.hook(
            [this](const std::wstring&, bool, std::int64_t, bool& cancel) { cancel = isDue(); }));
        hooks_.push_back(mover.progressEvent_Bytes.hook(
            [this](std::int64_t, bool& cancel) { cancel = isDue(); }));
        hooks_.push_back(mover.errorEvent.hook([this](const std::wstring& message, bool& ignore) {
            ignore = true;
            messages.push_back(message);
            if (isDue()) {
                ThreadCancelation::request(::GetCurrentThreadId());
            }
        }));
    }
    bool fired() const { return left_ <= 0; }
    std::vector<std::wstring> messages;

private:
    bool isDue() { return --left_ == 0; }
    long left_;
    std::vector<Hook> hooks_;
};

class MoveCancelTest : public MoveFixture {};

TEST_F(MoveCancelTest, CancelAtAnyEventCanBeUndone) {
    makeSmallSource();
    temp_.writeFile(L"panel\\data\\large", sampleBytes((1 << 20) + 4096));
    struct Case {
        const char* name;
        bool target, filled, collides;
        int longest; // events of a move by copy
    };
    for (const Case& place :
         {Case{"missing", false, false, false, 8}, Case{"empty", true, false, false, 8},
          Case{"filled", true, true, false, 8},
          Case{"with a name of the source", true, true, true, 9}}) {
        SCOPED_TRACE(place.name);
        if (place.target) {
            temp_.makeDirectory(L"store\\data");
        }
        if (place.filled && !place.collides) {
            makeFilledTarget();
        }
        if (place.collides) {
            temp_.writeFile(L"store\\data\\sub\\b.txt", "older beta");
        }
        const World before = world();
        for (const bool copy : {false, true}) {
            long cancelled = 0;
            bool fired = true;
            for (long n = 1; fired && !HasFailure(); ++n) {
                SCOPED_TRACE(n);
                backupmove mover;
                {
                    Canceller canceller(mover, n);
                    try {
                        mover.move(source(), target(), copy);
                    } catch (const CanceledException& error) {
                        EXPECT_EQ(error.message(), L"Canceled!");
                        ++cancelled;
                    }
                    fired = canceller.fired();
                }
                mover.rollback();
                expectWorld(before);
            }
            EXPECT_EQ(cancelled, copy || place.filled ? place.longest : 2);
        }
    }
}

TEST_F(MoveCancelTest, RepeatedMovesLeakNothing) {
    makeSmallSource();
    makeFilledTarget();
    temp_.makeDirectory(L"store\\hollow");
    struct Case {
        const char* name;
        std::wstring target;
        long cancelAt;
    };
    for (const Case& way :
         {Case{"rename", temp_ / L"store\\new", 0}, Case{"set aside", temp_ / L"store\\hollow", 0},
          Case{"log", target(), 0}, Case{"cancelled", target(), 4}, Case{"failed", target(), -1}}) {
        SCOPED_TRACE(way.name);
        const ProcessCounters growth = growthOver(10, [&] {
            backupmove mover;
            const Canceller canceller(mover, way.cancelAt);
            Hook failing =
                mover.progressEvent_Name.hook([&](const std::wstring&, bool, std::int64_t, bool&) {
                    if (way.cancelAt < 0) {
                        throw vexception(L"a handler's failure");
                    }
                });
            try {
                mover.move(source(), way.target, false);
            } catch (const vexception&) {
            }
            failing.unhook();
            mover.rollback();
        });
        EXPECT_EQ(growth.handles, 0);
        EXPECT_EQ(growth.blocks, 0);
    }
}

} // namespace
