// What the other tests rely on without looking: that images and fingerprints show every change,
// that the fake notices a wrong use of the backup API, that counters show a leak.
#include "tests/support/ntfs_fake.h"

#include "runtime/auto_handle.h"
#include "tests/support/process_counters.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"

#include <cstring>
#include <functional>
#include <gmock/gmock.h>

namespace {

using RunTime::AutoHandle;

AutoHandle open(const std::wstring& path, DWORD access) {
    return AutoHandle(::CreateFileW(
        path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

TEST(NtfsFakeTest, EqualTreesHaveEqualImagesAndEveryChangeShows) {
    const TempDirectory temp;
    NtfsFake ntfs;
    for (const wchar_t* root : {L"one", L"two"}) {
        TreeBuilder(temp / root).everything();
    }
    const TreeImage rich = imageOf(temp / L"one");
    EXPECT_EQ(rich.size(), 40u);
    for (const auto& [name, item] : rich) {
        EXPECT_EQ(item.error, 0u) << testing::PrintToString(name);
    }
    EXPECT_TRUE(sameTree(rich, imageOf(temp / L"two")));
    EXPECT_TRUE(sameTree({}, imageOf(temp / L"missing")));
    EXPECT_EQ(rich.at(L"old").written, 100'000'000'000'000'000);
    EXPECT_EQ(rich.at(L"third link").linkedTo, L"links\\first");
    EXPECT_EQ(rich.at(L"odd\\con.txt").content, "device");

    const std::wstring root = temp / L"small", file = root + L"\\file";
    TreeBuilder(root).file(L"file", "text\r\n").directory(L"odd").directory(L"empty directory");
    const TreeImage first = imageOf(root);
    struct Case {
        std::function<void()> change;
        const char* line; // of the difference; null where an image shows none
    };
    const Case changes[] = {
        {[&] { ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_HIDDEN); },
         "'file' attributes: 0x0 -> 0x2;"},
        {[&] { ntfs.setStream(file, L"s", ""); }, " streams:  -> :s:$DATA= ;"},
        {[&] { ntfs.setStream(file, L"s", "text"); }, " streams:  -> :s:$DATA=text ;"},
        {[&] { ntfs.setSecurity(file, L"O:BUG:SYD:"); }, " security: "},
        {[&] { ntfs.setSecurity(file, L"O:BUG:SYD:NO_ACCESS_CONTROL"); }, " security: "},
        {[&] { ntfs.setEa(file, "e"); }, nullptr},
        {[&] {
             const std::int64_t time = TreeBuilder::defaultTime + 1;
             FILETIME written;
             std::memcpy(&written, &time, sizeof written);
             ::SetFileTime(open(root + L"\\odd", FILE_WRITE_ATTRIBUTES).get(), nullptr, nullptr,
                           &written);
         },
         "'odd' written: 132000000001234567 -> 132000000001234568;"},
        {[&] { temp.writeFile(L"small\\file", "texT\r\n"); },
         " content: text\\0d\\0a -> texT\\0d\\0a;"},
        {[&] { temp.makeDirectory(L"small\\odd\\new"); }, "'odd\\new' is new\n"},
        {[&] { ::RemoveDirectoryW((root + L"\\empty directory").c_str()); },
         "'empty directory' is missing\n"},
    };
    TreeImage image = first;
    std::string fingerprint = ntfs.fingerprint(root);
    EXPECT_EQ(ntfs.fingerprint(root), fingerprint);
    for (const Case& change : changes) {
        SCOPED_TRACE(&change - changes);
        change.change();
        EXPECT_NE(ntfs.fingerprint(root), std::exchange(fingerprint, ntfs.fingerprint(root)));
        const TreeImage now = imageOf(root);
        EXPECT_EQ(sameTree(image, now), change.line == nullptr);
        EXPECT_THAT(sameTree(first, now).message(),
                    testing::HasSubstr(change.line != nullptr ? change.line : ""));
        image = now;
    }
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
        void* other = nullptr;
        ::BackupWrite(file.get(), bytes, 20, &count, FALSE, FALSE, &other);
    }
    EXPECT_EQ(ntfs.takeViolations(),
              (std::vector<std::string>{"BackupRead: a context of another handle",
                                        "BackupWrite: a context of the other direction",
                                        "BackupWrite: a small stream in more than one call",
                                        "the handle was closed before its context was ended",
                                        "the handle was closed before its context was ended"}));
}

TEST(ProcessCountersTest, WhatIsKeptShows) {
    const TempDirectory temp;
    const std::wstring path = temp.writeFile(L"file");
    EXPECT_EQ(growthOver(20, [&] { open(path, GENERIC_READ); }).handles, 0);
    std::vector<AutoHandle> kept;
    std::vector<std::unique_ptr<int[]>> blocks;
    kept.reserve(10);
    blocks.reserve(10);
    const ProcessCounters leak = growthOver(5, [&] {
        kept.push_back(open(path, GENERIC_READ));
        blocks.push_back(std::make_unique<int[]>(1));
    });
    EXPECT_EQ(leak.handles, 5);
    EXPECT_EQ(leak.blocks, 5);
}

} // namespace
