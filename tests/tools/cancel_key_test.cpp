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

    std::string said_;
    CancelKey key_{[this](const std::wstring& text) { said_ = toUtf8(text); }};
};

} // namespace

TEST_F(CancelKeyTest, EachStageSaysWhatAPressDoesAndTheWorkHearsIt) {
    struct Case {
        Stage stage;
        const char* says;
        bool isHeard;
        bool stays;
    };
    const Case cases[] = {
        {Stage::Looking, "Cancelling", true, true},
        {Stage::Asking, "\nCancelled; nothing has been changed.", false, false},
        {Stage::Working, "Cancelling", true, true},
        {Stage::Repairing, "Cancelling; what was done stays...", true, true},
        {Stage::RollingBack, "The rollback must finish", false, true},
        {Stage::Committing, "It is too late to cancel: the move is done", false, true},
    };
    for (const Case& each : cases) {
        CancelKey key([this](const std::wstring& text) { said_ = toUtf8(text); });
        EXPECT_FALSE(key.enter(each.stage));
        EXPECT_EQ(key.press(), each.stays) << each.says;
        EXPECT_TRUE(said_.starts_with(each.says)) << said_;
        EXPECT_EQ(key.isRequested(), each.isHeard) << each.says;
        EXPECT_EQ(isHeard(), each.isHeard) << each.says;
    }
}

TEST_F(CancelKeyTest, ACancelStopsTheCommitAndDoesNotReachTheRollback) {
    key_.enter(Stage::Working);
    key_.press();
    key_.press();
    EXPECT_TRUE(said_.starts_with("Cancelling already")) << said_;
    EXPECT_TRUE(key_.enter(Stage::Committing));
    EXPECT_FALSE(key_.enter(Stage::RollingBack));
    EXPECT_FALSE(isHeard());
}

} // namespace zopctl
