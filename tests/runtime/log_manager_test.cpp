#include "runtime/log_manager.h"

#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"

#include <algorithm>
#include <regex>
#include <thread>

namespace {

std::vector<std::wstring> debugLines;
std::vector<std::pair<WORD, std::wstring>> events;

void WINAPI takeDebugLine(const wchar_t* text) {
    debugLines.emplace_back(text);
}

BOOL WINAPI takeEvent(HANDLE, WORD type, WORD, DWORD, PSID, WORD count, DWORD,
                      const wchar_t** strings, void*) {
    events.emplace_back(type, count == 1 ? strings[0] : L"?");
    return TRUE;
}

class LogManagerTest : public testing::Test {
protected:
    LogManagerTest() {
        debugLines.clear();
        events.clear();
        log.openFile(directory.nice() + L"\\log");
    }
    ~LogManagerTest() override { log.closeFile(); }

    std::string fileText() const { return directory.readFile(L"log"); }

    LogManager& log = LogManager::getInstance();
    TempDirectory directory;
    ImportPatch debugOutput{"OutputDebugStringW", &takeDebugLine};
    ImportPatch eventLog{"ReportEventW", &takeEvent};
};

} // namespace

TEST_F(LogManagerTest, EachTypeGoesToTheOutputsThatAreOnForIt) {
    log.setEnabled(LogOutput::DebugOutput, LogType::Error, false);
    log.vAddLog(LogType::Error, L"e");
    log.setEnabled(LogOutput::DebugOutput, LogType::Error, true);
    log.vAddLog(LogType::Warning, L"w");
    log.vAddLog(LogType::Information, L"i");
    log.vAddLog(LogType::Debug, L"d");
    EXPECT_EQ((std::vector<std::wstring>{L"w\n", L"i\n"}), debugLines);
    EXPECT_EQ((std::vector<std::pair<WORD, std::wstring>>{{EVENTLOG_ERROR_TYPE, L"e"},
                                                          {EVENTLOG_WARNING_TYPE, L"w"}}),
              events);
    const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \d+\.\d+ )";
    EXPECT_TRUE(std::regex_match(fileText(),
                                 std::regex(stamp + "error: e\r\n" + stamp + "warning: w\r\n" +
                                            stamp + "information: i\r\n" + stamp + "debug: d\r\n")))
        << fileText();
}

TEST_F(LogManagerTest, MessageCannotForgeALine) {
    log.vAddLog(LogType::Error, L"a\r\n2026 error: forged\t\x1b[2J\x85\x2028\x202E\u4e2d\\n");
    const std::string text = fileText();
    EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n'));
    const std::wstring escaped =
        L"a\\r\\n2026 error: forged\\t\\u001b[2J\\u0085\\u2028\\u202e\u4e2d\\n";
    EXPECT_NE(std::string::npos, text.find(toUtf8(escaped)));
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(escaped, events[0].second);
    EXPECT_EQ(escaped + L"\n", debugLines.at(0));
}

TEST_F(LogManagerTest, FileIsSharedAppendedAndKeptUntilAnotherIsOpen) {
    log.vAddLog(LogType::Error, L"one");
    log.openFile(directory / L"log"); // a second opening, as another process would do
    log.vAddLog(LogType::Error, L"two");
    EXPECT_TRUE(::MoveFileExW((directory / L"log").c_str(), (directory / L"old").c_str(), 0));
    expectError<VPathNotFoundException>(ERROR_PATH_NOT_FOUND,
                                        L"Unable to open the log file (C:\\none\\log.txt)",
                                        [&] { log.openFile(L"C:\\none\\log.txt"); });
    log.vAddLog(LogType::Error, L"three"); // to the same file, under its new name
    log.closeFile();
    log.vAddLog(LogType::Error, L"four");
    const std::string text = directory.readFile(L"old");
    EXPECT_LT(text.find(": one"), text.find(": two"));
    EXPECT_LT(text.find(": two"), text.find(": three"));
    EXPECT_TRUE(text.ends_with(": three\r\n")) << text;
}

TEST_F(LogManagerTest, ListenersHearEveryLineUntilTheirRegistrationGoes) {
    std::vector<std::pair<LogType, std::wstring>> lines;
    const auto keep = [&](LogType type, const std::wstring& text) {
        lines.emplace_back(type, text);
    };
    const auto kept = log.addListener(keep);
    {
        const auto passing = log.addListener(keep);
        log.vAddLog(LogType::Debug, L"a\nb");
    }
    log.vAddLog(LogType::Error, L"c");
    const std::pair debug(LogType::Debug, std::wstring(L"a\nb"));
    EXPECT_EQ(lines, (std::vector{debug, debug, {LogType::Error, L"c"}}));
}

TEST_F(LogManagerTest, FailingOutputsAndListenersHarmNobody) {
    FaultPoint fault("WriteFile");
    fault.failAt = 0;
    fault.code = ERROR_DISK_FULL;
    int heard = 0;
    const auto faulty = log.addListener([](LogType, const std::wstring&) { throw 1; });
    LogManager::Registration leaver;
    leaver = log.addListener([&](LogType, const std::wstring& m) {
        ++heard;
        log.vAddLog(LogType::Error, L"from a listener: " + m); // must not come round again
        leaver.unregister();
    });
    const auto last = log.addListener([&](LogType, const std::wstring&) { ++heard; });
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    log.vAddLog(LogType::Error, L"x");
    EXPECT_EQ(DWORD{ERROR_FILE_NOT_FOUND}, ::GetLastError());
    EXPECT_EQ(2, heard);
    EXPECT_EQ(2u, events.size());
    log.vAddLog(LogType::Error, L"y");
    EXPECT_EQ(3, heard) << "the one that left hears no more";
}

TEST_F(LogManagerTest, ThreadsMayLogWhileListenersComeAndGo) {
    std::atomic<int> heard{0};
    const auto counter = log.addListener([&](LogType, const std::wstring&) { ++heard; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                auto alive = std::make_shared<std::atomic<bool>>(true);
                {
                    const auto passing =
                        log.addListener([state = alive.get()](LogType, const std::wstring&) {
                            EXPECT_TRUE(*state) << "called after its registration went";
                        });
                    log.vAddLog(LogType::Debug, L"line");
                }
                *alive = false;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(400, heard);
    const std::string text = fileText();
    EXPECT_EQ(400, std::count(text.begin(), text.end(), '\n'));
}
