#include "tests/relocation/vhosts/move_vhosts_fixture.h"

#include "runtime/files/file.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/tree_image.h"

#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <winsock2.h>

namespace {

// MoveVHostsUndoTest: whatever stops a move, and wherever, undo() restores the machine. Homes lie
// in the tree; with accounts that Windows does not know, none is moved, and a rename does it all.
class MoveVHostsUndoTest : public MoveVHostsFixture {
protected:
    struct Round {
        bool disturbed = true; // false: what was to disturb the move has found nothing to disturb
        std::string error;
    };

    // Tries a move to each of the two kinds of place, disturbed by disturb(mover, n, move) for
    // every stride-th n, until one passes undisturbed.
    void
    sweep(const std::function<Round(MoveVHosts&, long n, const std::function<void()>&)>& disturb,
          long stride = 1) {
        const SweepExtent extent(stride);
        forEachWay([&](bool renames, const std::wstring& to, const std::string& before) {
            long failed = 0;
            long tried = 0;
            Round round;
            for (long n = extent.first; round.disturbed && n <= extent.last; n += extent.stride) {
                MoveVHosts mover;
                round = disturb(mover, n, [&] { mover.move(to); });
                SCOPED_TRACE("round " + std::to_string(n) + " " + round.error);
                ++tried;
                failed += mover.isMoved() ? 0 : 1;
                accounts_.failAt = 0;
                EXPECT_FALSE(mover.isMoved() ? mover.rollback() : mover.undo());
                ASSERT_EQ(before, world({to}));
            }
            EXPECT_TRUE(failed > 0 || extent.first > 1);
            if (extent.isWhole) {
                std::cout << (renames ? "rename: " : "copy: ") << tried << " rounds, " << failed
                          << " of them ended the move\n";
            }
        });
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

// What others fail in turn: the copying by the tree mover's own sweep, the starting of programs,
// the reading of paths and of the registry. Every fifth of the other calls hits each step
// somewhere.
std::set<std::string> triedElsewhere() {
    std::istringstream names(
        "CreateNamedPipeW CreateJobObjectW CreateIoCompletionPort GetExitCodeProcess ReadFile "
        "InitializeProcThreadAttributeList DeleteProcThreadAttributeList UpdateProcThreadAttribute "
        "SetInformationJobObject AssignProcessToJobObject RegOpenKeyExW RegQueryInfoKeyW WriteFile "
        "RegEnumKeyExW RegEnumValueW RegQueryValueExW RegGetValueW GetFileAttributesW "
        "GetLongPathNameW GetShortPathNameW GetFullPathNameW GetVolumePathNameW OpenThreadToken "
        "GetVolumeNameForVolumeMountPointW GetKernelObjectSecurity SetKernelObjectSecurity "
        "GetFileInformationByHandleEx SetFileInformationByHandle GetFinalPathNameByHandleW "
        "GetVolumeInformationW GetDiskFreeSpaceW GetDiskFreeSpaceExW LookupPrivilegeValueW "
        "OpenProcessToken AdjustTokenPrivileges GetTokenInformation");
    return {std::istream_iterator<std::string>(names), {}};
}

TEST_F(MoveVHostsUndoTest, RestoresTheMachineWhicheverCallFails) {
    constexpr long stride = 5;
    const SweepExtent extent(stride);
    const FaultExclusion elsewhere(extent.isWhole ? std::set<std::string>() : triedElsewhere());
    std::map<std::string, int> failed;
    sweep(
        [&](MoveVHosts&, long n, const std::function<void()>& move) {
            const FaultOutcome outcome = runWithFault(n, ERROR_NOT_ENOUGH_QUOTA, move);
            ++failed[outcome.function.substr(0, outcome.function.find(','))];
            return Round{outcome.fired, outcome.text()};
        },
        stride);
    if (extent.isWhole) {
        for (const auto& [function, count] : failed) {
            std::cout << count << " " << function << "\n";
        }
    }
}

// A call of a utility is done, and then reported as failed.
TEST_F(MoveVHostsUndoTest, RestoresTheMachineWhicheverUtilityFails) {
    sweep([&](MoveVHosts&, long n, const std::function<void()>& move) {
        panel_.store().forgetCalls();
        panel_.store().setControl({{L"half", std::to_wstring(n), L"", L"1", L"half done"}});
        const std::string error = errorOf(move);
        const bool disturbed = panel_.store().calls().size() >= static_cast<std::size_t>(n);
        panel_.store().setControl({});
        return Round{disturbed, error};
    });
}

// What is sent to the database's server gets lost, or its answer, for our own statements and for
// the script's.
TEST_F(MoveVHostsUndoTest, RestoresTheMachineWhicheverAccountOrStatementFails) {
    for (const char* function : {"send", "recv"}) {
        SCOPED_TRACE(function);
        FaultPoint connection(function);
        connection.code = WSAECONNRESET;
        connection.result = static_cast<std::uintptr_t>(SOCKET_ERROR);
        sweep(
            [&](MoveVHosts&, long n, const std::function<void()>& move) {
                connection.calls = 0;
                connection.failAt = n - 1;
                const std::string error = errorOf(move);
                const bool disturbed = connection.fired();
                connection.failAt = -1;
                return Round{disturbed, error};
            },
            4);
    }
    sweep(
        [&](MoveVHosts&, long n, const std::function<void()>& move) {
            accounts_.failAt = n;
            const std::string error = errorOf(move);
            return Round{accounts_.failAt.fired, error};
        },
        3);
}

TEST_F(MoveVHostsUndoTest, RestoresTheMachineWhereverAListenerCancels) {
    sweep(
        [](MoveVHosts& mover, long n, const std::function<void()>& move) {
            long left = n;
            const auto count = [&left](bool& cancel) { cancel = --left <= 0; };
            const Hook hooks[] = {
                mover.progressEvent_Cost.hook([&](std::int64_t, bool& cancel) { count(cancel); }),
                mover.progressEvent_Name.hook([&](const std::wstring&, std::int64_t, std::int32_t,
                                                  std::int64_t, bool& cancel) { count(cancel); }),
                mover.subProgressEvent_Start.hook(count), mover.subProgressEvent_End.hook(count)};
            const std::string error = errorOf(move);
            EXPECT_TRUE(error.empty() || error.starts_with("Canceled!")) << error;
            return Round{left <= 0, error};
        },
        4);
}

// What cannot be put back is said and kept; everything else is back already, and the next undo()
// does the rest.
TEST_F(MoveVHostsUndoTest, SaysWhatCouldNotBePutBackAndGoesOnWithIt) {
    const std::wstring to = otherVolume();
    const std::string before = world({to});
    const auto refuse = [this](const wchar_t* call) {
        return [this, call] {
            panel_.store().setControl({{L"fail", L"0", call, L"1", L"refused"}});
        };
    };
    FaultPoint writing("RegSetValueExW");
    writing.result = ERROR_DISK_FULL;
    RunTime::AutoHandle busy;
    struct Obstacle {
        const char* part;
        std::function<void()> raise;
    };
    const Obstacle obstacles[] = {
        {"HTTPD_VHOSTS_D", [&] { service_.reset(); }},
        {"installer",
         [&] {
             writing.failOnwards = true;
             writing.failAt = writing.calls.load();
         }},
        {"directory of virtual hosts",
         [&] {
             busy = RunTime::openExisting(to + L"\\webmail\\atmail\\index.php", GENERIC_READ,
                                          FILE_SHARE_READ);
         }},
        {"IIS sites", refuse(L"--update-site-paths")},
        {"restore users",
         [&] {
             accounts_.failCall = L"setHomeDirectory";
             accounts_.failAt = 1;
         }},
        {"ASP.NET", refuse(L"--reconfigure-aspnet-settings")},
        {"PHP", refuse(L"--reconfigure-php-settings")},
        {"FTP", refuse(L"--reconfigure-ftp-sites")},
    };
    for (const Obstacle& obstacle : obstacles) {
        SCOPED_TRACE(obstacle.part);
        MoveVHosts mover;
        panel_.store().setControl({{L"half", L"0", L"--reconfigure-ftp-sites", L"1", L"refused"}});
        EXPECT_NE("", errorOf([&] { mover.move(to); }));
        panel_.store().setControl({});
        EXPECT_FALSE(mover.rollback()); // of a completed move only
        obstacle.raise();
        const std::string error = errorOf([&] { mover.undo(); });
        EXPECT_TRUE(error.starts_with("Unable to put everything back. ") &&
                    error.find(obstacle.part) != error.npos)
            << error;
        EXPECT_NE("", errorOf([&] { mover.move(to); })) << "a second move before the first is back";
        EXPECT_NE("", errorOf([&] { mover.commit(); }));
        if (!service_) {
            service_.emplace();
        }
        writing.failAt = -1;
        busy.reset();
        accounts_.failCall.clear();
        panel_.store().setControl({});
        EXPECT_FALSE(mover.undo());
        ASSERT_EQ(before, world({to}));
        EXPECT_FALSE(mover.undo());
    }
}

class MoveVHostsTest : public MoveVHostsUndoTest {
protected:
    static void expectMoved(const TreeImage& tree, const std::wstring& to) {
        TreeImage moved = imageOf(to);
        EXPECT_EQ(moved.size(), tree.size());
        for (auto& [name, item] : moved) { // what is made anew, or names the place
            const ItemImage& old = tree.at(name);
            if (name.empty() || name.starts_with(L"Servers") || name.ends_with(L"Atmail")) {
                item.written = old.written;
                item.created = old.created;
            } else if (name.ends_with(L"config.php")) {
                item = old;
            }
        }
        EXPECT_TRUE(sameTree(tree, moved));
    }
};

// To a place that does not exist and to one that does; by a copy and by a rename.
TEST_F(MoveVHostsTest, CommitLeavesNothingThatNamesTheOldPlace) {
    const TreeImage tree = imageOf(oldPlace());
    std::wstring from = oldPlace();
    for (const std::wstring& to :
         {otherVolume(), directory_.makeDirectory(L"empty\\vhosts").substr(4), newPlace()}) {
        SCOPED_TRACE(toUtf8(to));
        MoveVHosts mover;
        std::string steps;
        int homes = 0;
        const Hook hooks[] = {mover.stepEvent.hook([&](std::int32_t number, const std::wstring&) {
                                  steps += std::to_string(number) + " ";
                              }),
                              mover.subProgressEvent_Start.hook([&](bool&) { ++homes; }),
                              mover.ignorebleErrorEvent.hook([](const std::wstring& text, bool&) {
                                  ADD_FAILURE() << toUtf8(text);
                              })};
        EXPECT_FALSE(mover.move(to));
        EXPECT_EQ("2 3 4 5 7 8 9 10 11 12 13 14 15 16 17 ", steps);
        const bool keepsHomes = accounts_.state.users.empty();
        EXPECT_EQ(keepsHomes ? 0 : 1, homes); // those of the other accounts lie in it
        EXPECT_FALSE(RunTime::exists(from + L"\\Servers"));
        EXPECT_FALSE(mover.commit());
        EXPECT_FALSE(RunTime::exists(from));
        EXPECT_TRUE(mover.get_leftBehind().empty() && mover.get_pendingRestart().empty());
        EXPECT_TRUE(mover.get_failed().empty());
        expectMoved(tree, to);
        if (!keepsHomes) { // but for a value of a type that is left alone
            const std::string references = panel_.references(from);
            EXPECT_EQ(references.find("Expandable") == references.npos ? 0 : 1,
                      std::count(references.begin(), references.end(), '\n'))
                << references;
        }
        EXPECT_FALSE(mover.commit());
        EXPECT_FALSE(mover.rollback());
        from = to;
        if (from.ends_with(L"empty\\vhosts")) {
            accounts_.state.users.clear();
        }
    }
}

// As NTFS has them, and Wine has not.
TEST_F(MoveVHostsTest, StreamsAndLinksGoAlongAndComeBack) {
    NtfsFake ntfs;
    const panel::Panel rich(directory_.makeDirectory(L"rich").substr(4),
                            {.domains = 1, .files = 0, .links = true, .streams = true});
    rich.build();
    for (const panel::Account& account : rich.accounts()) {
        accounts_.state.users[account.login] = {.home = account.home};
    }
    accounts_.state.users.erase(L"d1"); // what lies between its directory and other homes is made
    const TreeImage tree = imageOf(rich.vhosts());
    const std::wstring to = otherVolume();
    const std::string before = rich.statements();
    for (const bool commits : {false, true}) {
        MoveVHosts mover;
        EXPECT_FALSE(mover.move(to));
        EXPECT_FALSE(commits ? mover.commit() : mover.rollback());
        EXPECT_EQ(commits, before != rich.statements());
        expectMoved(tree, commits ? to : rich.vhosts());
        EXPECT_FALSE(RunTime::exists(commits ? rich.vhosts() : to));
    }
    EXPECT_EQ(1, std::count_if(tree.begin(), tree.end(),
                               [](const auto& item) { return !item.second.streams.empty(); }));
    EXPECT_EQ(2, std::count_if(tree.begin(), tree.end(), [](const auto& item) {
                  return item.second.kind == ItemImage::Kind::Link;
              }));
}

TEST_F(MoveVHostsTest, RefusesWhatIsNoDirectoryAndHearsTheFirstCancel) {
    const std::string before = world();
    panel_.store().forgetCalls();
    MoveVHosts mover;
    EXPECT_FALSE(mover.rollback() || mover.undo() || mover.commit());
    {
        const Hook cancelling =
            mover.progressEvent_Cost.hook([](std::int64_t, bool& cancel) { cancel = true; });
        expectError<CanceledException>(L"Canceled!", [&] { mover.move(newPlace()); });
    }
    EXPECT_TRUE(errorOf([&] { mover.move(L""); }) != "");
    EXPECT_TRUE(panel_.store().calls().empty());
    EXPECT_FALSE(mover.rollback() || mover.undo());

    const std::wstring file = directory_.writeFile(L"file", "").substr(4);
    expectError<vexception>(L"Destinition (" + file + L") is not a directory",
                            [&] { mover.move(file); });
    EXPECT_FALSE(mover.undo());
    const std::wstring same = oldPlace() + L"\\" + RunTime::lastName(oldPlace());
    ASSERT_TRUE(RunTime::createDirectory(same));
    expectError<vexception>(L"Unable to move (" + same + L") to (" + oldPlace() +
                                L"), which is moved itself",
                            [&] { mover.move(RunTime::parentPath(oldPlace())); });
    EXPECT_FALSE(mover.undo());
    RunTime::removeDirectory(same);
    panel_.store().setControl({{L"fail", L"0", L"--remove-all", L"3", L""}});
    expectError<vexception>(
        L"call (ftphostctl.exe --remove-all) empty message from utilty with exit status 3",
        [&] { mover.move(newPlace()); });
    // The second stage makes the first one's failure good, or both are told.
    std::vector<std::wstring> told;
    const Hook hook =
        mover.errorEvent.hook([&](const std::wstring& text) { told.push_back(text); });
    const panel::Words firstStage = {L"fail", L"0", L"--remove-all", L"3", L"No FTP."};
    panel_.store().setControl(
        {firstStage, {L"fail", L"0", L"--reconfigure-ftp-sites", L"1", L"No sites."}});
    EXPECT_THROW(mover.undo(), vexception);
    ASSERT_EQ(told.size(), 2U);
    EXPECT_NE(told[1].find(L"No FTP."), told[1].npos) << toUtf8(told[1]);
    panel_.store().setControl({firstStage});
    EXPECT_FALSE(mover.undo());
    EXPECT_EQ(told.size(), 2U);
    panel_.store().setControl({});
    EXPECT_EQ(before, world());
}

// Nor is made final what is under way, or has been put back in part.
TEST_F(MoveVHostsTest, APlaceInTheDirectoryOfTheFtpServerIsKept) {
    const std::wstring to = oldPlace() + L"\\Servers\\new";
    const std::string before = world();
    MoveVHosts mover;
    {
        const Hook meddling = mover.stepEvent.hook([&](std::int32_t, const std::wstring&) {
            EXPECT_NE("", errorOf([&] { mover.commit(); }));
            EXPECT_NE("", errorOf([&] { mover.rollback(); }));
        });
        EXPECT_FALSE(mover.move(to));
    }
    panel_.store().setControl({{L"fail", L"0", L"--update-site-paths", L"1", L"refused"}});
    EXPECT_NE("", errorOf([&] { mover.rollback(); }));
    EXPECT_NE("", errorOf([&] { mover.commit(); }));
    panel_.store().setControl({});
    EXPECT_FALSE(mover.rollback());
    EXPECT_EQ(before, world());
    EXPECT_FALSE(mover.move(to));
    EXPECT_FALSE(mover.commit());
    EXPECT_TRUE(RunTime::exists(to + L"\\webmail\\atmail\\index.php"));
    EXPECT_TRUE(RunTime::exists(oldPlace() + L"\\webmail\\atmail\\index.php"));
    // What is final is not undone with the next move.
    const std::string moved = world({otherVolume()});
    EXPECT_FALSE(mover.move(otherVolume()));
    EXPECT_FALSE(mover.rollback());
    EXPECT_EQ(moved, world({otherVolume()}));
}

// A settings file that was in the new place before, and is of others, is put back, too.
TEST_F(MoveVHostsTest, PutsBackASettingsFileThatWasInTheNewPlace) {
    accounts_.state.users.clear();
    TempDirectory taken;
    const std::wstring name = L"webmail\\atmail\\libs\\Atmail\\config.php";
    taken.makeDirectory(RunTime::parentPath(name));
    const std::string content = toUtf8(L"'" + oldPlace() + L"\\old'");
    taken.writeFile(name, content);
    const std::string before = world({taken.nice()});
    MoveVHosts mover;
    const Hook ignoring =
        mover.ignorebleErrorEvent.hook([](const std::wstring&, bool& ignore) { ignore = true; });
    EXPECT_FALSE(mover.move(taken.nice()));
    EXPECT_NE(content, taken.readFile(name));
    EXPECT_FALSE(mover.rollback());
    EXPECT_EQ(content, taken.readFile(name));
    EXPECT_EQ(before, world({taken.nice()}));
}

// The home's own mover moves all of it, and the tree's has nothing left to do.
TEST_F(MoveVHostsTest, AHomeMayBeTheWholeDirectory) {
    database->execute(
        L"insert into sys_users (login, password, home, quota) values ('all', '', ?, 0)",
        {oldPlace()});
    accounts_.state.users[L"all"] = {.home = oldPlace()};
    const TreeImage tree = imageOf(oldPlace());
    const std::wstring to = otherVolume();
    std::string before;
    for (int round = 0; round < 3; ++round) { // after the first the FTP server knows the account
        MoveVHosts mover;
        EXPECT_FALSE(mover.move(to));
        EXPECT_EQ(accounts_.state.users[L"all"].home, to);
        EXPECT_FALSE(round == 2 ? mover.commit() : mover.rollback());
        EXPECT_TRUE(mover.get_leftBehind().empty() && mover.get_pendingRestart().empty());
        if (round == 1) {
            EXPECT_EQ(before, world({to}));
        }
        before = world({to});
    }
    EXPECT_FALSE(RunTime::exists(oldPlace()));
    for (const auto& [name, item] : tree) {
        EXPECT_TRUE(RunTime::exists(to + L"\\" + name)) << toUtf8(name);
    }
}

TEST_F(MoveVHostsTest, TheDirectoryAboveTakesTheTree) {
    const std::wstring to = RunTime::parentPath(oldPlace());
    const std::string before = world();
    TreeImage tree = imageOf(oldPlace());
    for (const bool commits : {false, true}) {
        MoveVHosts mover;
        EXPECT_FALSE(mover.move(to));
        EXPECT_FALSE(commits ? mover.commit() : mover.rollback());
        if (!commits) {
            EXPECT_EQ(before, world());
        }
    }
    EXPECT_FALSE(RunTime::exists(oldPlace()));
    for (const auto& [name, item] : tree) {
        EXPECT_TRUE(RunTime::exists(to + L"\\" + name)) << toUtf8(name);
    }
}

// In a program's text it would be the text's end.
TEST_F(MoveVHostsTest, NoQuotationMarkGetsIntoTheSettingsOfWebmail) {
    const std::wstring file = MoveVHosts::webmailFile(oldPlace());
    const std::string before = imageOf(oldPlace()).at(file.substr(oldPlace().size() + 1)).content;
    MoveVHosts mover;
    std::wstring told;
    const Hook hook = mover.errorEvent.hook([&](const std::wstring& text) { told += text; });
    const std::wstring to = newPlace() + L"'s";
    EXPECT_FALSE(mover.move(to));
    EXPECT_NE(told.find(MoveVHosts::webmailFile(to)), told.npos) << toUtf8(told);
    EXPECT_EQ(before, imageOf(to).at(file.substr(oldPlace().size() + 1)).content);
    mover.rollback();
}

// The same directory by another name: what names it is brought up to date, and nothing is moved.
TEST_F(MoveVHostsTest, LeavesTheFilesAloneWhenOnlyTheNameDiffers) {
    const TreeImage before = imageOf(oldPlace());
    std::wstring shouted = oldPlace();
    ::CharUpperW(shouted.data());
    MoveVHosts mover;
    EXPECT_FALSE(mover.move(shouted));
    EXPECT_FALSE(mover.commit());
    TreeImage after = imageOf(oldPlace());
    after[L"Servers\\users.txt"] = before.at(L"Servers\\users.txt"); // by the panel's script
    after[L"Servers"] = before.at(L"Servers");
    EXPECT_TRUE(sameTree(before, after));
}

} // namespace
