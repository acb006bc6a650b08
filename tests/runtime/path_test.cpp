#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/text.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unix_call.h"

using namespace RunTime;

namespace {

struct Texts {
    const wchar_t* given;
    const wchar_t* expected;
};

// The current directory for the life of the object.
class CurrentDirectory {
public:
    explicit CurrentDirectory(const std::wstring& path) {
        ::GetCurrentDirectoryW(MAX_PATH, old_);
        EXPECT_TRUE(::SetCurrentDirectoryW(path.c_str()));
    }
    ~CurrentDirectory() { ::SetCurrentDirectoryW(old_); }

private:
    wchar_t old_[MAX_PATH] = {};
};

} // namespace

TEST(LongPathTest, TypedPathsBecomeAbsoluteAndPrefixed) {
    const CurrentDirectory current(L"C:\\windows");
    constexpr Texts cases[] = {
        {L"C:\\data", L"\\\\?\\C:\\data"},
        {L"C:/data/sub/", L"\\\\?\\C:\\data\\sub\\"},
        {L"C:\\data\\..\\other\\.\\x", L"\\\\?\\C:\\other\\x"},
        {L"C:\\..\\..\\x", L"\\\\?\\C:\\x"},
        {L"C:\\data\\name. .", L"\\\\?\\C:\\data\\name"},
        {L"C:foo", L"\\\\?\\C:\\windows\\foo"},
        {L"\\foo", L"\\\\?\\C:\\foo"},
        {L"foo\\bar", L"\\\\?\\C:\\windows\\foo\\bar"},
        {L"\\\\server\\share\\x", L"\\\\?\\UNC\\server\\share\\x"},
        {L"//server/share", L"\\\\?\\UNC\\server\\share"},
        {L"//?/C:/x/../y", L"\\\\?\\C:\\y"},
        {L"C:\\\U0001F600\\\u00E4", L"\\\\?\\C:\\\U0001F600\\\u00E4"},
    };
    for (const Texts& row : cases) {
        SCOPED_TRACE(toUtf8(row.given));
        EXPECT_EQ(longPath(row.given), row.expected);
    }
}

TEST(LongPathTest, PrefixedPathsStayAsTheyAre) {
    for (const wchar_t* path :
         {L"\\\\?\\C:\\data\\name. .", L"\\\\?\\C:\\x\\CON", L"\\\\?\\UNC\\server\\share\\aux.txt",
          L"\\\\?\\Volume{00000000-0000-0000-0000-000000000043}\\x", L"\\\\?\\C:\\a/b\\..\\c"}) {
        EXPECT_EQ(longPath(path), path);
    }
}

TEST(LongPathTest, DevicesAreRefused) {
    for (const wchar_t* path : {L"NUL", L"con.txt", L"COM1  ", L"C:\\x\\aux.log", L"LPT9:",
                                L"\\\\.\\C:\\x", L"\\\\.\\pipe\\x", L"//./C:/x"}) {
        expectError<ArgumentException>(L"The path (" + std::wstring(path) +
                                           L") names a device, not a file or directory",
                                       [&] { longPath(path); });
    }
}

TEST(LongPathTest, UnusableTextsAreRefused) {
    expectError<ArgumentException>(L"The path is empty", [] { longPath(L""); });
    expectError<ArgumentException>(L"The path has a zero character in it",
                                   [] { longPath(std::wstring(L"C:\\a\0b", 6)); });
    expectError<VInvalidNameException>(ERROR_INVALID_NAME, L"Unable to get a full path (   )",
                                       [] { longPath(L"   "); });
    const std::wstring tail(32700, L'a');
    EXPECT_EQ(longPath(L"C:\\" + tail).size(), 7 + tail.size());
    for (const std::wstring& path :
         {L"C:\\" + tail + std::wstring(62, L'b'), // too long once it has its prefix
          std::wstring(L"\\\\?\\C:\\") + tail + std::wstring(60, L'b'),
          std::wstring(70000, L'a')}) {
        expectError<vosexception>(ERROR_FILENAME_EXCED_RANGE,
                                  L"Unable to get a full path: it is too long",
                                  [&] { longPath(path); });
    }
}

TEST(NicePathTest, PrefixIsCutOff) {
    constexpr Texts cases[] = {
        {L"\\\\?\\C:\\data", L"C:\\data"},
        {L"\\\\?\\UNC\\server\\share\\x", L"\\\\server\\share\\x"},
        {L"\\\\?\\unc\\server\\share", L"\\\\server\\share"},
        {L"C:\\data", L"C:\\data"},
        {L"\\\\server\\share", L"\\\\server\\share"},
        {L"\\\\?\\", L""},
        {L"\\\\?", L"\\\\?"},
        {L"", L""},
    };
    for (const Texts& row : cases) {
        EXPECT_EQ(nicePath(row.given), row.expected) << toUtf8(row.given);
    }
}

TEST(PathPartsTest, RootParentAndNameAreFoundInBothForms) {
    struct Parts {
        const wchar_t* path;
        bool root;
        const wchar_t* parent;
        const wchar_t* name;
        const wchar_t* bare; // without the backslash at the end
    };
    constexpr Parts cases[] = {
        {L"C:\\", true, L"", L"", L"C:\\"},
        {L"C:", true, L"", L"", L"C:"},
        {L"C:\\a", false, L"C:\\", L"a", L"C:\\a"},
        {L"C:\\a\\b\\\\", false, L"C:\\a", L"b", L"C:\\a\\b"},
        {L"\\\\?\\C:\\", true, L"", L"", L"\\\\?\\C:\\"},
        {L"\\\\?\\C:\\a", false, L"\\\\?\\C:\\", L"a", L"\\\\?\\C:\\a"},
        {L"\\\\?\\C:\\a\\ \\", false, L"\\\\?\\C:\\a", L" ", L"\\\\?\\C:\\a\\ "},
        {L"\\\\?\\Volume{1}\\", true, L"", L"", L"\\\\?\\Volume{1}\\"},
        {L"\\\\?\\Volume{1}", true, L"", L"", L"\\\\?\\Volume{1}"},
        {L"\\\\?\\Volume{1}\\a", false, L"\\\\?\\Volume{1}\\", L"a", L"\\\\?\\Volume{1}\\a"},
        {L"\\\\s\\h", true, L"", L"", L"\\\\s\\h"},
        {L"\\\\s\\h\\", true, L"", L"", L"\\\\s\\h"},
        {L"\\\\s\\h\\a", false, L"\\\\s\\h", L"a", L"\\\\s\\h\\a"},
        {L"\\\\?\\UNC\\s\\h\\", true, L"", L"", L"\\\\?\\UNC\\s\\h"},
        {L"\\\\?\\UNC\\s\\h\\a", false, L"\\\\?\\UNC\\s\\h", L"a", L"\\\\?\\UNC\\s\\h\\a"},
        {L"name", false, L"", L"name", L"name"},
        {L"a\\b", false, L"a", L"b", L"a\\b"},
        {L"", false, L"", L"", L""},
        {L"\\", false, L"", L"", L"\\"},
    };
    for (const Parts& row : cases) {
        SCOPED_TRACE(toUtf8(row.path));
        EXPECT_EQ(isRoot(row.path), row.root);
        EXPECT_EQ(parentPath(row.path), row.parent);
        EXPECT_EQ(lastName(row.path), row.name);
        EXPECT_EQ(withoutTrailingBackslash(row.path), row.bare);
    }
}

TEST(PathPartsTest, CombineLeavesOneBackslash) {
    EXPECT_EQ(combine(L"C:\\", L"a"), L"C:\\a");
    EXPECT_EQ(combine(L"C:\\a\\\\", L"b"), L"C:\\a\\b");
    EXPECT_EQ(combine(L"\\\\?\\C:\\a", L". "), L"\\\\?\\C:\\a\\. ");
    EXPECT_EQ(combine(L"", L"a"), L"a");
}

TEST(PathNamesTest, ComparisonIgnoresCaseAndNothingElse) {
    EXPECT_TRUE(equalNames(L"\u00C4pfel \u0416", L"\u00E4PFEL \u0436"));
    EXPECT_TRUE(equalNames(L"", L""));
    EXPECT_TRUE(equalNames({}, L""));
    EXPECT_FALSE(equalNames(L"stra\u00DFe", L"strasse"));
    EXPECT_FALSE(equalNames(L"co-op", L"coop")); // what a collation would take for equal
    EXPECT_FALSE(equalNames(L"a", L"a "));
    EXPECT_TRUE(beginsWith(L"C:\\DATA2", L"c:\\data"));
    EXPECT_TRUE(beginsWith(L"x", L""));
    EXPECT_FALSE(beginsWith(L"C:\\dat", L"C:\\data"));
    EXPECT_TRUE(isDotEntry(L".") && isDotEntry(L"..") && isDotEntry(L""));
    EXPECT_FALSE(isDotEntry(L"...") || isDotEntry(L".a"));
}

TEST(PathInsideTest, OnlyWholeComponentsBelowCount) {
    struct Row {
        std::wstring path;
        const wchar_t* directory;
        bool inside;
    };
    const Row cases[] = {
        {L"\\\\?\\C:\\data\\a", L"\\\\?\\C:\\data", true},
        {L"\\\\?\\c:\\DATA\\a\\b", L"\\\\?\\C:\\data\\", true},
        {L"\\\\?\\C:\\a", L"\\\\?\\C:\\", true},
        {L"\\\\?\\C:\\data\\...", L"\\\\?\\C:\\data",
         true}, // a name like any other with the prefix
        {L"\\\\?\\UNC\\s\\h\\a", L"\\\\?\\UNC\\s\\h", true},
        {L"C:\\data\\.htaccess", L"C:\\data", true},
        {L"\\\\?\\C:\\data", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data\\", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data2\\a", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\D:\\data\\a", L"\\\\?\\C:\\data", false},
        {L"C:\\data\\a", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data\\..", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data\\a\\..\\..\\x", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data\\.\\a", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data\\\\a", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data\\a/../../x", L"\\\\?\\C:\\data", false},
        {L"\\\\?\\C:\\data\\a:stream", L"\\\\?\\C:\\data", false},
        {std::wstring(L"\\\\?\\C:\\data\\\0a", 14), L"\\\\?\\C:\\data", false},
        {L"C:\\data\\.. \\x", L"C:\\data", false},
        {L"\\\\?\\C:\\x\\..\\data\\a", L"\\\\?\\C:\\x\\..\\data", false},
        {L"\\a", L"", false},
        {L"\\\\?\\UNC\\s\\h\\a", L"\\\\?\\UNC\\s", false}, // a server is no directory
    };
    for (const Row& row : cases) {
        EXPECT_EQ(isStrictlyInside(row.path, row.directory), row.inside)
            << toUtf8(row.path) << " in " << toUtf8(row.directory);
    }
}

TEST(PathPrefixTest, PathIsInADirectoryByWholeComponentsWhateverItsForm) {
    for (const wchar_t* path :
         {L"D:\\a", L"d:/A/", L"\\\\?\\D:\\a\\", L"D:\\a\\b:stream", L"D:\\A\\\\b"}) {
        for (const wchar_t* directory : {L"D:\\a", L"D:/a/", L"\\\\?\\d:\\a", L"D:\\", L"D:"}) {
            EXPECT_TRUE(File::inpath(path, directory)) << toUtf8(path) << toUtf8(directory);
        }
        for (const wchar_t* directory :
             {L"D:\\a\\b", L"D:\\ab", L"C:\\a", L"\\", L"", L"\\\\s\\a"}) {
            EXPECT_FALSE(File::inpath(path, directory)) << toUtf8(path) << toUtf8(directory);
        }
    }
    EXPECT_TRUE(File::inpath(L"//S/H/a", L"\\\\?\\UNC\\s\\h\\"));
    EXPECT_FALSE(File::inpath(L"D:\\a\\b\\..\\..\\c", L"D:\\a"));
    EXPECT_FALSE(File::inpath(L"D:\\ab", L"D:\\a"));
    for (const wchar_t* path : {L"D:\\a", L"d:/", L"\\\\s\\h", L"//s", L"\\\\?\\D:\\"}) {
        EXPECT_TRUE(isFullyQualified(path)) << toUtf8(path);
    }
    for (const wchar_t* path : {L"", L"D:", L"D:a", L"\\a", L"a\\b", L"1:\\a", L"\"D:\\a\""}) {
        EXPECT_FALSE(isFullyQualified(path)) << toUtf8(path);
    }
}

TEST(PathNamesTest, ShortAndLongFormsLeadToEachOther) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"A rather long name\\and another one.txt");
    const std::wstring brief = shortPath(file);
    EXPECT_TRUE(beginsWith(brief, longPrefix));
    EXPECT_EQ(longNamePath(brief), file);
    const std::wstring typed = shortPath(nicePath(file));
    EXPECT_EQ(typed, nicePath(brief));
    EXPECT_EQ(longNamePath(typed), nicePath(file));
    EXPECT_TRUE(theSameDirectory(brief, nicePath(file)));
    // Names that exist with the prefix only are not mistaken for what they read as without it.
    const std::wstring odd = temp.writeFile(L"odd.");
    EXPECT_TRUE(equalNames(longNamePath(odd), odd));
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND,
                                        L"Unable to get a short path (" + temp.nice() + L"\\x)",
                                        [&] { shortPath(temp / L"x"); });
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND,
                                        L"Unable to get a long path (" + temp.nice() + L"\\x)",
                                        [&] { longNamePath(temp / L"x"); });
}

TEST(VolumeTest, RootIsThatOfTheNearestExistingDirectory) {
    const TempDirectory temp;
    EXPECT_EQ(volumeRoot(temp.nice() + L"\\missing\\below"), L"\\\\?\\C:\\");
    EXPECT_EQ(volumeRoot(L"C:"), L"\\\\?\\C:\\");
    EXPECT_EQ(volumeRoot(L"\\\\server\\share\\x\\y"), L"\\\\?\\UNC\\server\\share\\");
    EXPECT_TRUE(theSameVolume(temp.path(), L"c:\\missing"));
    EXPECT_FALSE(theSameVolume(temp.path(), L"\\\\server\\share\\x"));
    EXPECT_TRUE(theSameVolume(L"\\\\server\\share\\x", L"\\\\SERVER\\share\\y"));
    wchar_t drive[MAX_PATH] = {};
    if (::GetEnvironmentVariableW(L"ZOP_TEST_TMPFS_DRIVE", drive, MAX_PATH) != 0) {
        EXPECT_FALSE(theSameVolume(temp.path(), drive + std::wstring(L"missing")));
        EXPECT_TRUE(theSameVolume(longPath(drive), drive + std::wstring(L"missing\\x")));
    }
    const VolumeInformation volume = volumeInformation(temp / L"missing");
    EXPECT_EQ(volume.root, L"\\\\?\\C:\\");
    EXPECT_EQ(volume.fileSystem, L"NTFS");
    EXPECT_EQ(volume.driveType, UINT{DRIVE_FIXED});
    EXPECT_NE(volume.serial, 0u);
    EXPECT_GT(volume.freeBytes, 0u);
    EXPECT_GE(volume.totalBytes, volume.freeBytes);
    EXPECT_GE(volume.clusterBytes, 512u);
    expectError<VPathNotFoundException>(ERROR_PATH_NOT_FOUND,
                                        L"Unable to get volume information (Q:\\)",
                                        [] { volumeInformation(L"Q:\\x"); });
}

TEST(SameDirectoryTest, IdentityIsSeenThroughNamesAndLinks) {
    const TempDirectory temp;
    const std::wstring directory = temp.makeDirectory(L"Directory");
    temp.makeDirectory(L"other");
    EXPECT_TRUE(theSameDirectory(directory, temp.nice() + L"\\other\\..\\DIRECTORY\\"));
    EXPECT_FALSE(theSameDirectory(directory, temp / L"other"));
    EXPECT_FALSE(theSameDirectory(directory, temp / L"missing"));
    EXPECT_FALSE(theSameDirectory(temp / L"missing", temp / L"missing"));
    if (underWine()) {
        ASSERT_TRUE(unixSymlink(unixPath(directory), temp / L"link"));
        EXPECT_TRUE(theSameDirectory(directory, temp / L"link"));
        // Ids are compared as the file system has them: here only the narrow ones.
        FaultPoint wide("GetFileInformationByHandleEx");
        wide.failAt = 0;
        wide.failOnwards = true;
        wide.code = ERROR_INVALID_PARAMETER;
        EXPECT_TRUE(theSameDirectory(directory, temp / L"link"));
        EXPECT_FALSE(theSameDirectory(directory, temp / L"other"));
    }
    FaultPoint open("CreateFileW");
    open.failAt = 1;
    open.result = reinterpret_cast<std::uintptr_t>(INVALID_HANDLE_VALUE);
    expectError<VAccessDeniedException>(
        ERROR_ACCESS_DENIED, L"Unable to get file information (" + temp.nice() + L"\\other)",
        [&] { theSameDirectory(directory, temp / L"other"); });
}
