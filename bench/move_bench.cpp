// Moves a tree as its owner would, with every event hooked, and says how long each phase took and
// how much memory the process had at its peak.
//
//     move_bench copy SOURCE TARGET     copies, then removes the source
//     move_bench rename SOURCE TARGET   renames, then commits
//     move_bench nothing                measures a start of a program
//
// One line of JSON on the standard output; times in milliseconds, memory in KiB.
#include "bench/telling_failures.h"
#include "relocation/backupmove.h"
#include "runtime/exception.h"
#include "runtime/text.h"

#include <cstdint>
#include <cstdio>
#include <psapi.h>
#include <string>
#include <windows.h>

namespace {

double milliseconds() {
    LARGE_INTEGER now;
    LARGE_INTEGER second;
    ::QueryPerformanceCounter(&now);
    ::QueryPerformanceFrequency(&second);
    return static_cast<double>(now.QuadPart) * 1000.0 / static_cast<double>(second.QuadPart);
}

// What a program with a progress bar listens to.
struct Listener {
    std::int64_t events = 0;
    std::int64_t errors = 0;
    std::int64_t letters = 0; // of the names, so that nothing of them can be left out

    void name(const std::wstring& text) {
        ++events;
        letters += static_cast<std::int64_t>(text.size());
    }
};

int run(const std::wstring& source, const std::wstring& target, bool copy) {
    backupmove mover;
    Listener listener;
    const Hook hooks[] = {
        mover.progressEvent_Total.hook(
            [&](std::int32_t, std::int64_t, bool&) { ++listener.events; }),
        mover.progressEvent_Name.hook(
            [&](const std::wstring& text, bool, std::int64_t, bool&) { listener.name(text); }),
        mover.progressEvent_Name2.hook([&](const std::wstring& from, const std::wstring&, bool,
                                           std::int64_t, bool&) { listener.name(from); }),
        mover.progressEvent_Bytes.hook([&](std::int64_t, bool&) { ++listener.events; }),
        mover.errorEvent.hook([&](const std::wstring& text, bool&) {
            ++listener.errors;
            std::fprintf(stderr, "%s\n", toUtf8(text).c_str());
        }),
    };
    const double start = milliseconds();
    const bool renamed = mover.move(source, target, copy);
    const double moved = milliseconds();
    mover.commit();
    const double end = milliseconds();
    PROCESS_MEMORY_COUNTERS memory = {};
    memory.cb = sizeof(memory);
    if (!::GetProcessMemoryInfo(::GetCurrentProcess(), &memory, sizeof(memory))) {
        const DWORD code = ::GetLastError();
        std::fprintf(stderr, "GetProcessMemoryInfo: %lu\n", code);
        return 1;
    }
    std::printf("{\"renamed\": %s, \"move_ms\": %.3f, \"commit_ms\": %.3f, \"peak_kib\": %llu, "
                "\"events\": %lld}\n",
                renamed ? "true" : "false", moved - start, end - moved,
                static_cast<unsigned long long>(memory.PeakWorkingSetSize / 1024),
                static_cast<long long>(listener.events));
    return listener.errors == 0 && renamed != copy ? 0 : 1;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    const std::wstring command = count > 1 ? arguments[1] : L"";
    if (command == L"nothing") {
        return 0;
    }
    if (count != 4 || (command != L"copy" && command != L"rename")) {
        std::fputs("move_bench copy|rename SOURCE TARGET\n", stderr);
        return 2;
    }
    return tellingFailures([&] { return run(arguments[2], arguments[3], command == L"copy"); });
}
