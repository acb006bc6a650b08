#include "tools/zopconfigsvc/installation.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "tools/zopconfigsvc/service_session.h"

#include <string>

namespace zopconfigsvc {

using zopctl::Console;
using zopctl::ExitCode;

namespace {

struct ServiceHandleTraits {
    using Value = SC_HANDLE;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::CloseServiceHandle(value); }
};
using ServiceHandle = RunTime::AutoResource<ServiceHandleTraits>;

constexpr wchar_t displayName[] = L"ZOP Configuration Service";
constexpr wchar_t description[] =
    L"Keeps the configuration values of the hosting panel and serves them to its programs.";
constexpr wchar_t eventSourceKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\zopconfigsvc";
constexpr DWORD stopTimeout = 30'000; // milliseconds

ServiceHandle openManager(DWORD access) {
    ServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, access));
    if (!manager) {
        const DWORD code = ::GetLastError();
        _throwError(code == ERROR_ACCESS_DENIED
                        ? L"Unable to open the service manager; that takes an administrator"
                        : L"Unable to open the service manager",
                    code, {L"", "zopconfigsvc::openManager", __LINE__});
    }
    return manager;
}

std::wstring programPath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length =
            ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to find this program", code,
                        {L"", "zopconfigsvc::programPath", __LINE__});
        }
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

void warn(Console& console, const wchar_t* what, DWORD code) {
    console.errorLine(formatString(L"Warning: unable to set %s (error code %lu)", what, code));
}

// What makes it more comfortable. The service works without, so a failure is a warning.
void configure(SC_HANDLE service, Console& console) {
    const auto set = [&](DWORD level, auto setting, const wchar_t* what) {
        if (!::ChangeServiceConfig2W(service, level, &setting)) {
            const DWORD code = ::GetLastError();
            warn(console, what, code);
        }
    };
    std::wstring text = description;
    set(SERVICE_CONFIG_DESCRIPTION, SERVICE_DESCRIPTIONW{text.data()}, L"the description");
    set(SERVICE_CONFIG_DELAYED_AUTO_START_INFO, SERVICE_DELAYED_AUTO_START_INFO{TRUE},
        L"the delayed start");
    // The last one holds for all further failures; after a day without any the first one is next.
    SC_ACTION actions[] = {
        {SC_ACTION_RESTART, 5'000}, {SC_ACTION_RESTART, 30'000}, {SC_ACTION_RESTART, 120'000}};
    SERVICE_FAILURE_ACTIONSW failure{};
    failure.dwResetPeriod = 24 * 60 * 60;
    failure.cActions = static_cast<DWORD>(std::size(actions));
    failure.lpsaActions = actions;
    set(SERVICE_CONFIG_FAILURE_ACTIONS, failure, L"the restart after a failure");
    set(SERVICE_CONFIG_FAILURE_ACTIONS_FLAG, SERVICE_FAILURE_ACTIONS_FLAG{TRUE},
        L"the restart after an error");
}

// The panel's own message file, where it is installed, and this program, which has the text of an
// event without a number: the message itself.
void registerEventSource(const std::wstring& program, Console& console) {
    std::wstring files = program;
    std::wstring root;
    try {
        if (registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::productRoot, root,
                             RegistryView::View32) == ERROR_SUCCESS) {
            const std::wstring panels = root + L"\\admin\\bin64\\eventmsg.dll";
            if (::GetFileAttributesW(panels.c_str()) != INVALID_FILE_ATTRIBUTES) {
                files = panels + L";" + files;
            }
        }
        registry::setString(HKEY_LOCAL_MACHINE, eventSourceKey, L"EventMessageFile", files,
                            RegistryView::View64, registry::MissingKey::Create);
        registry::setDWORD(HKEY_LOCAL_MACHINE, eventSourceKey, L"TypesSupported",
                           EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE,
                           RegistryView::View64);
    } catch (const vosexception& e) {
        warn(console, L"the event log's source", e.get_errorCode());
    } catch (const vexception&) { // the panel's root is no string
        warn(console, L"the event log's source", ERROR_DATATYPE_MISMATCH);
    }
}

// Waits for the process, since "stopped" may still be on its way down.
void stop(SC_HANDLE service) {
    SERVICE_STATUS_PROCESS state{};
    DWORD size = 0;
    if (!::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&state),
                                sizeof state, &size)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to ask for the state of the service", code,
                    {L"", "zopconfigsvc::stop", __LINE__});
    }
    if (state.dwCurrentState == SERVICE_STOPPED) {
        return;
    }
    const RunTime::AutoHandle process(::OpenProcess(SYNCHRONIZE, FALSE, state.dwProcessId));
    SERVICE_STATUS status{};
    if (!::ControlService(service, SERVICE_CONTROL_STOP, &status)) {
        const DWORD code = ::GetLastError();
        if (code != ERROR_SERVICE_NOT_ACTIVE && code != ERROR_SERVICE_CANNOT_ACCEPT_CTRL) {
            _throwError(L"Unable to stop the service", code, {L"", "zopconfigsvc::stop", __LINE__});
        }
    }
    if (process && ::WaitForSingleObject(process.get(), stopTimeout) == WAIT_TIMEOUT) {
        _throwError(L"Unable to wait for the end of the service", ERROR_TIMEOUT,
                    {L"", "zopconfigsvc::stop", __LINE__});
    }
}

constexpr wchar_t markedText[] =
    L"The service has been removed already and goes when the last program lets go of it: close the "
    L"Services window and the like, or restart Windows.";

} // namespace

ExitCode install(Console& console) {
    const ServiceHandle manager = openManager(SC_MANAGER_CONNECT | SC_MANAGER_CREATE_SERVICE);
    const std::wstring program = programPath();
    const ServiceHandle service(::CreateServiceW(
        manager.get(), serviceName, displayName, SERVICE_CHANGE_CONFIG | SERVICE_START,
        SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
        (L"\"" + program + L"\" --service").c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!service) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_SERVICE_EXISTS) {
            console.errorLine(L"The service is installed already. Remove it first: zopconfigsvc "
                              L"--remove");
            return ExitCode::Refused;
        }
        if (code == ERROR_SERVICE_MARKED_FOR_DELETE) {
            console.errorLine(markedText);
            return ExitCode::Refused;
        }
        _throwError(L"Unable to create the service", code,
                    {L"", "zopconfigsvc::install", __LINE__});
    }
    configure(service.get(), console); // SC_ACTION_RESTART takes the right to start
    registerEventSource(program, console);
    console.line(L"The service zopconfigsvc is installed and starts with Windows. To start it now: "
                 L"sc start zopconfigsvc");
    return ExitCode::Success;
}

ExitCode remove(Console& console) {
    const ServiceHandle manager = openManager(SC_MANAGER_CONNECT);
    const ServiceHandle service(
        ::OpenServiceW(manager.get(), serviceName, SERVICE_STOP | SERVICE_QUERY_STATUS | DELETE));
    if (!service) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_SERVICE_DOES_NOT_EXIST) {
            console.errorLine(L"The service is not installed.");
            return ExitCode::Refused;
        }
        _throwError(L"Unable to open the service", code, {L"", "zopconfigsvc::remove", __LINE__});
    }
    stop(service.get());
    if (!::DeleteService(service.get())) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_SERVICE_MARKED_FOR_DELETE) {
            console.errorLine(markedText);
            return ExitCode::Refused;
        }
        _throwError(L"Unable to remove the service", code, {L"", "zopconfigsvc::remove", __LINE__});
    }
    const LSTATUS status =
        ::RegDeleteKeyExW(HKEY_LOCAL_MACHINE, eventSourceKey, KEY_WOW64_64KEY, 0);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        warn(console, L"back the event log's source", static_cast<DWORD>(status));
    }
    console.line(L"The service zopconfigsvc is removed. The configuration values stay.");
    return ExitCode::Success;
}

} // namespace zopconfigsvc
