#include "tools/zopctl/vhosts_move_command.h"

#include "runtime/files/file.h"
#include "tests/relocation/vhosts/move_vhosts_fixture.h"
#include "tests/support/ntfs_fake.h"
#include "tests/tools/recording_console.h"
#include "tools/zopctl/vhosts_move_arguments.h"
#include "tools/zopctl/vhosts_recover_command.h"

#include <algorithm>
#include <winioctl.h> // after windows.h

namespace zopctl {

namespace {

class VHostsMoveTest : public MoveVHostsFixture {
protected:
    ExitCode move(const std::vector<std::wstring>& options, const std::wstring& target,
                  bool isConsole = false) {
        console_ = std::make_unique<RecordingConsole>(isConsole);

        std::vector<std::wstring> words{target};
        words.insert(words.end(), options.begin(), options.end());
        return runVHostsMove(words, *console_);
    }

    nlohmann::json object(const char* event) const {
        for (const nlohmann::json& each : console_->objects()) {
            if (each["event"] == event) {
                return each;
            }
        }
        ADD_FAILURE() << "no " << event << " in " << console_->output;
        return {};
    }

    bool shows(const std::string& text) const {
        return (console_->output + console_->errors).find(text) != std::string::npos;
    }

    panel::InProcess utilities_;
    std::unique_ptr<RecordingConsole> console_;
};

// Ctrl+C at a look at the clock.
PHANDLER_ROUTINE ctrlHandler;
BOOL WINAPI keepHandler(PHANDLER_ROUTINE handler, BOOL add) {
    ctrlHandler = add ? handler : nullptr;
    return TRUE;
}
long pressAt;
long looks;
decltype(&::GetTickCount64) realTickCount;
ULONGLONG WINAPI pressingTickCount() {
    if (ctrlHandler != nullptr && ++looks == pressAt) {
        ctrlHandler(CTRL_C_EVENT);
    }
    return realTickCount();
}
// Or while a link is being changed.
bool pressAtLink;
decltype(&::DeviceIoControl) realControl;
BOOL WINAPI pressingControl(HANDLE device, DWORD code, void* in, DWORD inSize, void* out,
                            DWORD outSize, DWORD* returned, OVERLAPPED* overlapped) {
    if (code == FSCTL_SET_REPARSE_POINT && ctrlHandler != nullptr && pressAtLink) {
        pressAtLink = false;
        ctrlHandler(CTRL_C_EVENT);
    }
    return realControl(device, code, in, inSize, out, outSize, returned, overlapped);
}

} // namespace

TEST_F(VHostsMoveTest, MovesEverythingVerifiesItAndTheNumbersAgree) {
    const std::string before = world({otherVolume()});
    ASSERT_EQ(move({L"--dry-run", L"--json"}, otherVolume()), ExitCode::Success)
        << console_->output;
    EXPECT_EQ(before, world({otherVolume()}));
    const nlohmann::json planned = object("preflight");
    ASSERT_EQ(move({L"--yes", L"--json", L"--verify"}, otherVolume()), ExitCode::Success)
        << console_->output;
    const nlohmann::json end = object("result");
    EXPECT_EQ(end["status"], "moved");
    EXPECT_TRUE(end["verified"]);
    for (const char* number : {"files", "directories", "bytes", "homes", "sites", "wwwRoots",
                               "installerValues", "notCovered"}) {
        EXPECT_EQ(end[number], planned[number]) << number;
    }
    EXPECT_FALSE(RunTime::exists(oldPlace()));
    // What names the old place still is what was told before.
    ASSERT_EQ(end["notCovered"].size(), 1U);
    const std::string left = panel_.references(oldPlace());
    EXPECT_EQ(std::count(left.begin(), left.end(), '\n'), 1) << left;
    EXPECT_NE(left.find("Expandable"), std::string::npos) << left;
    // And back, by the command that the result names.
    EXPECT_EQ(end["advice"][0], "To undo: zopctl vhosts move \"" + toUtf8(oldPlace()) + "\"");
    EXPECT_EQ(move({L"--yes"}, oldPlace()), ExitCode::Success) << console_->errors;
    EXPECT_EQ("", panel_.references(otherVolume()));
    EXPECT_TRUE(shows("Step 9 of 19: Moving folders"));
}

TEST_F(VHostsMoveTest, WhateverFailsEverythingIsAsBeforeAndTheReasonIsTold) {
    struct Case {
        std::vector<panel::Words> orders; // for the utilities
        const wchar_t* option;
        ExitCode code;
        const char* says;
    };
    const Case cases[] = {
        {{{L"half", L"1", L"webhostctl.exe --update-site-paths", L"1", L"It is locked."}},
         L"--yes",
         ExitCode::Failed,
         "The move failed: It is locked. Everything is as it was before."},
        {{{L"fail", L"1", L"--remove-all", L"1", L"No FTP."}},
         L"--yes",
         ExitCode::Failed,
         "No FTP. Everything is as it was before."},
        // Nor does the rollback's first stage work, but its second one.
        {{{L"fail", L"0", L"--remove-all", L"1", L"FTP hangs."}},
         L"--yes",
         ExitCode::Failed,
         "FTP hangs. Everything is as it was before."},
        // What a step passes over is no success either.
        {{{L"fail", L"1", L"--reconfigure-aspnet-settings", L"1", L"It is read-only."}},
         L"--yes",
         ExitCode::Failed,
         "It is read-only. Everything is as it was before."},
        {{{L"fail", L"0", L"--update-site-paths", L"1", L"No IIS."}},
         L"--yes",
         ExitCode::RollbackIncomplete,
         "--update-site-paths --site-name=NAME --old-path="},
        {{}, L"--json", ExitCode::Refused, "--yes"},
    };
    const std::string before = world({otherVolume()});
    for (const Case& each : cases) {
        SCOPED_TRACE(each.says);
        panel_.store().setControl(each.orders);
        panel_.store().forgetCalls();
        EXPECT_EQ(move({each.option}, otherVolume()), each.code) << console_->errors;
        EXPECT_TRUE(shows(each.says)) << console_->errors;
        panel_.store().setControl({});
        if (each.code == ExitCode::RollbackIncomplete) { // which another program brings to its end
            EXPECT_TRUE(shows("zopctl vhosts recover")) << console_->errors;
            // Nothing else is said, such as to remove what the old place has from it.
            EXPECT_EQ(move({L"--yes", L"--json"}, oldPlace()), ExitCode::Refused);
            const nlohmann::json refused = object("preflight");
            ASSERT_EQ(refused["findings"].size(), 1U) << refused;
            EXPECT_EQ(refused["findings"][0]["code"], "interrupted-move");
            RecordingConsole console(true);
            service_.reset();
            EXPECT_EQ(runVHostsRecover({}, console), ExitCode::Refused);
            EXPECT_NE(console.errors.find("sc start zopconfigsvc"), std::string::npos);
            service_.emplace();
            EXPECT_EQ(runVHostsRecover({}, console), ExitCode::Cancelled);
            console.answer = true;
            EXPECT_EQ(runVHostsRecover({}, console), ExitCode::Success) << console.errors;
            EXPECT_EQ(console.questions.size(), 2U);
            EXPECT_EQ(runVHostsRecover({L"--json"}, console), ExitCode::Success);
            EXPECT_NE(console.output.find("\"status\":\"nothing\""), std::string::npos);
        }
        ASSERT_EQ(before, world({otherVolume()}));
    }
    EXPECT_EQ(move({}, otherVolume(), true), ExitCode::Cancelled);
    ASSERT_EQ(console_->questions.size(), 1U);
    EXPECT_TRUE(console_->questions[0].starts_with("FTP is down until the move has ended. The old"))
        << console_->questions[0];
    ASSERT_EQ(before, world({otherVolume()}));
}

TEST_F(VHostsMoveTest, AnErrorThatIsAllowedIsListedAndTheMoveIsNotCalledWhole) {
    panel_.store().setControl(
        {{L"fail", L"1", L"--reconfigure-aspnet-settings", L"1", L"It is read-only."}});
    accounts_.state.users.erase(panel_.accounts()[0].login);
    EXPECT_EQ(move({L"--yes", L"--json", L"--keep-going"}, otherVolume()),
              ExitCode::DoneWithRemainder);
    const nlohmann::json end = object("result");
    EXPECT_EQ(end["status"], "moved-with-remainder");
    ASSERT_EQ(end["failed"].size(), 2U) << end;
    EXPECT_NE(end["failed"][0]["message"].get<std::string>().find("user does not exist"),
              std::string::npos);
    EXPECT_NE(end["failed"][1]["message"].get<std::string>().find("It is read-only"),
              std::string::npos);
}

TEST_F(VHostsMoveTest, ARollbackThatFailsIsTriedAgainForWhoeverIsThere) {
    panel_.store().setControl({{L"fail", L"0", L"--update-site-paths", L"1", L"No IIS."}});

    const std::string before = world({otherVolume()});
    console_ = std::make_unique<RecordingConsole>(true);
    console_->answer = true;
    console_->onAsk = [&] {
        if (console_->questions.size() == 3) { // the start, and one attempt more
            panel_.store().setControl({});
        }
    };
    EXPECT_EQ(runVHostsMove({otherVolume()}, *console_), ExitCode::Failed) << console_->errors;
    EXPECT_EQ(console_->questions.size(), 3U);
    EXPECT_TRUE(shows("Everything is as it was before")) << console_->errors;
    EXPECT_EQ(before, world({otherVolume()}));
}

// Whenever Ctrl+C comes: either all of the old state, links included, or all of the new one.
TEST_F(VHostsMoveTest, CtrlCAtAnyMomentLeavesAllOfOneState) {
    NtfsFake().makeLink(oldPlace() + L"\\link", oldPlace(), IO_REPARSE_TAG_SYMLINK, true);
    ImportPatch handler("SetConsoleCtrlHandler", &keepHandler);
    ImportPatch clock("GetTickCount64", &pressingTickCount);
    realTickCount = clock.original<decltype(&::GetTickCount64)>();
    accounts_.state.users.clear(); // nothing is copied ahead, so that the tree is renamed
    const std::string before = world({newPlace()});
    int cancelled = 0;
    const auto run = [this](std::vector<std::wstring> options, const std::wstring& target) {
        const NtfsFake ntfs; // what it keeps besides links does not matter here
        const ImportPatch control("DeviceIoControl", &pressingControl);
        realControl = control.original<decltype(&::DeviceIoControl)>();
        options.insert(options.end(), {L"--yes", L"--keep-going"});
        return move(options, target);
    };
    pressAtLink = true;
    EXPECT_EQ(run({L"--relink"}, newPlace()), ExitCode::Cancelled);
    EXPECT_FALSE(pressAtLink);
    ASSERT_EQ(before, world({newPlace()}));
    for (pressAt = 1;; pressAt += 7) {
        SCOPED_TRACE("pressed at " + std::to_string(pressAt));
        looks = 0;

        const ExitCode code = run({L"--relink"}, newPlace());
        if (code != ExitCode::Cancelled) {
            ASSERT_EQ(code, ExitCode::DoneWithRemainder) << "accounts are missing";
            break;
        }
        ++cancelled;
        ASSERT_EQ(before, world({newPlace()}));
    }
    pressAt = 0;
    EXPECT_GT(cancelled, 5);
    EXPECT_NE(world({newPlace()}).find("/store/new/vhosts\n"), std::string::npos);
    EXPECT_TRUE(shows("Links: 1 link leads to the new place now")) << console_->output;

    // Back, where the link is left alone.
    EXPECT_EQ(run({}, oldPlace()), ExitCode::DoneWithRemainder);
    EXPECT_TRUE(shows("Links: 1 link leads to the old place still")) << console_->output;
    EXPECT_NE(before.find("/vhosts\n"), std::string::npos);
    EXPECT_EQ(world().find("/vhosts\n"), std::string::npos) << "nothing is there any more";
}

TEST(VHostsMoveArgumentsTest, MistakesAreAnsweredWithWhatWasMeant) {
    const auto complaint = [](const std::vector<std::wstring>& words) {
        const Parsed<VHostsMoveOptions> parsed = parseVHostsMove(words);
        EXPECT_TRUE(parsed.isError && !parsed.options);
        return toUtf8(parsed.text.substr(0, parsed.text.find(L'\n')));
    };
    EXPECT_EQ(complaint({}), "TARGET is missing.");
    EXPECT_EQ(complaint({L"D:\\a", L"--source"}), "--source needs a value behind it.");
    EXPECT_EQ(complaint({L"D:\\a", L"--source", L""}),
              "--source is empty; leave it out to move the configured place.");
    EXPECT_EQ(complaint({L"D:\\a", L"--relnk"}),
              "There is no option \"--relnk\"; did you mean \"--relink\"?");
    const Parsed<VHostsMoveOptions> parsed =
        parseVHostsMove({L"--relink", L"D:\\a", L"--source=C:\\b", L"--keep-going"});
    ASSERT_TRUE(parsed.options) << toUtf8(parsed.text);
    EXPECT_EQ(parsed.options->source + parsed.options->target, L"C:\\bD:\\a");
    EXPECT_TRUE(parsed.options->relink && parsed.options->keepGoing);
}

} // namespace zopctl
