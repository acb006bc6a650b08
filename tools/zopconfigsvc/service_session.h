// The process as Windows' service manager sees it: started, running, stopped, and why.
#pragma once

#include "runtime/auto_handle.h"

#include <windows.h>

namespace zopconfigsvc {

inline constexpr wchar_t serviceName[] = L"zopconfigsvc";

class ServiceSession {
public:
    // Serves until the manager stops the service. False when it was not the manager that started
    // this process. Throws vosexception.
    static bool dispatch();

private:
    static void WINAPI serviceMain(DWORD count, wchar_t** words);
    static DWORD WINAPI control(DWORD code, DWORD type, void* data, void* self);

    void run();
    DWORD serve();
    void report(DWORD state, DWORD exitCode = NO_ERROR);

    SERVICE_STATUS_HANDLE manager_ = nullptr; // the manager's, never closed
    RunTime::AutoHandle stop_;
};

} // namespace zopconfigsvc
