#include "tools/zopconfigsvc/service_session.h"

#include "config/service/config_service.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/text.h"

#include <exception>

namespace zopconfigsvc {

namespace {

constexpr DWORD waitHint = 20'000; // milliseconds; a start or stop takes a few

void logError(const std::wstring& text) {
    LogManager::getInstance().vAddLog(LogType::Error, text);
}

} // namespace

bool ServiceSession::dispatch() {
    wchar_t name[] = L"zopconfigsvc"; // ignored for a process with one service
    const SERVICE_TABLE_ENTRYW table[] = {{name, serviceMain}, {nullptr, nullptr}};
    if (::StartServiceCtrlDispatcherW(table)) {
        return true;
    }
    const DWORD code = ::GetLastError();
    if (code != ERROR_FAILED_SERVICE_CONTROLLER_CONNECT) {
        _throwError(L"Unable to connect to the service manager", code,
                    {L"", "zopconfigsvc::ServiceSession::dispatch", __LINE__});
    }
    return false;
}

void WINAPI ServiceSession::serviceMain(DWORD, wchar_t**) {
    LogManager& log = LogManager::getInstance();
    log.setEventSource(serviceName);
    log.setEnabled(LogOutput::EventLog, LogType::Information, true);
    ServiceSession session;
    session.run();
}

void ServiceSession::run() {
    manager_ = ::RegisterServiceCtrlHandlerExW(serviceName, control, this);
    if (manager_ == nullptr) {
        const DWORD code = ::GetLastError();
        logError(formatString(L"Unable to register with the service manager (%lu)", code));
        return;
    }
    report(SERVICE_START_PENDING);
    // From the last report on the process may end at any moment.
    report(SERVICE_STOPPED, serve());
}

// Returns what the manager is told as the reason of the end.
DWORD ServiceSession::serve() {
    try {
        stop_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!stop_) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to create an event", code,
                        {L"", "zopconfigsvc::ServiceSession::serve", __LINE__});
        }
        config::ConfigService service({});
        report(SERVICE_RUNNING);
        if (::WaitForSingleObject(stop_.get(), INFINITE) == WAIT_FAILED) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to wait for the stop", code,
                        {L"", "zopconfigsvc::ServiceSession::serve", __LINE__});
        }
        service.stop();
        return NO_ERROR;
    } catch (const vosexception& e) {
        logError(e.message());
        return e.get_errorCode();
    } catch (const vexception& e) {
        logError(e.message());
    } catch (const std::exception& e) {
        logError(toWide(e.what()));
    }
    return ERROR_INTERNAL_ERROR;
}

void ServiceSession::report(DWORD state, DWORD exitCode) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwWin32ExitCode = exitCode;
    if (state == SERVICE_RUNNING) {
        status.dwControlsAccepted =
            SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_PRESHUTDOWN;
    } else if (state != SERVICE_STOPPED) {
        status.dwCheckPoint = 1;
        status.dwWaitHint = waitHint;
    }
    if (!::SetServiceStatus(manager_, &status)) {
        const DWORD code = ::GetLastError();
        logError(formatString(L"Unable to tell the service manager the state (%lu)", code));
    }
}

DWORD WINAPI ServiceSession::control(DWORD code, DWORD, void*, void* self) {
    auto& session = *static_cast<ServiceSession*>(self);
    switch (code) {
    case SERVICE_CONTROL_STOP:
    case SERVICE_CONTROL_SHUTDOWN:
    case SERVICE_CONTROL_PRESHUTDOWN:
        session.report(SERVICE_STOP_PENDING);
        ::SetEvent(session.stop_.get());
        return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
        return NO_ERROR;
    default:
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
}

} // namespace zopconfigsvc
