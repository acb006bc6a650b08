#include "tests/relocation/vhosts/move_vhosts_fixture.h"

#include "runtime/files/file.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"

#include <gtest/gtest.h>

namespace {

using Words = std::vector<panel::Words>;

// MoveVHostsUndoTest: whatever stops a move, and wherever, undo() restores the machine. Homes lie
// in the tree; with accounts that Windows does not know, none is moved, and a rename does it all.
class MoveVHostsUndoTest : public MoveVHostsFixture {
protected:
    struct Round {
        bool disturbed = true; // false: what was to disturb the move has found nothing to disturb
        std::string error;
    };

    // Tries a move to each of the two kinds of place, disturbed by prepare(mover, n) for n = 1, 2,
    // ..., until one passes undisturbed.
    void
    sweep(const std::function<Round(MoveVHosts&, int n, const std::function<void()>&)>& disturb,
          int stride = 1) {
        for (const bool renames : {false, true}) {
            SCOPED_TRACE(renames ? "rename" : "copy");
            if (renames) {
                accounts_.state.users.clear();
            }
            const std::wstring to = renames ? newPlace() : otherVolume();
            const std::string before = world({to});
            int failed = 0;
            Round round;
            for (int n = 1; round.disturbed; n += stride) {
                MoveVHosts mover;
                round = disturb(mover, n, [&] { mover.move(to); });
                SCOPED_TRACE("round " + std::to_string(n) + " " + round.error);
                failed += mover.isMoved() ? 0 : 1;
                accounts_.failAt = 0;
                EXPECT_FALSE(mover.isMoved() ? mover.rollback() : mover.undo());
                ASSERT_EQ("", difference(before, world({to})));
            }
            RecordProperty(renames ? "renames" : "copies", failed);
            EXPECT_GT(failed, 0);
        }
    }

    static std::string errorOf(const std::function<void()>& move) {
        try {
            move();
        } catch (const vexception& e) {
            return toUtf8(e.what());
        }
        return {};
    }

    panel::InProcess utilities_;
};

// What remains is what changes something, but for most of the copying, whose every call the tree
// mover's own sweep fails; every fifth call is enough to fail each step in some place.
const std::set<std::string> triedElsewhere = {"CreateNamedPipeW",
                                              "CreateJobObjectW",
                                              "CreateIoCompletionPort",
                                              "InitializeProcThreadAttributeList",
                                              "DeleteProcThreadAttributeList",
                                              "UpdateProcThreadAttribute",
                                              "SetInformationJobObject",
                                              "AssignProcessToJobObject",
                                              "GetExitCodeProcess",
                                              "RegOpenKeyExW",
                                              "RegQueryInfoKeyW",
                                              "RegEnumKeyExW",
                                              "RegEnumValueW",
                                              "RegQueryValueExW",
                                              "RegGetValueW",
                                              "GetFileAttributesW",
                                              "GetLongPathNameW",
                                              "GetShortPathNameW",
                                              "GetFullPathNameW",
                                              "GetVolumePathNameW",
                                              "GetVolumeNameForVolumeMountPointW",
                                              "GetKernelObjectSecurity",
                                              "SetKernelObjectSecurity",
                                              "GetFileInformationByHandleEx",
                                              "SetFileInformationByHandle",
                                              "GetFinalPathNameByHandleW",
                                              "GetVolumeInformationW",
                                              "GetDiskFreeSpaceW",
                                              "GetDiskFreeSpaceExW",
                                              "LookupPrivilegeValueW",
                                              "OpenThreadToken",
                                              "OpenProcessToken",
                                              "AdjustTokenPrivileges",
                                              "GetTokenInformation",
                                              "ReadFile",
                                              "WriteFile"};

TEST_F(MoveVHostsUndoTest, RestoresTheMachineWhicheverCallFails) {
    const FaultExclusion elsewhere(triedElsewhere);
    sweep(
        [](MoveVHosts&, int n, const std::function<void()>& move) {
            const FaultOutcome outcome = runWithFault(n, ERROR_NOT_ENOUGH_QUOTA, move);
            return Round{outcome.fired, outcome.text()};
        },
        5);
}

} // namespace
