// What cannot be finished now is left to the next restart of the system, and said.
#include "tests/relocation/move_fixture.h"
#include "tests/support/pending_list.h"
#include "tests/support/unix_call.h"

#include <algorithm>

namespace {

class MoveRestartTest : public MoveFixture {
protected:
    // Shares no deletion.
    static RunTime::AutoHandle use(const std::wstring& path) {
        return RunTime::openExisting(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
    }
    PendingList pending_;
};

TEST_F(MoveRestartTest, OldPlaceInUseIsRemovedByTheSystemUnlessItIsUsedAgain) {
    makeSmallSource();
    const TreeImage tree = imageOf(source());
    const std::wstring inUse = source() + L"\\sub\\b.txt";
    RunTime::AutoHandle user = use(inUse);
    backupmove mover;
    mover.move(source(), target(), true);
    mover.commit();
    EXPECT_TRUE(sameTree(tree, imageOf(target())));
    ASSERT_EQ(mover.get_pendingRestart().size(), 1u);
    EXPECT_TRUE(mover.get_leftBehind().empty());
    EXPECT_TRUE(mover.get_source().empty()) << "the transaction is closed";

    // Files before the directories they are in, as the system removes empty ones only.
    const std::wstring left = mover.get_pendingRestart()[0], list = pending_.shown();
    const std::size_t file = list.find(L"\\??\\" + left + L"\\sub\\b.txt||");
    const std::size_t below = list.find(L"\\??\\" + left + L"\\sub||");
    const std::size_t top = list.find(L"\\??\\" + left + L"||");
    ASSERT_NE(file, list.npos);
    EXPECT_LT(file, below);
    ASSERT_NE(top, list.npos);
    EXPECT_LT(below, top);

    // What is moved to that name later is not meant by it. An entry of others stays.
    user.reset();
    unixRemoveTree(unixPath(source()));
    pending_.write(list.substr(0, list.find_last_not_of(L'|') + 3) + L"\\??\\C:\\other||" + L"|");
    backupmove again;
    again.move(target(), left, true);
    again.commit();
    EXPECT_EQ(pending_.shown(), L"\\??\\C:\\other|||");
    EXPECT_TRUE(again.get_pendingRestart().empty());
    EXPECT_FALSE(temp_.has(L"store\\data"));
}

// Also where the removal did not come to it.
TEST_F(MoveRestartTest, WhatIsWrittenAfterItsCopyOutlivesARestart) {
    makeSmallSource();
    const RunTime::AutoHandle user = use(source() + L"\\sub\\b.txt");
    backupmove mover;
    mover.move(source(), target(), true);
    temp_.writeFile(L"panel\\data\\a.txt", "alpha, and more of it");
    mover.commit();
    EXPECT_EQ(pending_.shown(), L"none");
    EXPECT_EQ(mover.get_leftBehind(),
              (std::vector<std::wstring>{source().substr(4) + L"\\a.txt", source().substr(4)}));
    EXPECT_EQ(temp_.readFile(L"panel\\data\\a.txt"), "alpha, and more of it");
}

TEST_F(MoveRestartTest, FailedItemsOutliveARestart) {
    makeSmallSource();
    makeFilledTarget();
    temp_.writeFile(L"store\\data\\a.txt", "collides");
    const RunTime::AutoHandle user = use(source() + L"\\sub\\b.txt");
    backupmove mover;
    bool moving = true;
    const Hook ignoring =
        mover.errorEvent.hook([&](const std::wstring&, bool& ignore) { ignore = moving; });
    mover.move(source(), target(), false);
    moving = false;
    mover.commit();
    EXPECT_EQ(pending_.shown(), L"none");
    EXPECT_TRUE(mover.get_pendingRestart().empty());
    EXPECT_EQ(temp_.readFile(L"panel\\data\\a.txt"), "alpha");
    const auto& left = mover.get_leftBehind();
    EXPECT_TRUE(std::find(left.begin(), left.end(), source().substr(4)) != left.end());
}

TEST_F(MoveRestartTest, UndoneCopyOrRenameInUseIsFinishedByTheSystem) {
    makeSmallSource();
    TreeImage tree = imageOf(source());
    backupmove mover;
    mover.move(source(), target(), true);
    RunTime::AutoHandle user = use(target() + L"\\sub\\b.txt");
    mover.rollback();
    EXPECT_TRUE(sameTree(tree, imageOf(source())));
    ASSERT_EQ(mover.get_pendingRestart().size(), 1u);
    EXPECT_NE(pending_.shown().find(mover.get_pendingRestart()[0] + L"\\sub\\b.txt||"),
              std::wstring::npos);
    user.reset();

    const std::wstring place = temp_ / L"store\\elsewhere";
    EXPECT_TRUE(mover.move(source(), place, false));
    user = use(place);
    mover.rollback();
    EXPECT_EQ(mover.get_pendingRestart(), std::vector<std::wstring>{place.substr(4)});
    EXPECT_NE(
        pending_.shown().find(L"\\??\\" + place.substr(4) + L"|\\??\\" + source().substr(4) + L"|"),
        std::wstring::npos);
    ImageOptions options;
    options.security = false; // its owner has been set, in case that was the reason
    for (auto& [name, item] : tree) {
        item.security.clear();
    }
    EXPECT_TRUE(sameTree(tree, imageOf(place, options)));
}

} // namespace
