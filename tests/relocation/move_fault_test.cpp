// Whatever fails, and wherever a handler cancels, a move can be undone.
#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/fault_sweep.h"

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

} // namespace
