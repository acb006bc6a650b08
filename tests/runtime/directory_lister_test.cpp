#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/text.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

using namespace RunTime;

namespace {

std::vector<std::wstring> namesOf(DirectoryLister& lister) {
    std::vector<std::wstring> names;
    for (FileInformation entry; lister.next(entry);) {
        if (!isDotEntry(entry.name)) {
            names.push_back(entry.name);
        }
    }
    FileInformation entry;
    EXPECT_FALSE(lister.next(entry)) << "the end stays the end";
    std::sort(names.begin(), names.end());
    return names;
}

// A file system that answers a listing with one buffer of our making.
struct FakeListing {
    static inline std::vector<std::byte> answer;
    static inline bool given = false;

    static BOOL WINAPI get(HANDLE, FILE_INFO_BY_HANDLE_CLASS, void* buffer, DWORD size) {
        if (given) {
            ::SetLastError(ERROR_NO_MORE_FILES);
            return FALSE;
        }
        given = true;
        std::memset(buffer, 0xEE, size);
        std::memcpy(buffer, answer.data(), std::min<std::size_t>(size, answer.size()));
        return TRUE;
    }

    static void set(DWORD next, DWORD nameLength, std::wstring_view name, DWORD attributes = 0,
                    DWORD tag = 0) {
        constexpr std::size_t nameOffset = offsetof(FILE_ID_BOTH_DIR_INFO, FileName);
        FILE_ID_BOTH_DIR_INFO information = {};
        information.NextEntryOffset = next;
        information.FileNameLength = nameLength;
        information.FileAttributes = attributes;
        information.EaSize = tag;
        information.EndOfFile.QuadPart = 5;
        information.FileId.QuadPart = 77;
        answer.assign(nameOffset + name.size() * sizeof(wchar_t), std::byte{});
        std::memcpy(answer.data(), &information, nameOffset);
        std::memcpy(answer.data() + nameOffset, name.data(), name.size() * sizeof(wchar_t));
        given = false;
    }
};

} // namespace

TEST(DirectoryListerTest, ListsManyBuffersFullByHandleAndByPath) {
    const TempDirectory temp;
    std::vector<std::wstring> expected;
    for (int i = 0; i < 300; ++i) { // some 90 KB of entries
        expected.push_back(std::wstring(90, L'n') + L" " + std::to_wstring(1000 + i) + L".");
        temp.writeFile(expected.back());
    }
    const AutoHandle handle = openPinnedDirectory(temp.path());
    DirectoryLister lister(handle.get(), temp.path());
    EXPECT_EQ(namesOf(lister), expected);
    FaultPoint byHandle("GetFileInformationByHandleEx");
    byHandle.failAt = 0;
    byHandle.code = ERROR_INVALID_PARAMETER;
    DirectoryLister byPath(handle.get(), temp.path());
    EXPECT_EQ(namesOf(byPath), expected);
    EXPECT_EQ(byHandle.calls, 1);

    byHandle.failAt = 2; // in the middle of the next listing
    byHandle.code = ERROR_CRC;
    DirectoryLister broken(handle.get(), temp.path());
    expectError<vosexception>(ERROR_CRC, L"Unable to list directory (" + temp.nice() + L")",
                              [&] { namesOf(broken); });
}

TEST(DirectoryListerTest, EntriesTellWhatTheItemsThemselvesTell) {
    const TempDirectory temp;
    temp.writeFile(L"file", "12345", FILE_ATTRIBUTE_HIDDEN);
    temp.makeDirectory(L"directory");
    const AutoHandle handle = openPinnedDirectory(temp.path());
    DirectoryLister lister(handle.get(), temp.path());
    int dots = 0;
    for (FileInformation entry; lister.next(entry);) {
        if (isDotEntry(entry.name)) {
            ++dots;
            continue;
        }
        SCOPED_TRACE(toUtf8(entry.name));
        const FileInformation item = fileInformation(temp / entry.name);
        EXPECT_EQ(entry.attributes, item.attributes);
        EXPECT_EQ(entry.size, entry.isDirectory() ? 0 : 5);
        EXPECT_EQ(entry.lastWriteTime, item.lastWriteTime);
        EXPECT_EQ(entry.creationTime, item.creationTime);
        EXPECT_NE(entry.fileId, 0u);
    }
    EXPECT_EQ(dots, 2);
}

TEST(DirectoryListerTest, DamagedListingsAreRefused) {
    const TempDirectory temp;
    const AutoHandle handle = openPinnedDirectory(temp.path());
    const ImportPatch patch("GetFileInformationByHandleEx", &FakeListing::get);
    const auto list = [&] {
        DirectoryLister lister(handle.get(), temp.path());
        FileInformation last;
        for (FileInformation entry; lister.next(entry);) {
            last = entry;
        }
        return last;
    };
    FakeListing::set(0, 6, L"abc", FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT,
                     IO_REPARSE_TAG_MOUNT_POINT);
    EXPECT_EQ(list().name, L"abc");
    FakeListing::set(0, 6, L"abc", FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT,
                     IO_REPARSE_TAG_MOUNT_POINT);
    EXPECT_TRUE(list().isLink());
    FakeListing::set(0, 6, L"abc", 0, 12); // the size of extended attributes
    EXPECT_EQ(list().reparseTag, 0u);

    struct Damage {
        DWORD next;
        DWORD nameLength;
        std::wstring name;
    };
    const Damage cases[] = {
        {0, 0xFFFFFFFE, L"abc"},
        {0, 0x7FFFFFFE, L"abc"},
        {0, 32 * 1024 - offsetof(FILE_ID_BOTH_DIR_INFO, FileName) + 2, L"abc"},
        {0, 5, L"abc"},
        {8, 6, L"abc"},
        {0xFFFFFFFF, 6, L"abc"},
        {32700, 6, L"abc"},
        {32769, 6, L"abc"},
        {0, 8, L"..\\x"},
        {0, 6, L"a/b"},
        {0, 6, {L"a\0b", 3}},
    };
    for (const Damage& row : cases) {
        SCOPED_TRACE(std::to_string(row.next) + ", " + std::to_string(row.nameLength));
        FakeListing::set(row.next, row.nameLength, row.name);
        expectError<vosexception>(ERROR_INVALID_DATA,
                                  L"Unable to list directory (" + temp.nice() + L")", list);
    }
}
