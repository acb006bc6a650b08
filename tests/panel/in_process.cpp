#include "tests/panel/in_process.h"

#include "tests/support/fault_sweep.h"

#include <cstring>
#include <shellapi.h>
#include <string>

int panel_utilities_main(int count, wchar_t* words[]);
int panel_php_main(int count, wchar_t* words[]);

namespace panel {

namespace {

std::wstring program; // that runs; empty: none
int status;           // of the last one
HANDLE mainThread;    // an event that stands for its thread
decltype(&::GetModuleFileNameW) realOwnPath;
decltype(&::ResumeThread) realResume;

DWORD WINAPI ownPath(HMODULE module, wchar_t* path, DWORD size) {
    if (program.empty() || size <= program.size()) {
        return realOwnPath(module, path, size);
    }
    std::memcpy(path, program.c_str(), (program.size() + 1) * sizeof(wchar_t));
    return static_cast<DWORD>(program.size());
}

BOOL WINAPI create(const wchar_t* path, wchar_t* line, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*,
                   BOOL, DWORD, void*, const wchar_t*, STARTUPINFOW* startup,
                   PROCESS_INFORMATION* created) {
    const FaultPause pause;
    program = path;
    int count = 0;
    wchar_t** words = ::CommandLineToArgvW(line, &count);
    const HANDLE output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    const HANDLE errors = ::GetStdHandle(STD_ERROR_HANDLE);
    ::SetStdHandle(STD_OUTPUT_HANDLE, startup->hStdOutput);
    ::SetStdHandle(STD_ERROR_HANDLE, startup->hStdError);
    const bool isScript = program.ends_with(L"php.exe");
    status = (isScript ? panel_php_main : panel_utilities_main)(count, words);
    ::SetStdHandle(STD_OUTPUT_HANDLE, output);
    ::SetStdHandle(STD_ERROR_HANDLE, errors);
    ::LocalFree(words);
    program.clear();
    created->hProcess = ::CreateEventW(nullptr, TRUE, TRUE, nullptr); // it has ended
    created->hThread = mainThread = ::CreateEventW(nullptr, TRUE, TRUE, nullptr);
    return TRUE;
}

BOOL WINAPI assign(HANDLE, HANDLE) {
    return TRUE;
}
DWORD WINAPI resume(HANDLE thread) { // the language's own threads need it, too
    return thread == mainThread ? 0 : realResume(thread);
}
BOOL WINAPI exitStatus(HANDLE, DWORD* result) {
    *result = static_cast<DWORD>(status);
    return TRUE;
}

} // namespace

InProcess::InProcess()
    : create_("CreateProcessW", &create), assign_("AssignProcessToJobObject", &assign),
      resume_("ResumeThread", &resume), status_("GetExitCodeProcess", &exitStatus),
      ownPath_("GetModuleFileNameW", &ownPath) {
    realOwnPath = ownPath_.original<decltype(realOwnPath)>();
    realResume = resume_.original<decltype(realResume)>();
}

} // namespace panel
