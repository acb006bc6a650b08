#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"

#include <algorithm>
#include <cstring>
#include <deque>

using namespace RunTime;

namespace {

// Names that only the prefixed form reaches, and long ones.
const std::wstring oddNames[] = {
    L"trailing dot.",          L"trailing blank ",      L"CON", L"aux.txt", L"...",
    L"\U0001F600\u00E4\u0416", std::wstring(250, L'n'),
};

// A path of well over 260 characters.
std::wstring deepName() {
    std::wstring name;
    for (int i = 0; i < 6; ++i) {
        name += std::wstring(60, static_cast<wchar_t>(L'a' + i)) + L"\\";
    }
    return name + L"last";
}

// Against anybody else's opening it.
AutoHandle hold(const std::wstring& path) {
    AutoHandle handle(::CreateFileW(path.c_str(), DELETE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    EXPECT_TRUE(handle) << toUtf8(path);
    return handle;
}

} // namespace

TEST(FilePrimitivesTest, OddAndLongNamesAreCreatedListedMovedAndDeleted) {
    const TempDirectory temp;
    std::vector<std::wstring> names(std::begin(oddNames), std::end(oddNames));
    names.push_back(deepName());
    for (const std::wstring& name : names) {
        SCOPED_TRACE(toUtf8(name));
        temp.writeFile(L"a\\" + name);
        const std::wstring file = temp / (L"a\\" + name);
        EXPECT_TRUE(exists(file));
        EXPECT_FALSE(isDirectory(file));
        EXPECT_EQ(fileInformation(file).name, lastName(name));
        EXPECT_EQ(fileInformation(file).size, 4);

        const std::wstring directory = file + L"2";
        EXPECT_TRUE(createDirectory(directory));
        EXPECT_FALSE(createDirectory(directory));
        EXPECT_TRUE(isDirectory(directory));
        moveEx(file, directory + L"\\moved.");
        EXPECT_FALSE(exists(file));
        const std::wstring renamed = temporaryMove(directory, L"$Backup");
        EXPECT_TRUE(beginsWith(lastName(renamed), L"$Backup"));
        EXPECT_EQ(parentPath(renamed), parentPath(file));
        EXPECT_EQ(treeSize(renamed).bytes, 4);
        deleteFile(renamed + L"\\moved.");
        removeDirectory(renamed);
        EXPECT_FALSE(exists(renamed));
    }
}

namespace {

std::wstring offender; // a path of 248 characters or more that reached the system without prefix

// One import whose first argument is a path, and of a move the second.
class PathWatch {
public:
    explicit PathWatch(const std::string& name)
        : arguments_(name == "MoveFileExW" ? 2 : 1), original_(nullptr),
          patch_(nullptr, name.c_str(), newImportThunk(this, &look, nullptr, &original_)) {
        original_ = patch_.original<void*>();
    }

private:
    static std::uintptr_t look(void* self, const std::uintptr_t* arguments) {
        for (int i = 0; i < static_cast<PathWatch*>(self)->arguments_; ++i) {
            const std::wstring path = reinterpret_cast<const wchar_t*>(arguments[3 - i]);
            offender = path.size() >= 248 && !beginsWith(path, longPrefix) ? path : offender;
        }
        return 0;
    }

    const int arguments_;
    void* original_;
    ImportPatch patch_;
};

} // namespace

TEST(FilePrimitivesTest, LongPathsCarryThePrefixToEveryCall) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(deepName()).substr(4); // as typed
    offender.clear();
    std::deque<PathWatch> watched;
    for (const char* name : {"CreateFileW", "CreateDirectoryW", "DeleteFileW", "RemoveDirectoryW",
                             "MoveFileExW", "GetFileAttributesW", "FindFirstFileExW",
                             "GetShortPathNameW", "GetLongPathNameW", "GetVolumePathNameW"}) {
        watched.emplace_back(name);
    }

    EXPECT_TRUE(exists(file));
    EXPECT_EQ(fileInformation(file).size, 4);
    moveEx(file, file + L"2");
    moveEx(file + L"2", file);
    EXPECT_TRUE(createDirectory(file + L"d"));
    EXPECT_EQ(treeSize(temp.nice()).files, 1);
    const std::wstring temporary = nicePath(temporaryMove(file + L"d", L"x"));
    EXPECT_FALSE(exists(temporaryName(parentPath(file), L"y")));
    EXPECT_TRUE(theSameDirectory(temporary, temporary));
    EXPECT_TRUE(theSameVolume(temporary, file + L"\\missing"));
    EXPECT_EQ(longNamePath(shortPath(file)).size(), longNamePath(file).size());
    deleteFile(file);
    removeDirectory(temporary);
    EXPECT_EQ(offender, L"");
    EXPECT_FALSE(exists(file) || exists(temporary));
}

TEST(FilePrimitivesTest, WhatIsThereIsToldFromWhatIsNot) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"Mixed Case", "four");
    temp.makeDirectory(L"directory");
    EXPECT_TRUE(isDirectory(temp / L"directory\\"));
    EXPECT_FALSE(isDirectory(file));
    EXPECT_TRUE(exists(L"C:"));
    EXPECT_TRUE(isDirectory(L"\\\\?\\C:"));
    EXPECT_EQ(fileInformation(temp / L"MIXED CASE").name, L"Mixed Case");
    EXPECT_TRUE(fileInformation(L"C:\\").isDirectory());
    for (const std::wstring& missing : {temp / L"x", temp / L"x\\y", file + L"\\x", temp / L"a?b",
                                        temp / L"a*", std::wstring(L"\\\\?\\Q:\\x")}) {
        SCOPED_TRACE(toUtf8(missing));
        EXPECT_FALSE(exists(missing));
        EXPECT_FALSE(isDirectory(missing));
    }
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND,
                                        L"Unable to get file information (" + temp.nice() + L"\\x)",
                                        [&] { fileInformation(temp / L"x"); });
    expectError<VInvalidNameException>(
        ERROR_INVALID_NAME, L"Unable to get file information (" + temp.nice() + L"\\Mixed*)",
        [&] { fileInformation(temp / L"Mixed*"); });
}

TEST(FilePrimitivesTest, DeniedAttributesAreLookedUpInTheDirectoryAndByHandle) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"file");
    temp.makeDirectory(L"directory");
    FaultPoint attributes("GetFileAttributesW");
    attributes.failAt = 0;
    attributes.failOnwards = true;
    attributes.result = INVALID_FILE_ATTRIBUTES;
    EXPECT_TRUE(exists(file));
    EXPECT_TRUE(isDirectory(temp / L"directory"));
    EXPECT_FALSE(exists(temp / L"missing"));
    FaultPoint find("FindFirstFileExW");
    find.failAt = 0;
    find.failOnwards = true;
    find.result = reinterpret_cast<std::uintptr_t>(INVALID_HANDLE_VALUE);
    EXPECT_TRUE(exists(file));
    EXPECT_TRUE(isDirectory(temp / L"directory"));
    EXPECT_FALSE(exists(temp / L"missing"));
    FaultPoint open("CreateFileW");
    open.failAt = 0;
    open.failOnwards = true;
    open.result = find.result.load();
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED,
                                        L"Unable to get attributes (" + nicePath(file) + L")",
                                        [&] { exists(file); });
    open.code = ERROR_SHARING_VIOLATION; // someone has it open: there
    EXPECT_TRUE(exists(file));
}

TEST(FilePrimitivesTest, OnlyReparsePointsThatNameAnotherItemAreLinks) {
    const TempDirectory temp;
    NtfsFake ntfs;
    temp.writeFile(L"outside\\file", "12345");
    temp.writeFile(L"tree\\own", "123");
    for (const DWORD tag : {IO_REPARSE_TAG_SYMLINK, IO_REPARSE_TAG_MOUNT_POINT}) {
        const std::wstring link = temp / L"tree\\link" + std::to_wstring(tag);
        ntfs.makeLink(link, temp.nice() + L"\\outside", tag, true);
        EXPECT_TRUE(exists(link));
        EXPECT_FALSE(isDirectory(link));
        EXPECT_TRUE(fileInformation(link).isLink());
        EXPECT_EQ(treeSize(link).files, 0);
    }
    for (const DWORD tag : {0x80000013ul, 0x9000001Aul}) { // deduplicated, kept in a cloud
        ntfs.setForeignTag(temp.makeDirectory(L"tree\\other"), tag, "x");
        EXPECT_TRUE(isDirectory(temp / L"tree\\other")) << tag;
    }
    const TreeSize size = treeSize(temp / L"tree");
    EXPECT_EQ(size.bytes, 3);
    EXPECT_EQ(size.files, 1);
    EXPECT_EQ(size.directories, 1);
}

TEST(FileRetryTest, DeletionWaitsForAHolderThatLetsGo) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"file");
    static AutoHandle holder;
    holder = hold(file);
    const ImportPatch pause(
        "Sleep", +[](DWORD) { holder.reset(); });
    deleteFile(file, 3);
    EXPECT_FALSE(temp.has(L"file"));
}

TEST(FileRetryTest, OnlyPassingCausesAreTriedAgainAndNotForEver) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"file");
    const auto attempts = [&](DWORD code, int tryCount) {
        FaultPoint fault("DeleteFileW");
        fault.failAt = 0;
        fault.failOnwards = true;
        fault.code = code;
        try {
            deleteFile(file, tryCount);
            ADD_FAILURE() << "deleted";
        } catch (const vosexception& e) {
            EXPECT_EQ(e.get_errorCode(), code);
        }
        return fault.calls.load();
    };
    for (const DWORD code : {ERROR_SHARING_VIOLATION, ERROR_LOCK_VIOLATION, ERROR_DIR_NOT_EMPTY,
                             ERROR_USER_MAPPED_FILE, ERROR_DELETE_PENDING}) {
        EXPECT_EQ(attempts(code, 3), 3) << code;
    }
    for (const DWORD code : {ERROR_DISK_FULL, ERROR_NOT_SAME_DEVICE, ERROR_INVALID_NAME}) {
        EXPECT_EQ(attempts(code, 3), 1) << code;
    }
    EXPECT_EQ(attempts(ERROR_SHARING_VIOLATION, 0), 1);
}

TEST(FileRetryTest, CancellationEndsTheWaiting) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"file");
    const AutoHandle holder = hold(file);
    const ThreadCancelation::CancelationPoint cancellable;
    const ImportPatch pause(
        "Sleep", +[](DWORD) { ThreadCancelation::request(::GetCurrentThreadId()); });
    expectError<CanceledException>(L"Canceled!", [&] { deleteFile(file, 1000); });
    EXPECT_TRUE(temp.has(L"file"));
}

TEST(FileDeleteTest, ReadOnlyIsPassedAndOtherNamesKeepIt) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"file", "data", FILE_ATTRIBUTE_READONLY);
    const std::wstring other = temp / L"other";
    ASSERT_TRUE(::CreateHardLinkW(other.c_str(), file.c_str(), nullptr));
    deleteFile(file, 1);
    EXPECT_FALSE(temp.has(L"file"));
    EXPECT_NE(::GetFileAttributesW(other.c_str()) & FILE_ATTRIBUTE_READONLY, 0u);
    deleteFile(other, 1);
    EXPECT_FALSE(temp.has(L"other"));
}

namespace {

// SetFileInformationByHandle as systems of different ages have it.
struct Dispositions {
    static inline decltype(&::SetFileInformationByHandle) original = nullptr;
    static inline bool knowsExtended = false;
    static inline bool refuses = false;
    static inline DWORD flags = 0;
    static inline int basic = 0;

    static BOOL WINAPI set(HANDLE handle, FILE_INFO_BY_HANDLE_CLASS kind, void* data, DWORD size) {
        if (kind == static_cast<FILE_INFO_BY_HANDLE_CLASS>(21)) {
            if (!knowsExtended) {
                ::SetLastError(ERROR_INVALID_PARAMETER);
                return FALSE;
            }
            std::memcpy(&flags, data, sizeof(flags));
            return TRUE;
        }
        basic += kind == FileBasicInfo;
        if (kind == FileDispositionInfo && refuses) {
            ::SetLastError(ERROR_ACCESS_DENIED);
            return FALSE;
        }
        return original(handle, kind, data, size);
    }
};

} // namespace

TEST(FileDeleteTest, ReadOnlyIsPutBackWhenTheDeletionFails) {
    const TempDirectory temp;
    const std::wstring file =
        temp.writeFile(L"file", "data", FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
    const ImportPatch patch("SetFileInformationByHandle", &Dispositions::set);
    Dispositions::original = patch.original<decltype(Dispositions::original)>();
    Dispositions::knowsExtended = false;
    Dispositions::refuses = true;
    Dispositions::basic = 0;
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED,
                                        L"Unable to delete file (" + nicePath(file) + L")",
                                        [&] { deleteFile(file, 1); });
    EXPECT_EQ(Dispositions::basic, 2); // cleared and put back
    EXPECT_EQ(::GetFileAttributesW(file.c_str()) &
                  (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN),
              DWORD{FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN});

    // A system that can ignore the attribute is asked to, and nothing else is touched.
    Dispositions::knowsExtended = true;
    Dispositions::basic = 0;
    deleteFile(file, 1);
    EXPECT_EQ(Dispositions::flags, 0x13u); // delete, at once, read-only ignored
    EXPECT_EQ(Dispositions::basic, 0);
}

TEST(FileDeleteTest, AFileIsNoDirectoryAndTheOtherWayRound) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"full\\file");
    const std::wstring empty = temp.makeDirectory(L"empty");
    FaultPoint pauses("Sleep");
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED,
                                        L"Unable to delete file (" + nicePath(empty) + L")",
                                        [&] { deleteFile(empty); });
    expectError<VInvalidDirectoryNameException>(
        ERROR_DIRECTORY, L"Unable to remove directory (" + nicePath(file) + L")",
        [&] { removeDirectory(file); });
    EXPECT_EQ(pauses.calls, 0) << "neither will change by waiting";
    expectError<VDirectoryNotEmptyException>(
        ERROR_DIR_NOT_EMPTY, L"Unable to remove directory (" + temp.nice() + L"\\full)",
        [&] { removeDirectory(temp / L"full", 1); });
    deleteFile(temp / L"missing");
    removeDirectory(temp / L"missing\\below");
    EXPECT_EQ(temp.list(), (std::vector<std::wstring>{L"empty\\", L"full\\", L"full\\file"}));
}

TEST(FileMoveTest, MoveSaysWhatItCouldNotDo) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"a");
    temp.writeFile(L"b");
    const std::wstring text =
        L"Unable to move (" + temp.nice() + L"\\a) to (" + temp.nice() + L"\\b)";
    expectError<VAlreadyExistsException>(ERROR_ALREADY_EXISTS, text,
                                         [&] { moveEx(temp.nice() + L"\\a", temp / L"b"); });
    expectError<ArgumentException>(L"A move must not become a copy", [&] {
        moveEx(file, temp / L"c", MOVEFILE_COPY_ALLOWED | MOVEFILE_REPLACE_EXISTING);
    });
    moveEx(file, temp / L"b", MOVEFILE_REPLACE_EXISTING);
    temp.makeDirectory(L"d");
    moveEx(temp / L"d\\", temp / L"e\\");
    EXPECT_EQ(temp.list(), (std::vector<std::wstring>{L"b", L"e\\"}));
}

TEST(FileMoveTest, TemporaryNamesAreFreshEvenWhenSomeAreTaken) {
    const TempDirectory temp;
    const std::wstring directory = temp.makeDirectory(L"directory");
    {
        FaultPoint move("MoveFileExW");
        move.failAt = 0;
        move.code = ERROR_ALREADY_EXISTS;
        const std::wstring now = temporaryMove(temp.nice() + L"\\directory\\", L"$Backup", 1);
        EXPECT_TRUE(beginsWith(now, temp / L"$Backup"));
        EXPECT_EQ(temp.list(), (std::vector<std::wstring>{lastName(now) + L"\\"}));
        moveEx(now, directory);
        move.failAt = move.calls.load();
        move.failOnwards = true;
        EXPECT_THROW(temporaryMove(directory, L"$Backup"), VAlreadyExistsException);
    }
    expectError<ArgumentException>(L"A root (C:\\) cannot be renamed",
                                   [] { temporaryMove(L"C:\\", L"x"); });

    const std::wstring first = temporaryName(temp.nice(), L"{stem}");
    EXPECT_TRUE(beginsWith(first, temp / L"{stem}"));
    EXPECT_NE(first, temporaryName(temp.path(), L"{stem}"));
    FaultPoint attributes("GetFileAttributesW"); // returns 0: there
    attributes.failAt = 0;
    attributes.failOnwards = true;
    expectError<VFileExistsException>(ERROR_FILE_EXISTS,
                                      L"Unable to find a temporary name in (" + temp.nice() + L")",
                                      [&] { temporaryName(temp.path(), L"x", 3); });
    EXPECT_EQ(attributes.calls, 3);
}

TEST(FileMoveTest, DirectoriesAreMadeOnceAndNeverOverAFile) {
    const TempDirectory temp;
    temp.writeFile(L"file");
    expectError<VAlreadyExistsException>(ERROR_ALREADY_EXISTS,
                                         L"Unable to create directory (" + temp.nice() + L"\\file)",
                                         [&] { createDirectory(temp / L"file"); });
    expectError<VPathNotFoundException>(ERROR_PATH_NOT_FOUND,
                                        L"Unable to create directory (" + temp.nice() + L"\\a\\b)",
                                        [&] { createDirectory(temp / L"a\\b"); });
    EXPECT_FALSE(createDirectory(L"C:\\"));
}

TEST(TreeSizeTest, EverythingBelowIsCountedUntilEnoughIsKnown) {
    const TempDirectory temp;
    temp.writeFile(L"a\\1", "1");
    temp.writeFile(L"a\\b\\2", "22");
    temp.writeFile(L"a\\b\\" + deepName(), "4444");
    temp.makeDirectory(L"a\\empty");
    const TreeSize size = treeSize(temp / L"a\\");
    EXPECT_EQ(size.bytes, 7);
    EXPECT_EQ(size.files, 3);
    EXPECT_EQ(size.directories, 8);
    EXPECT_EQ(treeSize(temp / L"a\\b\\2").bytes, 2);
    EXPECT_EQ(treeSize(temp / L"missing\\x").bytes, 0);
    int asked = 0;
    const TreeSize seen = treeSize(temp / L"a", [&](const TreeSize& s) {
        ++asked;
        return s.files == 1;
    });
    EXPECT_EQ(seen.files, 1);
    EXPECT_EQ(asked, static_cast<int>(seen.files + seen.directories));
    // Nothing stays open: the tree can be renamed.
    moveEx(temp / L"a", temp / L"z", 0, 1);
    // Whoever holds a directory against listing is named.
    const AutoHandle holder = hold(temp / L"z\\b");
    expectError<VSharingViolationException>(
        ERROR_SHARING_VIOLATION, L"Unable to list directory (" + temp.nice() + L"\\z\\b)",
        [&] { openPinnedDirectory(temp / L"z\\b", 1); });
}
