// The real program: in the foreground, and as a service of the real service manager. The registry
// is that of the machine, where a value of an unlikely name comes and goes.
#include "config/tarvo_srv_client.h"
#include "runtime/auto_ptr.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "tests/tools/program.h"

#include <gtest/gtest.h>

namespace {

constexpr wchar_t program[] = L"zopconfigsvc.exe";
constexpr wchar_t testValue[] = L"ZopServiceTest";
constexpr wchar_t eventSource[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\zopconfigsvc";

struct ServiceHandleTraits {
    using Value = SC_HANDLE;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::CloseServiceHandle(value); }
};
using ServiceHandle = RunTime::AutoResource<ServiceHandleTraits>;

// A value of the machine's configuration, taken away at the end.
class MachineValue {
public:
    explicit MachineValue(const wchar_t* name) : name_(name) {
        if (registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, name, before_,
                             RegistryView::View32) == ERROR_SUCCESS) {
            had_ = true;
        }
    }
    ~MachineValue() {
        if (had_) {
            set(before_);
            return;
        }
        RunTime::AutoRegKey key;
        ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, config::configKey, 0, KEY_SET_VALUE | KEY_WOW64_32KEY,
                        key.put());
        ::RegDeleteValueW(key.get(), name_);
    }
    MachineValue(const MachineValue&) = delete;
    MachineValue& operator=(const MachineValue&) = delete;

    void set(const std::wstring& text) const {
        registry::setString(HKEY_LOCAL_MACHINE, config::configKey, name_, text,
                            RegistryView::View32, registry::MissingKey::Create);
    }
    std::wstring get(RegistryView view) const {
        std::wstring text;
        registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, name_, text, view);
        return text;
    }

private:
    const wchar_t* name_;
    std::wstring before_;
    bool had_ = false;
};

SERVICE_STATUS_PROCESS stateOf(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS state{};
    DWORD size = 0;
    EXPECT_TRUE(::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO,
                                       reinterpret_cast<BYTE*>(&state), sizeof state, &size));
    return state;
}

} // namespace

TEST(ZopconfigsvcTest, WrongCommandLinesNameTheRightOnes) {
    struct Case {
        const wchar_t* words;
        DWORD exitCode;
        const char* says;
    };
    const Case cases[] = {
        {L"", 2, "--console or --install"},
        {L"--instal", 2, "did you mean \"--install\"?"},
        {L"console", 2, "one word too many"},
        {L"--install --remove", 2, "--install and --remove contradict each other"},
        {L"--install --pipe x", 2, "--pipe goes with --console"},
        {L"--console --pipe \\\\other\\pipe\\x", 4, "Error: "},
    };
    for (const Case& wrong : cases) {
        const Program::Outcome done = runProgram(program, wrong.words);
        EXPECT_EQ(done.exitCode, wrong.exitCode) << toUtf8(wrong.words);
        EXPECT_NE(done.errors.find(wrong.says), std::string::npos) << done.errors;
        EXPECT_EQ(done.output, "");
    }
    const Program::Outcome help = runProgram(program, L"--help");
    EXPECT_EQ(help.exitCode, 0U);
    EXPECT_NE(help.output.find("--install"), std::string::npos);
    const Program::Outcome version = runProgram(program, L"--version");
    EXPECT_EQ(version.exitCode, 0U);
    EXPECT_TRUE(version.output.starts_with("zopconfigsvc 0.")) << version.output;
}

TEST(ZopconfigsvcTest, InTheForegroundItServesUntilCtrlC) {
    const MachineValue value(testValue);
    const std::wstring pipe = L"zop-foreground-" + std::to_wstring(::GetCurrentProcessId());
    Program service(program, L"--console --pipe " + pipe);
    ASSERT_TRUE(service.waitFor("Ctrl+C ends it."));
    TarvoSrvClient client({.pipeName = pipe});
    client.setString(testValue, L"hidden \u65E5");
    EXPECT_TRUE(client.getString(testValue) == L"hidden \u65E5");
    EXPECT_TRUE(value.get(RegistryView::View32) == L"hidden \u65E5");
    EXPECT_TRUE(value.get(RegistryView::View64).empty());
    const ULONGLONG start = ::GetTickCount64();
    service.interrupt();
    const Program::Outcome done = service.finish();
    EXPECT_LT(::GetTickCount64() - start, 1000U);
    EXPECT_EQ(done.exitCode, 0U);
    EXPECT_EQ(done.errors, "");
    for (const std::string& line :
         {toUtf8(L"listens on \\\\.\\pipe\\" + pipe),
          std::string("(ZopServiceTest) was set by process"), std::string("has stopped")}) {
        EXPECT_NE(done.output.find(line), std::string::npos) << done.output;
    }
    EXPECT_EQ(done.output.find("hidden"), std::string::npos);
}

TEST(ZopconfigsvcTest, AsAServiceItIsInstalledStartedStoppedAndRemoved) {
    const ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (ServiceHandle(::OpenServiceW(manager.get(), L"zopconfigsvc", SERVICE_QUERY_STATUS))) {
        GTEST_SKIP() << "this machine has the service";
    }
    EXPECT_EQ(runProgram(program, L"--remove").exitCode, 3U);
    const Program::Outcome installed = runProgram(program, L"--install");
    EXPECT_EQ(installed.exitCode, 0U) << installed.errors;
    const Program::Outcome again = runProgram(program, L"--install");
    EXPECT_EQ(again.exitCode, 3U);
    EXPECT_NE(again.errors.find("installed already"), std::string::npos) << again.errors;

    ServiceHandle service(
        ::OpenServiceW(manager.get(), L"zopconfigsvc",
                       SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP));
    ASSERT_TRUE(service);
    std::vector<BYTE> buffer(8192);
    DWORD size = 0;
    auto* const settings = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data());
    ASSERT_TRUE(::QueryServiceConfigW(service.get(), settings, 8192, &size));
    const std::wstring path = Program::path(program);
    EXPECT_EQ(toUtf8(settings->lpBinaryPathName), toUtf8(L"\"" + path + L"\" --service"));
    EXPECT_EQ(settings->dwStartType, DWORD{SERVICE_AUTO_START});
    EXPECT_EQ(toUtf8(settings->lpServiceStartName), "LocalSystem");
    const std::wstring messages = registry::getstr(HKEY_LOCAL_MACHINE, eventSource,
                                                   L"EventMessageFile", RegistryView::View64);
    EXPECT_TRUE(messages.ends_with(path)) << toUtf8(messages);

    const MachineValue pipe(config::name::pipeName);
    // A start that fails is told to the manager. Wine's may miss that it was a start at all.
    pipe.set(L"\\\\other\\pipe\\x");
    ::StartServiceW(service.get(), 0, nullptr);
    if (const DWORD id = stateOf(service.get()).dwProcessId) {
        const RunTime::AutoHandle process(::OpenProcess(SYNCHRONIZE, FALSE, id));
        ::WaitForSingleObject(process.get(), 60'000);
    }
    EXPECT_EQ(stateOf(service.get()).dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(stateOf(service.get()).dwWin32ExitCode, DWORD{ERROR_INTERNAL_ERROR});

    const std::wstring name = L"zop-service-" + std::to_wstring(::GetCurrentProcessId());
    pipe.set(name);
    EXPECT_TRUE(::StartServiceW(service.get(), 0, nullptr)) << ::GetLastError();
    {
        const MachineValue value(testValue);
        TarvoSrvClient client({.pipeName = name});
        client.setString(testValue, L"from the service");
        EXPECT_TRUE(value.get(RegistryView::View32) == L"from the service");
    }
    EXPECT_EQ(stateOf(service.get()).dwCurrentState, DWORD{SERVICE_RUNNING});
    service.reset();
    const Program::Outcome removed = runProgram(program, L"--remove"); // while it runs
    EXPECT_EQ(removed.exitCode, 0U) << removed.errors;
    EXPECT_FALSE(::WaitNamedPipeW((L"\\\\.\\pipe\\" + name).c_str(), 1)) << "it still runs";
    EXPECT_FALSE(ServiceHandle(::OpenServiceW(manager.get(), L"zopconfigsvc", SERVICE_START)));
    EXPECT_EQ(::GetLastError(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    EXPECT_FALSE(registry::keyExists(HKEY_LOCAL_MACHINE, eventSource, RegistryView::View64));
}

TEST(ZopconfigsvcTest, TheEventLogFindsTheTextOfAnEventInTheProgram) {
    const HMODULE module =
        ::LoadLibraryExW(Program::path(program).c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_NE(module, nullptr);
    wchar_t text[100];
    DWORD_PTR words[] = {reinterpret_cast<DWORD_PTR>(L"what was logged")};
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module, 0, 0,
                         text, 100, reinterpret_cast<va_list*>(words));
    EXPECT_EQ(toUtf8(std::wstring(text, length)), "what was logged\r\n");
    ::FreeLibrary(module);
}
