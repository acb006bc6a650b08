// Times the pieces that a move runs once an item, by themselves, and prints nanoseconds a call: the
// median of eleven runs.
//
//     micro_bench DIRECTORY     an existing directory, for the log and the listing
#include "bench/telling_failures.h"
#include "relocation/backup_stream.h"
#include "relocation/transaction_log.h"
#include "runtime/event.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/text.h"
#include "tests/support/import_patch.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <windows.h>

namespace {

double nanoseconds() {
    LARGE_INTEGER now;
    LARGE_INTEGER second;
    ::QueryPerformanceCounter(&now);
    ::QueryPerformanceFrequency(&second);
    return static_cast<double>(now.QuadPart) * 1e9 / static_cast<double>(second.QuadPart);
}

// Keeps what is measured from being left out.
std::size_t sink = 0;

template <class Function>
void measure(const char* name, int calls, Function function) {
    std::array<double, 11> runs{};
    for (double& run : runs) {
        const double start = nanoseconds();
        for (int i = 0; i < calls; ++i) {
            function();
        }
        run = (nanoseconds() - start) / calls;
    }
    std::sort(runs.begin(), runs.end());
    std::printf("%-44s %12.0f ns\n", name, runs[runs.size() / 2]);
}

void measureEvents() {
    Event<const std::wstring&, bool, std::int64_t, bool&> source;
    Event<const std::wstring&, bool, std::int64_t, bool&> outer;
    const std::wstring name = L"\\\\?\\C:\\vhosts\\example.com\\httpdocs\\index.html";
    const auto raise = [&] {
        bool cancel = false;
        source.raise(name, true, 1, cancel);
    };
    const Hook forwarded = forwardEvent(source, outer);
    const Hook handler = outer.hook(
        [](const std::wstring& text, bool, std::int64_t, bool&) { sink += text.size(); });
    measure("event forwarded to one handler", 100000, raise);
}

void measurePaths() {
    const std::wstring typed = L"C:\\vhosts\\example.com\\httpdocs\\index.html";
    const std::wstring full = L"\\\\?\\" + typed;
    measure("longPath of a long form", 10000, [&] { sink += RunTime::longPath(full).size(); });
    measure("longPath of a typed path", 10000, [&] { sink += RunTime::longPath(typed).size(); });
    measure("nicePath", 10000, [&] { sink += RunTime::nicePath(full).size(); });
    measure("combine", 10000, [&] { sink += RunTime::combine(full, L"name").size(); });
    const std::wstring above = L"\\\\?\\C:\\vhosts";
    measure("isStrictlyInside", 10000, [&] { sink += RunTime::isStrictlyInside(full, above); });
}

// The streams of one file in memory, in place of the backup API.
struct Streams {
    std::string bytes;
    std::size_t position = 0;

    void add(DWORD id, const std::wstring& name, const std::string& payload) {
        WIN32_STREAM_ID header = {};
        header.dwStreamId = id;
        header.Size.QuadPart = static_cast<LONGLONG>(payload.size());
        header.dwStreamNameSize = static_cast<DWORD>(name.size() * sizeof(wchar_t));
        bytes.append(reinterpret_cast<const char*>(&header), 20);
        bytes.append(reinterpret_cast<const char*>(name.data()), header.dwStreamNameSize);
        bytes.append(payload);
    }
};
Streams streams;

BOOL WINAPI readFromMemory(HANDLE, LPBYTE buffer, DWORD bytes, LPDWORD got, BOOL abort, BOOL,
                           LPVOID* context) {
    *context = abort ? nullptr : &streams;
    const std::size_t step =
        std::min<std::size_t>(abort ? 0 : bytes, streams.bytes.size() - streams.position);
    if (step != 0) {
        std::copy_n(streams.bytes.data() + streams.position, step, buffer);
    }
    streams.position = abort ? 0 : streams.position + step;
    *got = static_cast<DWORD>(step);
    return TRUE;
}

BOOL WINAPI writeToNothing(HANDLE, LPBYTE, DWORD bytes, LPDWORD put, BOOL, BOOL, LPVOID*) {
    *put = bytes;
    return TRUE;
}

void measureStreams() {
    const ImportPatch read("BackupRead", &readFromMemory);
    const ImportPatch write("BackupWrite", &writeToNothing);
    BackupStreamCopy copy;
    const auto run = [&] {
        BackupStreamCopy::Found found;
        copy.run(nullptr, nullptr, StreamType::All, found);
        sink += found.sparse;
    };
    streams = {};
    streams.add(BACKUP_DATA, L"", std::string(4096, 'x'));
    streams.add(BACKUP_ALTERNATE_DATA, L":Zone.Identifier:$DATA", "[ZoneTransfer]");
    measure("streams of a file of 4 KiB", 10000, run);
    streams = {};
    streams.add(BACKUP_DATA, L"", std::string(64 * 1024 * 1024, 'x'));
    measure("streams of a file of 64 MiB", 1, run);
    streams = {};
    for (int i = 0; i < 1000; ++i) {
        streams.add(BACKUP_ALTERNATE_DATA, L":s" + std::to_wstring(i) + L":$DATA", "content");
    }
    measure("streams of a file with 1000 of them", 100, run);
}

void measureLog(const std::wstring& directory) {
    TransactionLog log;
    log.create(directory);
    const std::wstring name = RunTime::combine(directory, L"example.com\\httpdocs\\index.html");
    measure("log append", 1000, [&] { log.append(true, name, 4096); });
    log.remove();
}

void measureListing(const std::wstring& directory) {
    const std::wstring path = RunTime::combine(directory, L"listing");
    constexpr int files = 25;
    RunTime::createDirectory(path);
    const auto nameOf = [&](int i) { return RunTime::combine(path, std::to_wstring(i)); };
    for (int i = 0; i < files; ++i) {
        RunTime::AutoHandle file(::CreateFileW(nameOf(i).c_str(), GENERIC_WRITE, 0, nullptr,
                                               CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to create", code, {L"", "measureListing", __LINE__});
        }
    }
    measure("open, list and close a directory of 25 files", 100, [&] {
        const RunTime::AutoHandle handle = RunTime::openPinnedDirectory(path);
        RunTime::DirectoryLister lister(handle.get(), path);
        for (RunTime::FileInformation entry; lister.next(entry);) {
            sink += entry.name.size();
        }
    });
    for (int i = 0; i < files; ++i) {
        RunTime::deleteFile(nameOf(i));
    }
    RunTime::removeDirectory(path);
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        std::fputs("micro_bench DIRECTORY\n", stderr);
        return 2;
    }
    return tellingFailures([&] {
        const std::wstring directory = RunTime::longPath(arguments[1]);
        measureEvents();
        measurePaths();
        measureStreams();
        measureLog(directory);
        measureListing(directory);
        return sink == 0 ? 1 : 0;
    });
}
