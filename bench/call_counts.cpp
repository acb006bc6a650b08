// Counts the Win32 calls that a copy and a removal make for each file and each directory, releases
// included, and prints them as JSON: once on the ordinary path, once on the backup path (against
// the tests' NTFS). What is made once a tree is not in it: the calls for few items are subtracted
// from those for many.
//
//     call_counts ordinary|backup DIRECTORY
//
// DIRECTORY exists and is empty.
#include "bench/telling_failures.h"
#include "relocation/backupmove.h"
#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"

#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <windows.h>

namespace {

using Counts = std::map<std::string, long>;

// countCalls() leaves releases out, since they cannot be made to fail; here they cost like others.
class Releases {
public:
    Releases() { self = this; }
    ~Releases() { self = nullptr; }
    Releases(const Releases&) = delete;
    Releases& operator=(const Releases&) = delete;

    Counts counts;

private:
    static BOOL WINAPI closeHandle(HANDLE handle) {
        ++self->counts["CloseHandle"];
        return self->close_.original<decltype(&::CloseHandle)>()(handle);
    }
    static BOOL WINAPI backupRead(HANDLE file, LPBYTE buffer, DWORD bytes, LPDWORD got, BOOL abort,
                                  BOOL security, LPVOID* context) {
        self->counts["BackupRead (end)"] += abort ? 1 : 0;
        return self->read_.original<decltype(&::BackupRead)>()(file, buffer, bytes, got, abort,
                                                               security, context);
    }
    static BOOL WINAPI backupWrite(HANDLE file, LPBYTE buffer, DWORD bytes, LPDWORD put, BOOL abort,
                                   BOOL security, LPVOID* context) {
        self->counts["BackupWrite (end)"] += abort ? 1 : 0;
        return self->write_.original<decltype(&::BackupWrite)>()(file, buffer, bytes, put, abort,
                                                                 security, context);
    }

    static inline Releases* self = nullptr;
    ImportPatch close_{"CloseHandle", &closeHandle};
    ImportPatch read_{"BackupRead", &backupRead};
    ImportPatch write_{"BackupWrite", &backupWrite};
};

struct Phases {
    Counts copy;
    Counts removal;
};

template <class Function>
Counts count(Releases& releases, Function function) {
    releases.counts.clear();
    Counts all = countCalls(function);
    for (const auto& [name, calls] : releases.counts) {
        all[name] += calls;
    }
    return all;
}

Phases countMove(Releases& releases, const TempDirectory& temp, const std::wstring& name) {
    backupmove mover;
    Phases phases;
    phases.copy =
        count(releases, [&] { mover.move(temp / name, temp / (L"moved " + name), true); });
    phases.removal = count(releases, [&] { mover.commit(); });
    return phases;
}

void print(const char* what, const Counts& few, const Counts& many, int items, const char* end) {
    std::printf("  \"%s\": {", what);
    const char* separator = "";
    double sum = 0;
    for (const auto& [name, calls] : many) {
        const auto before = few.find(name);
        const double each =
            static_cast<double>(calls - (before == few.end() ? 0 : before->second)) / items;
        if (each >= 0.05) { // a buffer's refill now and then is no call of an item's
            std::printf("%s\"%s\": %.1f", separator, name.c_str(), each);
            separator = ", ";
            sum += each;
        }
    }
    std::printf("%s\"sum\": %.1f}%s\n", separator, sum, end);
}

void run(const std::wstring& directory) {
    constexpr int items = 40;
    const TempDirectory temp(directory);
    Releases releases;
    const auto make = [&](const std::wstring& tree, int files, int directories) {
        temp.makeDirectory(tree);
        for (int i = 0; i < files; ++i) {
            temp.writeFile(tree + L"\\file " + std::to_wstring(i), std::string(4096, 'x'));
        }
        for (int i = 0; i < directories; ++i) {
            temp.makeDirectory(tree + L"\\directory " + std::to_wstring(i));
        }
        return countMove(releases, temp, tree);
    };
    const Phases few = make(L"few", 1, 1);
    const Phases files = make(L"files", 1 + items, 1);
    const Phases directories = make(L"directories", 1, 1 + items);
    std::printf("{\n");
    print("copied file", few.copy, files.copy, items, ",");
    print("copied directory", few.copy, directories.copy, items, ",");
    print("removed file", few.removal, files.removal, items, ",");
    print("removed directory", few.removal, directories.removal, items, "");
    std::printf("}\n");
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    const std::wstring way = count == 3 ? arguments[1] : L"";
    if (way != L"ordinary" && way != L"backup") {
        std::fputs("call_counts ordinary|backup DIRECTORY\n", stderr);
        return 2;
    }
    return tellingFailures([&] {
        std::optional<NtfsFake> ntfs;
        if (way == L"backup") {
            ntfs.emplace();
        }
        run(arguments[2]);
        return 0;
    });
}
