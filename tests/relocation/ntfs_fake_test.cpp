// What the other tests rely on without looking: that the fake notices a wrong use of the backup
// API, that its fingerprint shows every change, that counters show a leak.
#include "tests/support/ntfs_fake.h"

#include "runtime/auto_handle.h"
#include "tests/support/process_counters.h"
#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>

namespace {

using RunTime::AutoHandle;

AutoHandle open(const std::wstring& path, DWORD access) {
    return AutoHandle(::CreateFileW(
        path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

TEST(NtfsFakeTest, BreachesOfTheBackupApiAreNoticed) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring path = temp.writeFile(L"file");
    void* context = nullptr;
    DWORD count = 0;
    BYTE bytes[24] = {3, 0, 0, 0, 0, 0, 0, 0, 9}; // security of 9 bytes, the payload not there
    {
        const AutoHandle file = open(path, GENERIC_READ | GENERIC_WRITE);
        const AutoHandle second = open(path, GENERIC_READ);
        ::BackupRead(file.get(), bytes + 20, 1, &count, FALSE, FALSE, &context);
        EXPECT_FALSE(::BackupRead(second.get(), bytes + 20, 1, &count, FALSE, FALSE, &context));
        EXPECT_FALSE(::BackupWrite(file.get(), bytes, 20, &count, FALSE, FALSE, &context));
        EXPECT_FALSE(::BackupSeek(file.get(), 1, 0, &count, &count, &context));
        void* other = nullptr;
        ::BackupWrite(file.get(), bytes, 20, &count, FALSE, FALSE, &other);
    }
    EXPECT_EQ(ntfs.takeViolations(),
              (std::vector<std::string>{"BackupRead: a context of another handle",
                                        "BackupWrite: a context of the other direction",
                                        "BackupSeek: within a header or a name",
                                        "BackupWrite: a small stream in more than one call",
                                        "the handle was closed before its context was ended",
                                        "the handle was closed before its context was ended"}));
}

TEST(NtfsFakeTest, FingerprintShowsEveryChange) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring file = temp.writeFile(L"tree\\sub\\file", "data");
    std::string last = ntfs.fingerprint(temp / L"tree");
    EXPECT_EQ(ntfs.fingerprint(temp / L"tree"), last);
    const std::function<void()> changes[] = {
        [&] { temp.writeFile(L"tree\\sub\\file", "Data"); },
        [&] { ntfs.setStream(file, L"s", ""); },
        [&] { ntfs.setStream(file, L"s", "text"); },
        [&] { ntfs.setSecurity(file, L"O:BUG:SYD:"); },
        [&] { ntfs.setSecurity(file, L"O:BUG:SYD:NO_ACCESS_CONTROL"); },
        [&] { ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_HIDDEN); },
        [&] { ntfs.setEa(file, "e"); },
        [&] {
            FILETIME time = {1, 0x1D00000};
            ::SetFileTime(open(temp / L"tree\\sub", FILE_WRITE_ATTRIBUTES).get(), nullptr, nullptr,
                          &time);
        },
        [&] { temp.makeDirectory(L"tree\\empty"); },
    };
    for (const auto& change : changes) {
        change();
        const std::string now = ntfs.fingerprint(temp / L"tree");
        EXPECT_NE(now, last) << &change - changes;
        last = now;
    }
}

TEST(NtfsFakeTest, WhatIsKeptShowsInTheCounters) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring path = temp.writeFile(L"file");
    EXPECT_EQ(growthOver(20, [&] { open(path, GENERIC_READ); }).handles, 0);
    std::vector<AutoHandle> kept;
    std::vector<std::unique_ptr<int>> blocks;
    kept.reserve(10);
    blocks.reserve(10);
    const ProcessCounters leak = growthOver(5, [&] {
        kept.push_back(open(path, GENERIC_READ));
        blocks.push_back(std::make_unique<int>(1));
    });
    EXPECT_EQ(leak.handles, 5);
    EXPECT_GE(leak.blocks, 5);
}

} // namespace
