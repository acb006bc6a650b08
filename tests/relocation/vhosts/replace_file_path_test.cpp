#include "relocation/vhosts/replace_file_path.h"

#include "relocation/vhosts/saved_file.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unix_call.h"

namespace {

using RunTime::replaceFilePathInFile;

std::string rewritten(const std::string& text, const wchar_t* from, const wchar_t* to) {
    const TempDirectory directory;
    const std::wstring file = directory.writeFile(L"config.php", text);
    const std::size_t count = replaceFilePathInFile(file, from, to);
    EXPECT_EQ(directory.list().size(), 1U) << "something is left beside the file";
    std::string result = directory.readFile(L"config.php");
    EXPECT_EQ(count == 0, result == text);
    return result;
}

} // namespace

TEST(ReplaceFilePathTest, WholePathsAreReplacedInTheSpellingThatTheyHave) {
    const std::pair<const char*, const char*> cases[] = {
        {"a = D:\\vhosts", "a = E:\\new\\place"},
        {"'D:\\vhosts\\a';\r\n'd:\\VHOSTS'", "'E:\\new\\place\\a';\r\n'E:\\new\\place'"},
        {"\"D:\\\\vhosts\\\\a\" D:/vhosts/a/D:/vhosts", // the last one is no path
         "\"E:\\\\new\\\\place\\\\a\" E:/new/place/a/E:/new/place"},
        {"\\\\?\\D:\\vhosts;D:\\vhosts,D:\\vhosts. D:\\vhosts...",
         "\\\\?\\E:\\new\\place;E:\\new\\place,E:\\new\\place. E:\\new\\place..."},
        {"D:\\vhosts2 D:\\vhosts.old D:\\vhosts-x D:\\vhosts_ D:\\vhosts~1 D:\\vhosts..a",
         "D:\\vhosts2 D:\\vhosts.old D:\\vhosts-x D:\\vhosts_ D:\\vhosts~1 D:\\vhosts..a"},
        {"D:\\vhosts\xC3\xA9 XD:\\vhosts D:\\vhost D:\\\\vhosts2 D:vhosts",
         "D:\\vhosts\xC3\xA9 XD:\\vhosts D:\\vhost D:\\\\vhosts2 D:vhosts"},
        {"", ""},
        {"D:\\vhos", "D:\\vhos"},
    };
    for (const auto& [before, after] : cases) {
        EXPECT_EQ(rewritten(before, L"\\\\?\\D:\\vhosts\\", L"E:\\new\\place"), after);
    }
    EXPECT_EQ(rewritten("D:\\vhosts\\a D:\\vhosts 'D:\\\\vhosts'", L"D:\\vhosts", L"\\\\?\\E:\\"),
              "E:\\a E:\\ 'E:\\\\'");
    EXPECT_EQ(
        rewritten("\\\\s\\v\\a \\\\\\\\s\\\\v //s/v x\\\\s\\v", L"\\\\s\\v", L"\\\\?\\UNC\\t\\w"),
        "\\\\t\\w\\a \\\\\\\\t\\\\w //t/w x\\\\s\\v");
}

TEST(ReplaceFilePathTest, TheTextKeepsItsEncoding) {
    EXPECT_EQ(rewritten("\xEF\xBB\xBF D:\\\xD0\x96 \xF0\x9F\x98\x80", L"D:\\\x416", L"E:\\\xE9"),
              "\xEF\xBB\xBF E:\\\xC3\xA9 \xF0\x9F\x98\x80");
    if (::GetACP() != 1252) {
        GTEST_SKIP() << "the bytes below mean something else in this system's code page";
    }
    // 0xE9 alone is no UTF-8, so this is a text of the system's code page.
    const std::string before = "\xE9 D:\\v\xE9 \xE9";
    EXPECT_EQ(rewritten(before, L"D:\\v\xE9", L"E:\\w"), "\xE9 E:\\w \xE9");
    EXPECT_EQ(rewritten(before, L"D:\\\x65E5", L"E:\\w"), before);
    EXPECT_THROW(rewritten(before, L"D:\\v\xE9", L"E:\\\x65E5"), vosexception);
}

TEST(ReplaceFilePathTest, WhatIsNoPlainFileStaysAsItIs) {
    const TempDirectory directory;
    NtfsFake ntfs;
    const std::string text = "D:\\vhosts";
    const std::wstring victim = directory.writeFile(L"elsewhere\\victim", text);
    const std::wstring file = directory.writeFile(L"web\\mail\\victim", text);
    directory.makeDirectory(L"web\\directory");
    ntfs.makeLink(directory / L"web\\link", directory / L"elsewhere", IO_REPARSE_TAG_MOUNT_POINT,
                  true);
    ntfs.makeLink(directory / L"web\\file", victim, IO_REPARSE_TAG_SYMLINK, false);
    const auto replace = [&](const wchar_t* name) {
        return replaceFilePathInFile(directory / name, L"D:\\vhosts", L"E:\\v", directory.path());
    };
    const auto saved = SavedFile::of(file, directory.path());
    for (const wchar_t* name : {L"web\\missing", L"missing\\file", L"web\\directory", L"web\\link",
                                L"web\\file", L"web\\link\\victim"}) {
        EXPECT_EQ(replace(name), 0U) << toUtf8(name);
        EXPECT_FALSE(SavedFile::of(directory / name, directory.path())) << toUtf8(name);
        EXPECT_THROW(saved->restore(directory / name, directory.path()), vosexception);
    }
    // The owner of a directory above tries to put a link in its place while the file is rewritten.
    bool swapped = true;
    ntfs.onOpen(file, 1, [&] {
        swapped = ntfs.swapForLink(directory / L"web", unixPath(directory / L"elsewhere"));
    });
    EXPECT_EQ(replace(L"web\\mail\\victim"), 1U);
    EXPECT_FALSE(swapped);
    ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY);
    saved->restore(file, directory.path());
    EXPECT_EQ(directory.readFile(L"web\\mail\\victim"), text);
    EXPECT_EQ(::GetFileAttributesW(file.c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
    EXPECT_EQ(directory.readFile(L"elsewhere\\victim"), text);

    directory.writeFile(L"web\\large", std::string(16 * 1024 * 1024 + 1, ' '));
    expectError<vosexception>(ERROR_FILE_TOO_LARGE,
                              L"Unable to replace a path in (" + directory.nice() +
                                  L"\\web\\large)",
                              [&] { replace(L"web\\large"); });
}

// Whichever call fails: the file is whole, the old or the new one as was said, with all that it had
// but its last write, and nothing lies beside it.
TEST(ReplaceFilePathTest, AFailureLeavesAWholeFileAndWhatBelongsToIt) {
    constexpr DWORD attributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN;
    const TempDirectory directory;
    NtfsFake ntfs;
    const std::wstring file = directory / L"config.php";
    const std::wstring security = L"O:BAG:SYD:PAI(A;;FA;;;SY)(A;;FR;;;WD)";
    bool fired = true;
    for (long n = 1; fired; ++n) {
        directory.writeFile(L"config.php", "D:\\vhosts\\a");
        ntfs.setSecurity(file, security);
        ::SetFileAttributesW(file.c_str(), attributes);
        std::size_t count = 0;
        const FaultOutcome outcome = runWithFault(n, ERROR_DISK_FULL, [&] {
            count = replaceFilePathInFile(file, L"D:\\vhosts", L"E:\\v", directory.path());
        });
        SCOPED_TRACE(outcome.text());
        fired = outcome.fired;
        EXPECT_EQ(directory.readFile(L"config.php"), count == 1 ? "E:\\v\\a" : "D:\\vhosts\\a");
        EXPECT_EQ(directory.list().size(), 1U);
        EXPECT_EQ(::GetFileAttributesW(file.c_str()) & ~DWORD{FILE_ATTRIBUTE_ARCHIVE}, attributes);
        EXPECT_EQ(toUtf8(ntfs.security(file)), toUtf8(security));
        EXPECT_EQ(outcome.error.empty(), count == 1) << outcome.error;
        ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
        ::DeleteFileW(file.c_str());
    }
}
