// Whatever fails, a move can be undone; once the commit has begun, it can be completed.
#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/pending_list.h"
#include "tests/support/unix_call.h"

#include <algorithm>

namespace {

enum class Way { Rename, BackupCopy, OrdinaryCopy };
enum class TargetIs { Missing, Empty, Filled };

class MoveFaultTest : public MoveFixture {
protected:
    void makeWorld(TargetIs what) {
        makeSmallSource();
        if (what == TargetIs::Empty) {
            temp_.makeDirectory(L"store\\data");
        } else if (what == TargetIs::Filled) {
            makeFilledTarget();
        }
    }
    // Whatever else is in it, the image holds the tree.
    static void expectHolds(const TreeImage& tree, TreeImage image) {
        std::erase_if(image, [&](const auto& item) { return !tree.contains(item.first); });
        EXPECT_TRUE(sameTree(tree, image));
    }
    void choose(Way way) {
        ntfs_.backupRefusal = way == Way::OrdinaryCopy ? ERROR_NOT_SUPPORTED : 0;
    }
};

// Fails the n-th call of the move, for every n, and rolls back on a healthy system again.
TEST_F(MoveFaultTest, RollbackUndoesTheMoveWhicheverCallFails) {
    long faults = 0;
    for (const TargetIs what : {TargetIs::Missing, TargetIs::Empty, TargetIs::Filled}) {
        SCOPED_TRACE(testing::Message() << "target " << static_cast<int>(what));
        makeWorld(what);
        const World before = world();
        for (const Way way : {Way::Rename, Way::BackupCopy, Way::OrdinaryCopy}) {
            SCOPED_TRACE(testing::Message() << "way " << static_cast<int>(way));
            choose(way);
            for (const DWORD code :
                 {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_DISK_FULL}) {
                for (const FaultMode mode : {FaultMode::Once, FaultMode::Always}) {
                    bool fired = true;
                    for (long n = 1; fired && !HasFailure(); ++n) {
                        backupmove mover;
                        const FaultOutcome outcome = runWithFault(n, code, mode, [&] {
                            mover.move(source(), target(), way != Way::Rename);
                        });
                        fired = outcome.fired;
                        faults += fired ? 1 : 0;
                        SCOPED_TRACE(outcome.text());
                        try {
                            mover.rollback();
                        } catch (const vexception& error) {
                            ADD_FAILURE() << toUtf8(error.what());
                        }
                        expectWorld(before);
                    }
                }
            }
        }
        backupmove().remove(target());
    }
    EXPECT_GT(faults, 1000);
    std::cout << faults << " faults\n";
}

// Fails the n-th call of the commit, and commits again on a healthy system.
TEST_F(MoveFaultTest, CommitKeepsTheNewPlaceWholeWhicheverCallFails) {
    const PendingList pending;
    ImageOptions options;
    options.directoryTimes = false; // what is merged into a directory changes them
    struct Fault {
        DWORD code;
        FaultMode mode;
    };
    long faults = 0;
    for (const bool copy : {false, true}) {
        for (const Fault fault : {Fault{ERROR_ACCESS_DENIED, FaultMode::Always},
                                  Fault{ERROR_DISK_FULL, FaultMode::Once}}) {
            bool fired = true;
            for (long n = 1; fired && !HasFailure(); ++n) {
                makeSmallSource();
                if (!copy) { // set aside by the move, merged by the commit
                    temp_.writeFile(L"store\\data\\a.txt", "");
                    temp_.writeFile(L"store\\data\\only here.txt", "");
                    temp_.writeFile(L"store\\data\\sub\\deep.txt", "");
                }
                const TreeImage tree = imageOf(source(), options);
                backupmove mover;
                mover.set_lockLogs(true);
                EXPECT_EQ(mover.move(source(), target(), copy), !copy);
                const FaultOutcome outcome =
                    runWithFault(n, fault.code, fault.mode, [&] { mover.commit(); });
                SCOPED_TRACE(outcome.text());
                fired = outcome.fired;
                faults += fired ? 1 : 0;
                expectHolds(tree, imageOf(target(), options));
                if (!mover.get_source().empty()) {
                    EXPECT_FALSE(outcome.error.empty());
                    if (outcome.error.find("lock Tarvo logs") == std::string::npos) {
                        expectError<vexception>(
                            L"Unable to rollback files: the commit has begun and must be repeated",
                            [&] { mover.rollback(); });
                    }
                    mover.commit();
                    expectHolds(tree, imageOf(target(), options));
                }
                EXPECT_TRUE(mover.get_source().empty());
                if (!copy) {
                    EXPECT_TRUE(temp_.has(L"store\\data\\only here.txt"));
                    EXPECT_TRUE(temp_.has(L"store\\data\\sub\\deep.txt"));
                }
                // What is left beside the new place, the system will remove, and that is said.
                for (const wchar_t* place : {L"panel", L"store"}) {
                    for (const std::wstring& left : temp_.list(place)) {
                        if (place == std::wstring(L"store") && left.starts_with(L"data\\")) {
                            continue;
                        }
                        const std::wstring path = temp_.nice() + L"\\" + place + L"\\" + left;
                        const auto& said = mover.get_pendingRestart();
                        EXPECT_TRUE(std::any_of(said.begin(), said.end(), [&](const auto& name) {
                            return path.starts_with(name + L"\\");
                        })) << toUtf8(path);
                        EXPECT_NE(pending.shown().find(mover.get_pendingRestart().at(0)),
                                  std::wstring::npos);
                    }
                    unixRemoveTree(unixPath(temp_ / place));
                    temp_.makeDirectory(place);
                }
                pending.write(L"|");
            }
        }
    }
    EXPECT_GT(faults, 100);
}

} // namespace
