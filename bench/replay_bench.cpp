// replay_bench ADMIN_DIRECTORY CALLS: starts the recorded calls of the stand-in panel's utilities
// (tests/panel/store.h) once more, one after another and by nothing but CreateProcessW, without
// looking at what they print: what a move cannot do without. One line of JSON on the standard
// output; the time in milliseconds.
#include "bench/telling_failures.h"
#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/process/command_line.h"
#include "runtime/text.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>
#include <windows.h>

namespace {

struct Call {
    std::wstring program;
    std::wstring line;
};

std::vector<Call> readCalls(const std::wstring& admin, const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    std::vector<Call> calls;
    for (std::string text; std::getline(file, text);) {
        const std::wstring words = toWide(text) + L'\t';
        std::wstring line;
        for (std::size_t begin = 0; begin < words.size();) {
            const std::size_t end = words.find(L'\t', begin);
            line += RunTime::quoteArgument(words.substr(begin, end - begin)) + L' ';
            begin = end + 1;
        }
        const std::wstring name = words.substr(0, words.find(L'\t'));
        const std::wstring wide = RunTime::combine(admin, L"bin64\\" + name);
        calls.push_back(
            {RunTime::exists(wide) ? wide : RunTime::combine(admin, L"bin\\" + name), line});
    }
    return calls;
}

bool start(const Call& call) {
    std::wstring line = call.line;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (!::CreateProcessW(call.program.c_str(), line.data(), nullptr, nullptr, FALSE,
                          CREATE_NO_WINDOW, nullptr, nullptr, &startup, &process)) {
        const DWORD code = ::GetLastError();
        std::fprintf(stderr, "%s: %lu\n", toUtf8(call.program).c_str(), code);
        return false;
    }
    const RunTime::AutoHandle thread(process.hThread);
    const RunTime::AutoHandle child(process.hProcess);
    DWORD status = 1;
    if (::WaitForSingleObject(child.get(), INFINITE) != WAIT_OBJECT_0 ||
        !::GetExitCodeProcess(child.get(), &status)) {
        return false;
    }
    if (status != 0) {
        std::fprintf(stderr, "%s: ended with %lu\n", toUtf8(call.line).c_str(), status);
    }
    return status == 0;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count != 3) {
        std::fputs("replay_bench ADMIN_DIRECTORY CALLS\n", stderr);
        return 2;
    }
    return tellingFailures([&] {
        const std::vector<Call> calls = readCalls(arguments[1], arguments[2]);
        const auto begin = std::chrono::steady_clock::now();
        for (const Call& call : calls) {
            if (!start(call)) {
                return 1;
            }
        }
        const std::chrono::duration<double, std::milli> time =
            std::chrono::steady_clock::now() - begin;
        std::printf("{\"calls\": %zu, \"ms\": %.3f}\n", calls.size(), time.count());
        return 0;
    });
}
