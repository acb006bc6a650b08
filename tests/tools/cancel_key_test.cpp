#include "tools/zopctl/cancel_key.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"

#include <gtest/gtest.h>

namespace zopctl {

namespace {

using Stage = CancelKey::Stage;

class CancelKeyTest : public ::testing::Test {
protected:
    std::string press() {
        said_.clear();
        stays_ = key_.press();
        return toUtf8(said_);
    }
    // Whether the work of this thread hears a cancel at its next step.
    static bool isHeard() {
        const ThreadCancelation::CancelationPoint work;
        try {
            ThreadCancelation::check();
            return false;
        } catch (const CanceledException&) {
            return true;
        }
    }

    std::wstring said_;
    bool stays_ = true;
    CancelKey key_{[this](const std::wstring& text) { said_ = text; }};
};

} // namespace

TEST_F(CancelKeyTest, CancelsTheWorkByFlagAndByRequest) {
    key_.enter(Stage::Working);
    EXPECT_FALSE(key_.isRequested());
    EXPECT_TRUE(press().starts_with("Cancelling"));
    EXPECT_TRUE(key_.isRequested());
    EXPECT_TRUE(isHeard());
    EXPECT_TRUE(press().starts_with("Cancelling already"));
}

TEST_F(CancelKeyTest, ARepairIsCancelledAndKeepsWhatItDid) {
    key_.enter(Stage::Repairing);
    EXPECT_EQ(press(), "Cancelling; what was done stays...");
    EXPECT_TRUE(isHeard());
}

TEST_F(CancelKeyTest, ARequestThatNobodyHeardDoesNotReachTheRollback) {
    key_.enter(Stage::Working);
    press();
    EXPECT_FALSE(key_.enter(Stage::RollingBack));
    EXPECT_FALSE(isHeard());
    EXPECT_TRUE(press().starts_with("The rollback must finish"));
    EXPECT_FALSE(isHeard());
}

TEST_F(CancelKeyTest, ACancelBetweenMoveAndCommitStopsTheCommit) {
    key_.enter(Stage::Working);
    press();
    EXPECT_TRUE(key_.enter(Stage::Committing));
}

TEST_F(CancelKeyTest, AtTheQuestionTheProcessMayEnd) {
    key_.enter(Stage::Asking);
    EXPECT_EQ(press(), "\nCancelled; nothing has been changed.");
    EXPECT_FALSE(stays_);
    for (const Stage stage : {Stage::Looking, Stage::RollingBack, Stage::Committing}) {
        key_.enter(stage);
        press();
        EXPECT_TRUE(stays_);
        if (stage == Stage::Looking) {
            EXPECT_TRUE(isHeard());
        }
    }
}

TEST_F(CancelKeyTest, ACommitGoesOn) {
    key_.enter(Stage::Working);
    EXPECT_FALSE(key_.enter(Stage::Committing));
    EXPECT_TRUE(press().starts_with("It is too late to cancel: the move is done"));
    EXPECT_FALSE(key_.isRequested());
    EXPECT_FALSE(isHeard());
}

} // namespace zopctl
