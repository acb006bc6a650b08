#include "tests/support/fault_sweep.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

// One call of a function of each way to fail.
void probe(std::string& log) {
    wchar_t name[MAX_PATH];
    const auto note = [&](bool failed) {
        const DWORD code = ::GetLastError();
        log += failed ? std::to_string(code) + " " : "ok ";
    };
    const HANDLE file = ::CreateFileW(L"C:\\windows\\system32\\kernel32.dll", GENERIC_READ,
                                      FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    note(file == INVALID_HANDLE_VALUE);
    if (file != INVALID_HANDLE_VALUE) {
        ::CloseHandle(file);
    }
    note(::GetTempPathW(MAX_PATH, name) == 0);
    note(::GetFileAttributesW(name) == INVALID_FILE_ATTRIBUTES);
    HKEY key = nullptr;
    const LSTATUS status = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software", 0, KEY_READ, &key);
    log += status == 0 ? "ok" : std::to_string(status);
    if (status == 0) {
        ::RegCloseKey(key);
    }
    std::thread([] { ::GetFileAttributesW(L"C:\\"); }).join();
}

// FaultSweepTest: a sweep that misses a call proves nothing about it.
TEST(FaultSweepTest, FailsEachCallOfTheFunctionInTurnAsTheFunctionFails) {
    const FaultExclusion joining({"WaitForSingleObject"}); // std::thread's own
    std::vector<std::string> logs;
    std::string hits;
    for (long n = 1; n <= 5; ++n) {
        std::string log;
        const FaultOutcome outcome = runWithFault(n, 77, [&] { probe(log); });
        EXPECT_EQ(outcome.fired, n <= 4) << outcome.text();
        logs.push_back(log);
        hits += outcome.function + "; ";
    }
    EXPECT_EQ(logs, (std::vector<std::string>{"77 ok ok ok", "ok 77 ok ok", "ok ok 77 ok",
                                              "ok ok ok 77", "ok ok ok ok"}));
    EXPECT_EQ(hits, "CreateFileW, call 1; GetTempPathW, call 1; GetFileAttributesW, call 1; "
                    "RegOpenKeyExW, call 1; ; ");
    for (const FaultMode mode : {FaultMode::Once, FaultMode::Always}) {
        std::string attempts;
        runWithFault(2, ERROR_SHARING_VIOLATION, mode, [&] {
            for (int i = 0; i < 4; ++i) {
                attempts += ::GetFileAttributesW(L"C:\\") == INVALID_FILE_ATTRIBUTES ? 'x' : '-';
            }
        });
        EXPECT_EQ(attempts, mode == FaultMode::Once ? "-x--" : "-xxx");
    }
    std::string log;
    EXPECT_EQ(countCalls([&] { probe(log); }).size(), 4U);
}

} // namespace
