#include "runtime/process/execute.h"

#include "runtime/auto_handle.h"
#include "runtime/files/path.h"
#include "runtime/thread_cancelation.h"
#include "tests/support/child_program.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/process_counters.h"
#include "tests/support/temp_directory.h"

#include <random>
#include <sstream>
#include <thread>

namespace {

using RunTime::AutoHandle;
using RunTime::Execute;

Execute child(std::vector<std::wstring> words) {
    return Execute(childProgram(), childWords(std::move(words)));
}

Execute::Result runChild(const Execute& program) {
    return startingAgain([&] { return program.run(); });
}

std::wstring outputOf(std::vector<std::wstring> words) {
    const Execute::Result result = runChild(child(std::move(words)));
    EXPECT_EQ(result.exitStatus, 0U);
    EXPECT_EQ(result.errors, L"");
    return result.output;
}

// A file that a grandchild keeps open, and the events between it and the test.
class Held {
public:
    AutoHandle ready{::CreateEventW(nullptr, TRUE, FALSE, name().c_str())};
    AutoHandle end{::CreateEventW(nullptr, TRUE, FALSE, (name() + L"-end").c_str())};

    std::vector<std::wstring> words(const wchar_t* what) const {
        return {what, directory_ / L"held", name()};
    }
    bool isHeld() const {
        return !::DeleteFileW((directory_ / L"held").c_str()) &&
               ::GetLastError() == ERROR_SHARING_VIOLATION;
    }
    bool wasReady() const { return ::WaitForSingleObject(ready.get(), 0) == WAIT_OBJECT_0; }

private:
    static std::wstring name() { return L"zop-held-" + std::to_wstring(::GetCurrentProcessId()); }
    TempDirectory directory_;
};

} // namespace

TEST(ExecuteArgumentsTest, RandomArgumentsComeBackExactlyFromTwoParsers) {
    std::mt19937 random(20);
    const std::wstring alphabet = L"\\\\\\\"\" \t\n%^&|<>*?'a/-=\x00E4\x65E5";
    for (int round = 0; round < 10; ++round) {
        std::vector<std::wstring> words{L"args", L"", L"\\", L"\"", L"a b\\", L"%PATH%", L"*.*"};
        while (words.size() < 40) {
            std::wstring word(random() % 12, L'\0');
            for (wchar_t& c : word) {
                c = alphabet[random() % alphabet.size()];
            }
            words.push_back(random() % 8 == 0 ? word + L"\xD83D\xDE00" : word);
        }
        std::wstring expected;
        for (std::size_t i = 1; i < words.size(); ++i) {
            expected += codeUnits(words[i]) + L"\n";
        }
        EXPECT_EQ(toUtf8(outputOf(words)), toUtf8(expected + L"end"));
    }
}

TEST(ExecuteArgumentsTest, WhatCannotBePassedOnExactlyIsRefused) {
    outputOf({L"args", std::wstring(16'000, L'"')});
    const std::wstring unable = L"Unable to execute (" + childProgram() + L"): ";
    expectError<vosexception>(ERROR_FILENAME_EXCED_RANGE, unable + L"its arguments are too long",
                              [] {
                                  outputOf({L"args", std::wstring(16'400, L'"')});
                              });
    expectError<vosexception>(ERROR_INVALID_PARAMETER,
                              unable + L"a zero character is in its arguments", [] {
                                  outputOf({L"args", std::wstring(L"a\0b", 3)});
                              });
    Execute hasty = child({L"args"});
    hasty.timeout = std::chrono::milliseconds(-1);
    expectError<ArgumentException>(unable + L"a time-out is not negative", [&] { hasty.run(); });
}

TEST(ExecuteProgramTest, OnlyAWholePathOfAnExeFileIsStarted) {
    const TempDirectory directory;
    const std::wstring batch = directory.writeFile(L"batch.cmd", "@echo ran");
    const std::wstring text = directory.writeFile(L"text.exe", "no program");
    const std::wstring own = childProgram();
    const std::wstring name = RunTime::lastName(own);
    wchar_t before[MAX_PATH];
    ::GetCurrentDirectoryW(MAX_PATH, before);
    ASSERT_TRUE(::SetCurrentDirectoryW(RunTime::parentPath(own).c_str()));
    const std::wstring whole = L": the whole path is needed";
    const std::pair<std::wstring, std::wstring> refused[] = {
        {name, whole},
        {L".\\" + name, whole},
        {own.substr(0, 2) + name, whole}, // "C:name": in the drive's current directory
        {own.substr(2), whole},
        {L"", whole},
        {batch, L": it is no .exe file"},
        {directory.nice() + L"\\batch.cmd.", L": it is no .exe file"},
        {own + L"\" x.exe", L": it is no .exe file"},
    };
    for (const auto& [program, reason] : refused) {
        expectError<vosexception>(ERROR_INVALID_PARAMETER,
                                  L"Unable to execute (" + RunTime::nicePath(program) + L")" +
                                      reason,
                                  [&] { Execute(program, childWords({L"args"})).run(); });
    }
    ::SetCurrentDirectoryW(before);
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND,
                                        L"Unable to execute (" + directory.nice() + L"\\none.exe)",
                                        [&] { Execute(directory / L"none.exe", {}).run(); });
    expectError<vosexception>(ERROR_BAD_EXE_FORMAT,
                              L"Unable to execute (" + directory.nice() + L"\\text.exe)",
                              [&] { Execute(text, {}).run(); });
}

TEST(ExecuteProgramTest, TheDirectoryIsTheProgramsOwnOrTheGivenOne) {
    const TempDirectory directory;
    EXPECT_EQ(outputOf({L"directory"}), RunTime::parentPath(childProgram()));
    Execute elsewhere = child({L"directory"});
    elsewhere.directory = directory.path();
    EXPECT_EQ(runChild(elsewhere).output, directory.nice());
    elsewhere.directory = L"relative";
    EXPECT_THROW(elsewhere.run(), vosexception);
}

TEST(ExecuteOutputTest, MegabytesOnBothStreamsArriveWholeOrCutAtTheLimit) {
    Execute program = child({L"print", L"800"});
    const Execute::Result all = runChild(program);
    const std::size_t size = 800 * 4096;
    EXPECT_TRUE(all.output == std::wstring(size, L'o'));
    EXPECT_TRUE(all.errors == std::wstring(size, L'e'));
    EXPECT_FALSE(all.truncated);

    program.outputLimit = 100'000;
    const Execute::Result cut = runChild(program);
    EXPECT_EQ(cut.exitStatus, 0U) << "it was stopped by a full pipe";
    EXPECT_TRUE(cut.output == std::wstring(100'000, L'o'));
    EXPECT_TRUE(cut.errors == std::wstring(100'000, L'e'));
    EXPECT_TRUE(cut.truncated);

    program = child({L"print", L"10"});
    program.mergeErrors = true;
    const Execute::Result merged = runChild(program);
    ASSERT_EQ(merged.output.size(), 20 * 4096U);
    EXPECT_EQ(merged.errors, L"");
    for (std::size_t piece = 0; piece < 20; ++piece) {
        EXPECT_EQ(merged.output[piece * 4096], piece % 2 == 0 ? L'o' : L'e');
    }
}

TEST(ExecuteOutputTest, BytesAreUtf8OrElseOfTheConsole) {
    wchar_t oem[2];
    ASSERT_EQ(::MultiByteToWideChar(CP_OEMCP, 0, "\x81\xE0", 2, oem, 2), 2);
    struct Case {
        const wchar_t* bytes;
        std::size_t limit;
        std::wstring text;
        bool truncated;
    };
    const Case cases[] = {
        {L"", 10, L"", false},
        {L"EFBBBF41000D0A", 10, std::wstring(L"A\0\r\n", 4), false},
        {L"E697A5F09F9880", 7, L"\x65E5\xD83D\xDE00", false},
        {L"E697A5F09F9880", 6, L"\x65E5", true},
        {L"E697A5F09F9880", 2, L"", true},
        {L"41E697A5", 1, L"A", true},
        {L"81E0", 10, std::wstring(oem, 2), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(toUtf8(c.bytes) + " cut to " + std::to_string(c.limit));
        Execute program = child({L"bytes", c.bytes});
        program.outputLimit = c.limit;
        const Execute::Result result = runChild(program);
        EXPECT_EQ(codeUnits(result.output), codeUnits(c.text));
        EXPECT_EQ(result.truncated, c.truncated);
    }
}

TEST(ExecuteInputTest, AProgramReadsWhatIsGivenAndThenTheEnd) {
    Execute program = child({L"echo"});
    EXPECT_EQ(runChild(program).output, L"");
    program.input.assign(300'000, 'x');
    program.input.back() = 'y';
    EXPECT_EQ(toUtf8(runChild(program).output), program.input);
    // A program that does not read its input is no failure.
    program = child({L"exit", L"4294967295", L"out", L"err"});
    program.input.assign(300'000, 'x');
    const Execute::Result result = runChild(program);
    EXPECT_EQ(result.exitStatus, 0xFFFFFFFF);
    EXPECT_EQ(result.output, L"out");
    EXPECT_EQ(result.errors, L"err");
}

TEST(ExecuteInheritanceTest, NoHandleOfOursReachesTheProgram) {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    std::vector<AutoHandle> events; // several: the child may have one number in use itself
    for (int i = 0; i < 5; ++i) {
        events.emplace_back(::CreateEventW(&inherit, TRUE, FALSE, nullptr));
        outputOf({L"signal", std::to_wstring(reinterpret_cast<std::uintptr_t>(events[i].get()))});
        EXPECT_EQ(::WaitForSingleObject(events[i].get(), 0), static_cast<DWORD>(WAIT_TIMEOUT));
    }
}

// The grandchild holds a file: it can be deleted as soon as run() has thrown.
TEST(ExecuteEndTest, TimeOutAndCancellationEndAllThatWasStarted) {
    bool wasReady = false;
    for (int seconds = 3; !wasReady && seconds < 100; seconds *= 4) { // for the grandchild to start
        const Held held;
        Execute slow = child(held.words(L"parent"));
        slow.timeout = std::chrono::seconds(seconds);
        expectError<vosexception>(ERROR_TIMEOUT,
                                  L"Unable to execute (" + childProgram() + L"): it takes too long",
                                  [&] { slow.run(); });
        wasReady = held.wasReady();
        EXPECT_FALSE(held.isHeld());
    }
    EXPECT_TRUE(wasReady);
    const Held held;
    const DWORD self = ::GetCurrentThreadId();
    std::thread canceller([&] {
        ::WaitForSingleObject(held.ready.get(), 30'000);
        ThreadCancelation::request(self);
    });
    {
        const ThreadCancelation::CancelationPoint cancellable;
        expectError<CanceledException>(L"Canceled!", [&] { child(held.words(L"parent")).run(); });
    }
    canceller.join();
    EXPECT_FALSE(held.isHeld());
}

TEST(ExecuteEndTest, WhatAProgramLeavesRunningLivesOnAndIsNotWaitedFor) {
    const Held held;
    const std::wstring id = outputOf(held.words(L"leave"));
    EXPECT_TRUE(held.isHeld());
    const AutoHandle process(::OpenProcess(SYNCHRONIZE, FALSE, std::stoul(id)));
    ::SetEvent(held.end.get());
    EXPECT_EQ(::WaitForSingleObject(process.get(), 30'000), static_cast<DWORD>(WAIT_OBJECT_0));
}

// Whichever call fails, the error comes out and nothing stays: no process, no handle, no memory.
TEST(ExecuteFaultTest, AFailingCallIsReportedAndLeavesNothing) {
    Execute program = child({L"echo"});
    program.input = "x";
    runChild(program);
    // A call that succeeds may leave any last error behind.
    static decltype(&::CreateIoCompletionPort) realPort;
    const ImportPatch port(
        "CreateIoCompletionPort", +[](HANDLE file, HANDLE known, ULONG_PTR key, DWORD threads) {
            const HANDLE made = realPort(file, known, key, threads);
            ::SetLastError(ERROR_SUCCESS);
            return made;
        });
    realPort = port.original<decltype(realPort)>();
    static decltype(&::CreateProcessW) realCreate;
    static DWORD started;
    const ImportPatch create(
        "CreateProcessW",
        +[](const wchar_t* path, wchar_t* line, SECURITY_ATTRIBUTES* process,
            SECURITY_ATTRIBUTES* thread, BOOL inherit, DWORD flags, void* block,
            const wchar_t* directory, STARTUPINFOW* startup, PROCESS_INFORMATION* created) {
            const BOOL done = realCreate(path, line, process, thread, inherit, flags, block,
                                         directory, startup, created);
            started = created->dwProcessId;
            return done;
        });
    realCreate = create.original<decltype(realCreate)>();
    for (const char* name :
         {"CreateEventW", "CreateNamedPipeW", "CreateFileW", "CreateJobObjectW",
          "CreateIoCompletionPort", "SetInformationJobObject", "UpdateProcThreadAttribute",
          "CreateProcessW", "AssignProcessToJobObject", "ResumeThread", "WaitForMultipleObjects",
          "GetExitCodeProcess", "ReadFile", "WriteFile"}) {
        SCOPED_TRACE(name);
        const ProcessCounters before = ProcessCounters::now();
        {
            started = 0;
            FaultPoint fault(name);
            fault.code = ERROR_NOT_ENOUGH_MEMORY;
            const std::string_view call = name;
            fault.result = call == "CreateNamedPipeW" || call == "CreateFileW" ||
                                   call == "ResumeThread" || call == "WaitForMultipleObjects"
                               ? ~std::uintptr_t{0}
                               : 0;
            fault.failAt = 0;
            try {
                program.run();
                ADD_FAILURE() << "nothing was thrown";
            } catch (const vosexception& e) {
                EXPECT_EQ(e.get_errorCode(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
            }
            EXPECT_TRUE(fault.fired());
            const AutoHandle left(::OpenProcess(SYNCHRONIZE, FALSE, started));
            EXPECT_TRUE(!left || ::WaitForSingleObject(left.get(), 60'000) == WAIT_OBJECT_0);
        }
        const ProcessCounters after = ProcessCounters::now();
        EXPECT_EQ(after.handles, before.handles);
        EXPECT_EQ(after.blocks, before.blocks);
    }
}
