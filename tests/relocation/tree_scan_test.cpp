#include "relocation/tree_scan.h"

#include "relocation/reparse_point.h"
#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <cstring>

TEST(TreeScanTest, CountsEverythingBelowTheTop) {
    const TempDirectory directory;
    {
        TreeBuilder tree(directory / L"top");
        tree.directory(L"empty")
            .file(L"a.txt", std::string(5000, 'a'))
            .file(L"sub\\b.txt", "b")
            .file(L"sub\\deep\\longest name of all.txt", "")
            .hardLink(L"sub\\twin.txt", L"a.txt");
        if (underWine()) {
            tree.link(L"link", "sub");
        }
    }
    TreeScan scan;
    std::int64_t calls = 0;
    const Hook hook = scan.progressEvent.hook([&](const TreeContents&, bool&) { ++calls; });
    TreeScan::Options options;
    options.pathLimit = 20;
    const TreeContents quick = scan.scan(directory / L"top", options);
    EXPECT_EQ(quick.files, 4);
    EXPECT_EQ(quick.directories, 3);
    EXPECT_EQ(quick.links, underWine() ? 1 : 0);
    EXPECT_EQ(quick.bytes, 10'001);
    EXPECT_EQ(quick.depth, 3);
    EXPECT_EQ(quick.longestPath, std::wstring(L"\\sub\\deep\\longest name of all.txt").size());
    EXPECT_TRUE(quick.longestName.ends_with(L"longest name of all.txt"));
    EXPECT_EQ(quick.pathsTooLong, 1);
    EXPECT_EQ(calls, quick.files + quick.directories + quick.links);

    // The two names of one file take its room once where the target keeps them together.
    options.thorough = true;
    options.clusterBytes = 4096;
    const std::int64_t items = calls * TreeScan::Options::itemAllowance;
    const TreeContents thorough = scan.scan(directory / L"top", options);
    EXPECT_EQ(thorough.hardLinks.count, 2);
    EXPECT_EQ(thorough.bytesOnTarget, items + 8192 + 4096);
    options.hardLinksOnTarget = false;
    EXPECT_EQ(scan.scan(directory / L"top", options).bytesOnTarget, items + 2 * 8192 + 4096);
}

TEST(TreeScanTest, PassesOverWhatItCannotOpenAndNamesIt) {
    const TempDirectory directory;
    directory.writeFile(L"top\\closed\\a.txt");
    directory.writeFile(L"top\\b.txt");
    const RunTime::AutoHandle held(::CreateFileW((directory / L"top\\closed").c_str(),
                                                 GENERIC_READ | DELETE, 0, nullptr, OPEN_EXISTING,
                                                 FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    ASSERT_TRUE(held);
    TreeScan scan;
    const TreeContents contents = scan.scan(directory / L"top", {});
    EXPECT_EQ(contents.files, 1);
    EXPECT_EQ(contents.unreadable.count, 1);
    EXPECT_EQ(contents.unreadable.examples,
              std::vector<std::wstring>{directory.nice() + L"\\top\\closed"});
}

TEST(TreeScanTest, CancelEndsItAndAMissingTopIsAnError) {
    const TempDirectory directory;
    directory.writeFile(L"a.txt");
    TreeScan scan;
    EXPECT_THROW(scan.scan(directory / L"none", {}), vosexception);
    const Hook hook =
        scan.progressEvent.hook([](const TreeContents&, bool& cancel) { cancel = true; });
    EXPECT_THROW(scan.scan(directory.path(), {}), CanceledException);
}

namespace {

// Reparse data of a symbolic link (flags in between) or a junction.
std::vector<unsigned char> linkData(DWORD tag, const std::wstring& target) {
    const std::size_t names = tag == IO_REPARSE_TAG_SYMLINK ? 20 : 16;
    std::vector<unsigned char> data(names + target.size() * 2);
    const auto put = [&](std::size_t at, auto value) {
        std::memcpy(data.data() + at, &value, sizeof(value));
    };
    put(0, tag);
    put(10, static_cast<USHORT>(target.size() * 2));
    std::memcpy(data.data() + names, target.data(), target.size() * 2);
    return data;
}

} // namespace

TEST(ReparseTargetTest, GivesThePathThatPeopleWrite) {
    EXPECT_EQ(reparseTarget(linkData(IO_REPARSE_TAG_MOUNT_POINT, L"\\??\\C:\\data")), L"C:\\data");
    EXPECT_EQ(reparseTarget(linkData(IO_REPARSE_TAG_SYMLINK, L"\\??\\UNC\\server\\share")),
              L"\\\\server\\share");
    EXPECT_EQ(reparseTarget(linkData(IO_REPARSE_TAG_SYMLINK, L"..\\up")), L"..\\up");
    EXPECT_EQ(reparseTarget(linkData(0x80000013, L"\\??\\C:\\data")), L"");
}

TEST(ReparseTargetTest, DamagedDataIsNoTarget) {
    const std::vector<unsigned char> whole = linkData(IO_REPARSE_TAG_SYMLINK, L"\\??\\C:\\data");
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_EQ(reparseTarget({whole.begin(), whole.begin() + static_cast<long>(length)}), L"");
    }
    std::vector<unsigned char> offset = whole;
    offset[8] = offset[9] = 0xFF;
    EXPECT_EQ(reparseTarget(offset), L"");
}
