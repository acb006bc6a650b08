#include "tools/zopctl/work_progress.h"

#include "tools/zopctl/text_format.h"

#include <gtest/gtest.h>

namespace zopctl {

TEST(WorkProgressTest, RunsOnceFromBeginningToEndOverAllPhases) {
    WorkProgress progress;
    progress.plan(Phase::Copy, {100, 1'000'000, 1});
    progress.plan(Phase::Verify, {100, 1'000'000, 0.5});
    progress.plan(Phase::Remove, {100, 0, 0.2});
    double last = 0;
    std::uint64_t now = 5'000;
    for (const Phase phase : {Phase::Copy, Phase::Verify, Phase::Remove}) {
        progress.begin(phase, now);
        EXPECT_GE(progress.fraction(), last);
        for (int item = 1; item <= 100; ++item) {
            progress.advance(item, item * 10'000, now += 10);
            EXPECT_GE(progress.fraction(), last);
            last = progress.fraction();
        }
    }
    EXPECT_DOUBLE_EQ(last, 1.0);
}

TEST(WorkProgressTest, MoreThanPlannedStaysWithinThePhase) {
    WorkProgress progress;
    progress.plan(Phase::Copy, {10, 0, 1});
    progress.plan(Phase::Verify, {10, 0, 1});
    progress.begin(Phase::Copy, 0);
    progress.advance(1000, 1'000'000'000, 50);
    EXPECT_DOUBLE_EQ(progress.fraction(), 0.5);
    EXPECT_DOUBLE_EQ(WorkProgress().fraction(), 0) << "nothing planned";
}

TEST(WorkProgressTest, TimeLeftFollowsTheSpeedSoFar) {
    WorkProgress progress;
    progress.plan(Phase::Copy, {0, 1'000'000, 1});
    progress.begin(Phase::Copy, 1'000);
    progress.advance(0, 1'000, 1'100);
    EXPECT_EQ(progress.timeLeft(), -1) << "too early to tell";
    progress.advance(0, 250'000, 11'000);
    EXPECT_EQ(progress.timeLeft(), 30'000);
}

TEST(ProgressLineTest, FillsTheWidthAndNeverExceedsIt) {
    ProgressView view;
    view.verb = L"Copying";
    view.fraction = 0.5;
    view.timeLeft = 61'000;
    view.rate = L"31 MB/s";
    view.errors = 2;
    view.name = L"C:\\data\\" + std::wstring(60, L'\x65E5') + L"\\report.txt";
    EXPECT_EQ(progressLine(view, 200),
              L"Copying [##########..........]  50 %  31 MB/s  1 min 01 s left  2 errors  " +
                  cutToCells(view.name, 200 - 1 - 75));
    for (int width = 20; width < 250; ++width) {
        EXPECT_LT(cellWidth(progressLine(view, width)), width);
    }
    EXPECT_TRUE(progressLine(view, 120).ends_with(L"report.txt")) << "the name is what matters";
}

} // namespace zopctl
