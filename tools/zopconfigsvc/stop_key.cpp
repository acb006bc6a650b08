#include "tools/zopconfigsvc/stop_key.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"

namespace zopconfigsvc {

namespace {

// The handler runs on a thread of the system's, which may be in it to the end of the process.
RunTime::AutoHandle stopped;
RunTime::AutoHandle ended;

} // namespace

StopKey::StopKey() {
    for (RunTime::AutoHandle* event : {&stopped, &ended}) {
        event->reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!*event) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to create an event", code,
                        {L"", "zopconfigsvc::StopKey::StopKey", __LINE__});
        }
    }
    if (!::SetConsoleCtrlHandler(handler, TRUE)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to catch Ctrl+C", code,
                    {L"", "zopconfigsvc::StopKey::StopKey", __LINE__});
    }
}

StopKey::~StopKey() {
    ::SetConsoleCtrlHandler(handler, FALSE);
    ::SetEvent(ended.get());
}

void StopKey::wait() {
    if (::WaitForSingleObject(stopped.get(), INFINITE) == WAIT_FAILED) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to wait for Ctrl+C", code,
                    {L"", "zopconfigsvc::StopKey::wait", __LINE__});
    }
}

BOOL WINAPI StopKey::handler(DWORD event) {
    ::SetEvent(stopped.get());
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
        // The system ends the process when this returns.
        ::WaitForSingleObject(ended.get(), INFINITE);
    }
    return TRUE;
}

} // namespace zopconfigsvc
