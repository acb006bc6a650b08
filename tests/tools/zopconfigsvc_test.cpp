// The real program: in the foreground, and as a service of the real service manager.
#include "config/tarvo_srv_client.h"
#include "runtime/auto_handle.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "tests/support/child_program.h"
#include "tests/support/unix_call.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

constexpr wchar_t program[] = L"zopconfigsvc.exe";
constexpr wchar_t eventSource[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\zopconfigsvc";

struct ServiceHandleTraits {
    using Value = SC_HANDLE;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::CloseServiceHandle(value); }
};
using ServiceHandle = RunTime::AutoResource<ServiceHandleTraits>;

// The program uses the machine's registry: not where a panel keeps its values there.
class ZopconfigsvcTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (registry::keyExists(HKEY_LOCAL_MACHINE, config::configKey, RegistryView::View32)) {
            GTEST_SKIP() << "this machine has a configuration";
        }
        ours_ = true;
    }
    void TearDown() override {
        RunTime::AutoRegKey software;
        ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_ALL_ACCESS | KEY_WOW64_32KEY,
                        software.put());
        if (ours_) {
            ::RegDeleteTreeW(software.get(), L"Tarvo\\ZOP Config\\Config");
        }
    }
    static void set(const wchar_t* name, const std::wstring& text) {
        registry::setString(HKEY_LOCAL_MACHINE, config::configKey, name, text, RegistryView::View32,
                            registry::MissingKey::Create);
    }
    static std::wstring stored(RegistryView view) {
        std::wstring text;
        registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, L"Test", text, view);
        return text;
    }

private:
    bool ours_ = false;
};

RunTime::Execute::Result run(const std::vector<std::wstring>& words) {
    return runBeside(program, words);
}

SERVICE_STATUS_PROCESS stateOf(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS state{};
    DWORD size = 0;
    EXPECT_TRUE(::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO,
                                       reinterpret_cast<BYTE*>(&state), sizeof state, &size));
    return state;
}

} // namespace

TEST_F(ZopconfigsvcTest, WrongCommandLinesNameTheRightOnes) {
    struct Case {
        std::vector<std::wstring> words;
        DWORD exitStatus;
        const wchar_t* says;
    };
    const Case cases[] = {
        {{}, 2, L"--console or --install"},
        {{L"--instal"}, 2, L"did you mean \"--install\"?"},
        {{L"console"}, 2, L"one word too many"},
        {{L"--install", L"--remove"}, 2, L"--install and --remove contradict each other"},
        {{L"--install", L"--pipe", L"x"}, 2, L"--pipe goes with --console"},
        {{L"--console", L"--pipe", L"\\\\other\\pipe\\x"}, 4, L"Error: "},
        {{L"--remove"}, 3, L"not installed"},
    };
    for (const Case& wrong : cases) {
        const auto done = run(wrong.words);
        EXPECT_EQ(done.exitStatus, wrong.exitStatus) << toUtf8(done.errors);
        EXPECT_NE(done.errors.find(wrong.says), std::wstring::npos) << toUtf8(done.errors);
        EXPECT_EQ(done.output, L"");
    }
    EXPECT_TRUE(run({L"--version"}).output.starts_with(L"zopconfigsvc 0."));
}

TEST_F(ZopconfigsvcTest, InTheForegroundItServesUntilCtrlC) {
    if (!underWine()) {
        GTEST_SKIP() << "Ctrl+C would reach the tests as well";
    }
    const std::wstring pipe = L"zop-foreground-" + std::to_wstring(::GetCurrentProcessId());
    // Starting takes longer than a client waits for a service that is not there.
    registry::setDWORD(HKEY_LOCAL_MACHINE, config::configKey, config::name::pipeConnectTryCount, 40,
                       RegistryView::View32, registry::MissingKey::Create);
    RunTime::Execute::Result done;
    ULONGLONG start = 0;
    {
        const std::jthread service([&] { done = run({L"--console", L"--pipe", pipe}); });
        TarvoSrvClient client({.pipeName = pipe});
        client.setString(L"Test", L"hidden \u65E5");
        EXPECT_TRUE(client.getString(L"Test") == L"hidden \u65E5");
        EXPECT_TRUE(stored(RegistryView::View32) == L"hidden \u65E5");
        EXPECT_TRUE(stored(RegistryView::View64).empty());
        start = ::GetTickCount64();
        pressCtrlC(toUtf8(pipe));
    }
    EXPECT_LT(::GetTickCount64() - start, 15'000U); // 0.3 s on an idle machine
    EXPECT_EQ(done.exitStatus, 0U);
    EXPECT_EQ(done.errors, L"");
    for (const std::wstring& line :
         {L"listens on \\\\.\\pipe\\" + pipe, std::wstring(L"(Test) was set by process"),
          std::wstring(L"has stopped")}) {
        EXPECT_NE(done.output.find(line), std::wstring::npos) << toUtf8(done.output);
    }
    EXPECT_EQ(done.output.find(L"hidden"), std::wstring::npos);
}

TEST_F(ZopconfigsvcTest, AsAServiceItIsInstalledStartedStoppedAndRemoved) {
    const ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (ServiceHandle(::OpenServiceW(manager.get(), L"zopconfigsvc", SERVICE_QUERY_STATUS))) {
        GTEST_SKIP() << "this machine has the service";
    }
    const auto installed = run({L"--install"});
    EXPECT_EQ(installed.exitStatus, 0U) << toUtf8(installed.errors);
    const auto again = run({L"--install"});
    EXPECT_EQ(again.exitStatus, 3U);
    EXPECT_NE(again.errors.find(L"installed already"), std::wstring::npos);

    ServiceHandle service(
        ::OpenServiceW(manager.get(), L"zopconfigsvc",
                       SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP));
    ASSERT_TRUE(service);
    std::vector<BYTE> buffer(8192);
    DWORD size = 0;
    auto* const settings = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    ASSERT_TRUE(::QueryServiceConfigW(service.get(), settings, 8192, &size));
    const std::wstring path = besideTests(program);
    EXPECT_EQ(toUtf8(settings->lpBinaryPathName), toUtf8(L"\"" + path + L"\" --service"));
    EXPECT_EQ(settings->dwStartType, DWORD{SERVICE_AUTO_START});
    EXPECT_EQ(toUtf8(settings->lpServiceStartName), "LocalSystem");
    const std::wstring messages = registry::getstr(HKEY_LOCAL_MACHINE, eventSource,
                                                   L"EventMessageFile", RegistryView::View64);
    EXPECT_TRUE(messages.ends_with(path)) << toUtf8(messages);

    // A start that fails is told to the manager. Wine's may miss that it was a start at all.
    set(config::name::pipeName, L"\\\\other\\pipe\\x");
    ::StartServiceW(service.get(), 0, nullptr);
    if (const DWORD id = stateOf(service.get()).dwProcessId) {
        const RunTime::AutoHandle process(::OpenProcess(SYNCHRONIZE, FALSE, id));
        ::WaitForSingleObject(process.get(), 60'000);
    }
    EXPECT_EQ(stateOf(service.get()).dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(stateOf(service.get()).dwWin32ExitCode, DWORD{ERROR_INTERNAL_ERROR});

    const std::wstring name = L"zop-service-" + std::to_wstring(::GetCurrentProcessId());
    set(config::name::pipeName, name);
    EXPECT_TRUE(::StartServiceW(service.get(), 0, nullptr)) << ::GetLastError();
    TarvoSrvClient({.pipeName = name}).setString(L"Test", L"from the service");
    EXPECT_TRUE(stored(RegistryView::View32) == L"from the service");
    EXPECT_EQ(stateOf(service.get()).dwCurrentState, DWORD{SERVICE_RUNNING});
    service.reset();
    const auto removed = run({L"--remove"}); // while it runs
    EXPECT_EQ(removed.exitStatus, 0U) << toUtf8(removed.errors);
    EXPECT_FALSE(::WaitNamedPipeW((L"\\\\.\\pipe\\" + name).c_str(), 1)) << "it still runs";
    EXPECT_FALSE(ServiceHandle(::OpenServiceW(manager.get(), L"zopconfigsvc", SERVICE_START)));
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    EXPECT_FALSE(registry::keyExists(HKEY_LOCAL_MACHINE, eventSource, RegistryView::View64));
}

TEST_F(ZopconfigsvcTest, TheEventLogFindsTheTextOfAnEventInTheProgram) {
    const HMODULE module =
        ::LoadLibraryExW(besideTests(program).c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_NE(module, nullptr);
    wchar_t text[100];
    DWORD_PTR words[] = {reinterpret_cast<DWORD_PTR>(L"what was logged")};
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module, 0, 0,
                         text, 100, reinterpret_cast<va_list*>(words));
    EXPECT_EQ(toUtf8(std::wstring(text, length)), "what was logged\r\n");
    ::FreeLibrary(module);
}
