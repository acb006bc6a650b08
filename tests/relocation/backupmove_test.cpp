#include "relocation/backupmove.h"

#include "security/access.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/expect_error.h"

#include <map>

namespace {

class BackupMoveTest : public MoveFixture {};

// The copy is faithful whichever way the streams go, and wherever a header falls in what is read.
TEST_F(BackupMoveTest, CopyIsWholeAndRollbackTakesItAwayOrCommitTheSource) {
    makeRichSource();
    const World before = world();
    struct Case {
        const char* name;
        unsigned seed;
        DWORD refusal;
    };
    for (const Case& way : {Case{"backup API", 0, 0}, Case{"odd chunks", 7, 0},
                            Case{"ordinary calls", 0, ERROR_NOT_SUPPORTED}}) {
        SCOPED_TRACE(way.name);
        ntfs_.chunkSeed = way.seed;
        ntfs_.backupRefusal = way.refusal;
        backupmove mover;
        mover.set_copyOwner(true);
        EXPECT_FALSE(mover.move(source(), target(), true));
        EXPECT_TRUE(sameTree(before.source, imageOf(target())));
        EXPECT_TRUE(mover.get_failed().empty());
        if (way.refusal == 0) {
            mover.rollback();
            expectWorld(before);
            continue;
        }
        mover.commit();
        EXPECT_TRUE(imageOf(source()).empty());
        EXPECT_TRUE(mover.get_leftBehind().empty() && mover.get_pendingRestart().empty());
        mover.commit(); // closed: nothing to do
        mover.rollback();
        EXPECT_TRUE(sameTree(before.source, imageOf(target())));
    }
}

TEST_F(BackupMoveTest, TargetWithoutDataIsSetAside) {
    makeSmallSource();
    temp_.writeFile(L"store\\data\\a.txt", ""); // the source has one of that name
    temp_.writeFile(L"store\\data\\only here.txt", "");
    temp_.writeFile(L"store\\data\\sub\\deep.txt",
                    ""); // in a directory that the source has as well
    const World before = world();
    const TreeImage tree = imageOf(source());
    {
        backupmove mover;
        EXPECT_TRUE(mover.move(source(), target(), false));
        EXPECT_TRUE(sameTree(tree, imageOf(target())));
        mover.rollback();
        expectWorld(before);
    }
    backupmove mover;
    mover.move(source(), target(), false);
    mover.commit();
    EXPECT_EQ(temp_.list(L"store"),
              (std::vector<std::wstring>{L"data\\", L"data\\a.txt", L"data\\empty\\",
                                         L"data\\only here.txt", L"data\\sub\\",
                                         L"data\\sub\\b.txt", L"data\\sub\\deep.txt"}));
    EXPECT_EQ(temp_.readFile(L"store\\data\\a.txt"), "alpha");
}

// Two directories of the tree are moved by movers of their own, as the homes of users are, and one
// of them by way of a directory that has to be made first.
TEST_F(BackupMoveTest, LeavesOutWhatOtherMoversHaveMoved) {
    makeSmallSource();
    temp_.writeFile(L"panel\\data\\users\\bob\\c.txt", "gamma");
    temp_.writeFile(L"panel\\data\\users\\list.txt", "bob");
    ntfs_.setSecurity(source() + L"\\users", L"O:BAG:SYD:PAI(A;;FA;;;SY)(A;;FR;;;BU)");
    ntfs_.setStream(source() + L"\\users", L"note", "of the directory");
    const World before = world();
    for (const bool commit : {false, true}) {
        backupmove tree;
        std::vector<std::unique_ptr<backupmove>> homes;
        std::vector<std::wstring> made;
        const RunTime::DescriptorBytes security = RunTime::Access::getSecurity(source());
        RunTime::Directory::intermediate(target(), &security, made);
        EXPECT_EQ(ntfs_.security(source()), ntfs_.security(target()));
        for (const wchar_t* home : {L"\\SUB", L"\\users\\bob"}) {
            RunTime::Directory::intermediate(RunTime::parentPath(target() + home), nullptr, made);
            homes.push_back(std::make_unique<backupmove>());
            homes.back()->move(source() + home, target() + home, true);
            tree.leaveOut(*homes.back());
        }
        EXPECT_EQ(made, (std::vector<std::wstring>{target(), target() + L"\\users"}));
        for (const std::wstring& directory : made) {
            tree.adopt(directory);
        }
        EXPECT_FALSE(tree.move(source(), target(), false));
        TreeImage moved = imageOf(target());
        EXPECT_TRUE(moved.erase(L"SUB") == 1 && moved.erase(L"SUB\\b.txt") == 1);
        TreeImage expected = before.source;
        expected.erase(L"sub");
        expected.erase(L"sub\\b.txt");
        EXPECT_TRUE(sameTree(expected, moved));
        EXPECT_TRUE(tree.get_failed().empty() && tree.get_report().isEmpty());
        if (commit) {
            temp_.writeFile(L"panel\\data\\sub\\new.txt", "written meanwhile");
            homes[0]->commit();
            homes[1]->commit();
            tree.commit();
            EXPECT_EQ(temp_.list(L"panel"), (std::vector<std::wstring>{L"data\\", L"data\\sub\\",
                                                                       L"data\\sub\\new.txt"}));
            return;
        }
        tree.rollback();
        homes[0]->rollback();
        homes[1]->rollback();
        while (!made.empty()) {
            RunTime::removeDirectory(made.back());
            made.pop_back();
        }
        expectWorld(before);
    }
}

TEST_F(BackupMoveTest, CollidingItemsAreErrorsAndOutliveEverything) {
    makeSmallSource();
    makeFilledTarget();
    temp_.writeFile(L"store\\data\\a.txt", "older alpha");
    const World before = world();
    {
        backupmove mover;
        expectError<VFileExistsException>(ERROR_FILE_EXISTS,
                                          L"Unable to create (" + target().substr(4) + L"\\a.txt)",
                                          [&] { mover.move(source(), target(), false); });
        mover.rollback();
        expectWorld(before);
    }
    for (const bool commit : {false, true}) {
        backupmove mover;
        const IgnoredErrors errors(mover);
        EXPECT_FALSE(mover.move(source(), target(), false));
        EXPECT_EQ(errors.messages.size(), 1u);
        EXPECT_EQ(mover.get_failed(), (std::vector<std::wstring>{source().substr(4) + L"\\a.txt"}));
        if (commit) { // what is not in the new place stays in the old one
            mover.commit();
            EXPECT_EQ(temp_.list(L"panel"), (std::vector<std::wstring>{L"data\\", L"data\\a.txt"}));
            EXPECT_EQ(temp_.readFile(L"panel\\data\\a.txt"), "alpha");
            EXPECT_EQ(temp_.readFile(L"store\\data\\a.txt"), "older alpha");
            EXPECT_EQ(mover.get_leftBehind(), mover.get_failed());
        } else {
            mover.rollback();
            expectWorld(before);
        }
    }
}

TEST_F(BackupMoveTest, StatesAreKeptApart) {
    makeSmallSource();
    const World before = world();
    backupmove mover;
    EXPECT_TRUE(mover.move(source(), source() + L"\\", false)); // the same directory
    EXPECT_TRUE(mover.get_source().empty());
    mover.commit();
    mover.rollback();
    expectWorld(before);

    expectError<VPathNotFoundException>(ERROR_PATH_NOT_FOUND, L"Unable to move (Z:\\no such place)",
                                        [&] { mover.move(L"Z:\\no such place", target(), false); });

    mover.move(source(), target(), true);
    expectError<vexception>(L"Unable to start new transaction",
                            [&] { mover.move(source(), target(), true); });
    mover.rollback();
    expectWorld(before);

    bool cancelled = false;
    const Hook cancel = mover.progressEvent_Name.hook(
        [&](const std::wstring&, bool isFile, std::int64_t, bool& stop) {
            stop = isFile && !cancelled;
            cancelled = cancelled || stop;
        });
    EXPECT_THROW(mover.move(source(), target(), true), CanceledException);
    expectError<vexception>(
        L"Unable to commit files: the move was not completed and must be rolled back",
        [&] { mover.commit(); });
    mover.rollback();
    expectWorld(before);

    makeFilledTarget();
    const World filled = world();
    mover.move(source(), target(), false);
    EXPECT_EQ(logs().size(), 1U);
    EXPECT_EQ(mover.get_report().of(CopyLoss::MergedDirectory).count, 3);
    std::vector<std::wstring> undone;
    const Hook cancelUndo = mover.progressEvent_Name.hook(
        [&](const std::wstring& name, bool, std::int64_t, bool& stop) {
            undone.push_back(name.substr(target().size() - 4));
            stop = undone.size() == 2;
        });
    EXPECT_THROW(mover.rollback(), CanceledException);
    expectError<vexception>(L"Unable to commit files: the rollback has begun and must be repeated",
                            [&] { mover.commit(); });
    mover.rollback();
    EXPECT_EQ(undone, (std::vector<std::wstring>{L"\\a.txt", L"\\sub\\b.txt", L"\\a.txt",
                                                 L"\\sub\\b.txt"})); // newest first
    expectWorld(filled);
}

TEST_F(BackupMoveTest, OldPlaceStaysWhereTheNewPathBeginsWithIt) {
    makeSmallSource();
    const TreeImage before = imageOf(source());
    for (const std::wstring& place : {source() + L"2", source() + L"\\inside"}) {
        SCOPED_TRACE(testing::PrintToString(place));
        backupmove mover;
        EXPECT_FALSE(mover.move(source(), place, true));
        std::vector<std::wstring> names;
        const Hook hook = mover.progressEvent_Name.hook(
            [&](const std::wstring& name, bool, std::int64_t, bool&) { names.push_back(name); });
        mover.commit();
        EXPECT_EQ(names, (std::vector<std::wstring>{L"Commit: " + source().substr(4)}));
        TreeImage copy = imageOf(place);
        copy[L""].written = before.at(L"").written; // of a parent that got a child, perhaps
        EXPECT_TRUE(sameTree(before, copy));
        backupmove().remove(place);
    }
    EXPECT_TRUE(imageOf(source() + L"2").empty());
}

TEST_F(BackupMoveTest, WhatIsWrittenAfterItsCopyOutlivesTheCommit) {
    makeSmallSource();
    backupmove mover;
    mover.move(source(), target(), true);
    temp_.writeFile(L"panel\\data\\a.txt", "alpha, and more of it");
    temp_.writeFile(L"panel\\data\\sub\\new.txt", "new");
    temp_.writeFile(L"panel\\data\\new\\deep.txt", "deep");
    temp_.writeFile(L"store\\data\\sub\\b.txt", "the new place is in use");
    mover.commit();
    EXPECT_EQ(
        temp_.list(L"panel"),
        (std::vector<std::wstring>{L"data\\", L"data\\a.txt", L"data\\new\\",
                                   L"data\\new\\deep.txt", L"data\\sub\\", L"data\\sub\\new.txt"}));
    EXPECT_EQ(mover.get_leftBehind().size(), 3u);
    EXPECT_EQ(temp_.readFile(L"store\\data\\a.txt"), "alpha");
}

TEST_F(BackupMoveTest, RollbackNeverTakesTheOnlyCopy) {
    makeSmallSource();
    const TreeImage tree = imageOf(source());
    {
        backupmove mover;
        mover.move(source(), target(), true);
        backupmove().remove(source()); // by somebody else
        mover.rollback();
        EXPECT_TRUE(sameTree(tree, imageOf(source())));
        EXPECT_FALSE(temp_.has(L"store\\data"));
    }
    {
        backupmove mover;
        mover.move(source(), target(), false);
        temp_.writeFile(L"panel\\data\\other.txt", "somebody else's");
        EXPECT_THROW(mover.rollback(), vexception);
        EXPECT_TRUE(sameTree(tree, imageOf(target())));
        backupmove().remove(source());
        mover.rollback(); // goes on where it stopped
        EXPECT_TRUE(sameTree(tree, imageOf(source())));
    }
    makeFilledTarget();
    backupmove mover;
    mover.move(source(), target(), false);
    backupmove().remove(source());
    EXPECT_THROW(mover.rollback(), vexception);
    EXPECT_EQ(temp_.readFile(L"store\\data\\a.txt"), "alpha");
    mover.commit();
    EXPECT_EQ(temp_.readFile(L"store\\data\\older.txt"), "older");
}

TEST_F(BackupMoveTest, SingleFileMovesToo) {
    const std::wstring file = temp_.writeFile(L"panel\\one.txt", "one");
    ntfs_.setStream(file, L"note", "text");
    const TreeImage before = imageOf(file);
    for (const bool copy : {false, true}) {
        backupmove mover;
        EXPECT_EQ(mover.move(file, temp_ / L"store\\one.txt", copy), !copy);
        EXPECT_TRUE(sameTree(before, imageOf(temp_ / L"store\\one.txt")));
        mover.rollback();
        EXPECT_TRUE(sameTree(before, imageOf(file)));
        EXPECT_FALSE(temp_.has(L"store\\one.txt"));
    }
    backupmove mover;
    mover.move(file, temp_ / L"store\\one.txt", true);
    mover.commit();
    EXPECT_FALSE(temp_.has(L"panel\\one.txt"));
    EXPECT_EQ(temp_.readFile(L"store\\one.txt"), "one");
}

} // namespace
