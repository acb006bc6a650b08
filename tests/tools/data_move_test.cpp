#include "tools/zopctl/data_move_command.h"

#include "runtime/interprocess_lock.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/tools/pressing_clock.h"
#include "tests/tools/recording_console.h"

#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace zopctl {

namespace {

class DataMoveTest : public ::testing::Test {
protected:
    DataMoveTest() { makeTree(); }

    void makeTree() {
        TreeBuilder(directory_ / L"data")
            .directory(L"empty")
            .file(L"one.txt", "one")
            .file(L"sub\\\u00E4\u65E5.txt", sampleBytes(100'000))
            .file(L"sub\\deep\\two.txt", "two", FILE_ATTRIBUTE_READONLY);
    }

    ExitCode move(std::vector<std::wstring> options, const wchar_t* target = L"new",
                  bool isConsole = false, bool answer = false) {
        console_ = std::make_unique<RecordingConsole>(isConsole);
        console_->answer = answer;
        options.insert(options.begin(),
                       {directory_.nice() + L"\\data", directory_.nice() + L"\\" + target});
        return runDataMove(options, *console_);
    }

    TreeImage image(const wchar_t* name = L"") {
        ImageOptions options;
        options.directoryTimes = *name != 0; // those of the directory around change
        return imageOf(*name ? directory_ / name : directory_.path(), options);
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
    nlohmann::json result() const { return object("result"); }

    TempDirectory directory_;
    std::unique_ptr<RecordingConsole> console_;
};

} // namespace

TEST_F(DataMoveTest, MovesByRenameAndByVerifiedCopyAndTheNumbersAddUp) {
    for (const bool copies : {false, true}) {
        const TreeImage before = image(L"data");
        std::vector<std::wstring> options{L"--yes", L"--json"};
        if (copies) {
            options.insert(options.end(), {L"--copy", L"--verify"});
        }
        EXPECT_EQ(move(options, copies ? L"copied" : L"renamed"), ExitCode::Success)
            << console_->output;
        const TreeImage after = image(copies ? L"copied" : L"renamed");
        EXPECT_TRUE(sameTree(before, after));
        EXPECT_FALSE(directory_.has(L"data"));
        const nlohmann::json end = result();
        EXPECT_EQ(end["status"], "moved");
        EXPECT_EQ(end["exitCode"], 0);
        EXPECT_EQ(end["renamed"], !copies);
        EXPECT_EQ(end["verified"], copies);
        EXPECT_EQ(end["files"], 3);
        EXPECT_EQ(end["directories"], 3);
        EXPECT_EQ(end["bytes"], 100'006);
        const std::vector<nlohmann::json> all = console_->objects();
        EXPECT_EQ(all.front()["event"], "start");
        EXPECT_EQ(all.back()["event"], "result");
        makeTree();
    }
}

TEST_F(DataMoveTest, ADryRunChangesNothingAndSaysWhatWouldBeDone) {
    const TreeImage before = image();
    EXPECT_EQ(move({L"--dry-run", L"--copy"}), ExitCode::Success);
    EXPECT_TRUE(sameTree(before, image()));
    EXPECT_NE(console_->output.find("Copy   \""), std::string::npos) << console_->output;
    EXPECT_NE(console_->output.find("3 files, 3 directories, 98 KB"), std::string::npos);
    EXPECT_NE(console_->output.find("Nothing has been changed"), std::string::npos);
}

TEST_F(DataMoveTest, AsksOnceNamesTheConsequencesAndTakesNoForNo) {
    const TreeImage before = image();
    EXPECT_EQ(move({}), ExitCode::Refused) << "nobody to ask";
    EXPECT_NE(console_->output.find("--yes"), std::string::npos) << console_->output;
    EXPECT_EQ(move({L"--json"}, L"new", true, true), ExitCode::Refused) << "only a program to ask";
    EXPECT_EQ(move({L"--copy"}, L"new", true, false), ExitCode::Cancelled);
    EXPECT_TRUE(sameTree(before, image()));
    ASSERT_EQ(console_->questions.size(), 1U);
    EXPECT_NE(console_->questions[0].find("old directory is removed"), std::string::npos);
    directory_.writeFile(L"full\\other.txt");
    EXPECT_EQ(move({}, L"full", true, false), ExitCode::Cancelled);
    EXPECT_NE(console_->questions[0].find("holds something already"), std::string::npos);
    EXPECT_EQ(move({L"--yes"}, L"new", true, false), ExitCode::Success);
    EXPECT_TRUE(console_->questions.empty());
}

TEST_F(DataMoveTest, AnItemThatFailsRollsBackOrIsLeftBehind) {
    const TreeImage before = image();
    {
        FaultPoint fault("BackupRead");
        fault.failAt = 0;
        fault.failOnwards = true;
        FaultPoint plain("ReadFile");
        plain.failAt = 0;
        plain.code = ERROR_CRC;
        EXPECT_EQ(move({L"--yes", L"--copy", L"--json"}), ExitCode::Failed) << console_->output;
    }
    EXPECT_TRUE(sameTree(before, image()));
    EXPECT_EQ(result()["status"], "failed");
    {
        FaultPoint plain("ReadFile");
        plain.failAt = 0;
        plain.code = ERROR_CRC;
        EXPECT_EQ(move({L"--yes", L"--copy", L"--json", L"--keep-going"}),
                  ExitCode::DoneWithRemainder)
            << console_->output;
    }
    const nlohmann::json end = result();
    ASSERT_EQ(end["failed"].size(), 1U);
    EXPECT_NE(end["failed"][0]["message"].get<std::string>().find("(Error code 23)"),
              std::string::npos);
    const std::wstring left = toWide(end["failed"][0]["path"].get<std::string>());
    EXPECT_NE(::GetFileAttributesW(left.c_str()), INVALID_FILE_ATTRIBUTES) << "it is kept";
    EXPECT_EQ(end["files"], 2);
}

TEST_F(DataMoveTest, ACopyThatDiffersIsRolledBack) {
    const TreeImage before = image();
    // Bytes are spoiled on the way to the disk, without an error.
    static decltype(&::WriteFile) realWrite;
    ImportPatch patch(
        "WriteFile",
        +[](HANDLE file, LPCVOID data, DWORD size, LPDWORD written,
            LPOVERLAPPED overlapped) -> BOOL {
            std::string spoiled(static_cast<const char*>(data), size);
            if (size == 100'000) {
                spoiled[4711] ^= 1;
            }
            return realWrite(file, spoiled.data(), size, written, overlapped);
        });
    realWrite = patch.original<decltype(&::WriteFile)>();
    EXPECT_EQ(move({L"--yes", L"--copy", L"--json", L"--verify"}), ExitCode::Failed);
    EXPECT_TRUE(sameTree(before, image()));
    const nlohmann::json difference = object("difference");
    EXPECT_EQ(difference["kind"], "contents");
    EXPECT_EQ(difference["detail"], "first difference at byte 4711");
}

TEST_F(DataMoveTest, AnOldDirectoryThatStaysIsNotCalledGone) {
    EXPECT_EQ(move({L"--yes", L"--json", L"--copy"}, L"data2"), ExitCode::DoneWithRemainder);
    EXPECT_EQ(result()["status"], "moved-with-remainder");
    EXPECT_EQ(toWide(result()["leftBehind"][0].get<std::string>()), directory_.nice() + L"\\data");
    EXPECT_TRUE(sameTree(image(L"data"), image(L"data2")));
    // A removal that the system reports, and that does not happen.
    ImportPatch handle(
        "SetFileInformationByHandle",
        +[](HANDLE, FILE_INFO_BY_HANDLE_CLASS, LPVOID, DWORD) -> BOOL { return TRUE; });
    const ImportPatch file(
        "DeleteFileW", +[](LPCWSTR) -> BOOL { return TRUE; });
    const ImportPatch directory(
        "RemoveDirectoryW", +[](LPCWSTR) -> BOOL { return TRUE; });
    EXPECT_EQ(move({L"--yes", L"--json", L"--copy"}, L"third"), ExitCode::DoneWithRemainder)
        << console_->output;
    EXPECT_FALSE(result()["leftBehind"].empty());
}

TEST_F(DataMoveTest, ASecondMoveAtTheSameTimeIsRefused) {
    std::promise<void> held;
    std::promise<void> done;
    std::thread other([&] {
        RunTime::InterprocessLock lock(L"Global\\zopctl-data-move");
        lock.lock(L"");
        held.set_value();
        done.get_future().wait();
    });
    held.get_future().wait();
    const ExitCode code = move({L"--yes"}, L"second");
    done.set_value();
    other.join();
    EXPECT_EQ(code, ExitCode::Refused);
    EXPECT_NE(console_->errors.find("Another move is running"), std::string::npos);
    EXPECT_FALSE(directory_.has(L"second"));
}

TEST_F(DataMoveTest, ARenameThatIsBlockedNamesWhatIsOpen) {
    const RunTime::AutoHandle held(::CreateFileW((directory_ / L"data\\sub\\deep\\two.txt").c_str(),
                                                 GENERIC_READ, FILE_SHARE_READ, nullptr,
                                                 OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(held);
    FaultPoint blocked("MoveFileExW"); // this system renames even so
    blocked.failAt = 0;
    blocked.failOnwards = true;
    const TreeImage before = image();
    EXPECT_EQ(move({L"--yes", L"--json"}), ExitCode::Failed) << console_->output;
    blocked.failAt = -1;
    EXPECT_TRUE(sameTree(before, image()));
    const nlohmann::json advice = result()["advice"];
    ASSERT_EQ(advice.size(), 2U) << advice;
    EXPECT_NE(advice[1].get<std::string>().find("data\\sub\\deep\\two.txt"), std::string::npos);
}

// Whenever Ctrl+C comes, the tree is whole in one place and nothing is in the other.
TEST_F(DataMoveTest, CtrlCAtAnyMomentLeavesOneWholeTree) {
    PressingClock clock;
    for (const bool copies : {false, true}) {
        std::vector<std::wstring> options{L"--yes", L"--json"};
        if (copies) {
            options.insert(options.end(), {L"--copy", L"--verify"});
        }
        const TreeImage before = image(L"data");
        int cancelled = 0;
        for (long pressAt = 1;; ++pressAt) {
            SCOPED_TRACE("pressed at " + std::to_string(pressAt));
            clock.pressAt(pressAt);
            const ExitCode code = move(options);
            const bool pressed = clock.wasPressed();
            if (code == ExitCode::Cancelled) {
                ++cancelled;
                EXPECT_TRUE(sameTree(before, image(L"data")));
                EXPECT_FALSE(directory_.has(L"new"));
            } else {
                ASSERT_EQ(code, ExitCode::Success) << console_->output;
                EXPECT_TRUE(sameTree(before, image(L"new")));
                EXPECT_FALSE(directory_.has(L"data"));
                ASSERT_TRUE(::MoveFileExW((directory_ / L"new").c_str(),
                                          (directory_ / L"data").c_str(), 0));
            }
            if (!pressed || ::testing::Test::HasFailure()) {
                break;
            }
        }
        EXPECT_GT(cancelled, copies ? 10 : 3);
    }
}

} // namespace zopctl
