#include "relocation/tree_compare.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/text.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <functional>

namespace {

// Two equal trees to spoil, and what the comparison says about them.
class TreeComparisonTest : public ::testing::Test {
protected:
    TreeComparisonTest() {
        for (const wchar_t* top : {L"a", L"b"}) {
            TreeBuilder tree(directory_ / top);
            tree.directory(L"empty")
                .file(L"one.txt", "one")
                .file(L"zero.txt", "")
                .file(L"sub\\deep\\big.bin", sampleBytes(2'500'000));
        }
    }

    // "kind path" of each difference, sorted.
    std::vector<std::string> compare() {
        std::vector<std::string> lines;
        TreeComparison comparison;
        const Hook hook = comparison.differenceEvent.hook([&](const TreeDifference& difference) {
            lines.push_back(
                toUtf8(std::wstring(describe(difference.kind)) + L" " + difference.path));
            details_ += difference.detail + L"\n";
        });
        details_.clear();
        result_ = comparison.compare(directory_ / L"a", directory_ / L"b", options_);
        EXPECT_EQ(result_.differences, static_cast<std::int64_t>(lines.size()));
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    using Lines = std::vector<std::string>;
    TempDirectory directory_;
    TreeComparison::Options options_;
    TreeComparison::Result result_;
    std::wstring details_;
};

} // namespace

TEST_F(TreeComparisonTest, EqualTreesHaveNoDifferenceAndAreReadWhole) {
    for (const auto uncached : {TreeComparison::Uncached::None, TreeComparison::Uncached::Second,
                                TreeComparison::Uncached::Both}) {
        options_.uncached = uncached;
        EXPECT_EQ(compare(), Lines());
        EXPECT_EQ(result_.items, 7) << "the top, three directories, three files";
        EXPECT_EQ(result_.files, 3);
        EXPECT_EQ(result_.bytes, 2'500'003);
    }
}

TEST_F(TreeComparisonTest, FindsWhatIsMissingOnEitherSideAndGoesOn) {
    options_.times = false; // of the directories that lose something
    ASSERT_TRUE(::DeleteFileW((directory_ / L"b\\one.txt").c_str()));
    directory_.writeFile(L"b\\sub\\extra\\more.txt");
    directory_.writeFile(L"b\\zero.txt", "x");
    ASSERT_TRUE(::RemoveDirectoryW((directory_ / L"b\\empty").c_str()));
    directory_.writeFile(L"b\\empty");
    EXPECT_EQ(compare(), (Lines{"only in the first one.txt", "only in the second sub\\extra",
                                "size zero.txt", "type empty"}));
    options_.onlyInSecond = false;
    options_.leaveOut = [](const std::wstring& path) { return path == L"one.txt"; };
    EXPECT_EQ(compare(), (Lines{"size zero.txt", "type empty"}));
}

TEST_F(TreeComparisonTest, FindsOneByteInABigFileAndSaysWhere) {
    std::string bytes = sampleBytes(2'500'000);
    bytes[2'000'000] ^= 1;
    directory_.writeFile(L"b\\sub\\deep\\big.bin", bytes);
    options_.times = false;
    EXPECT_EQ(compare(), Lines{"contents sub\\deep\\big.bin"});
    EXPECT_NE(details_.find(L"byte 2000000"), std::wstring::npos) << toUtf8(details_);
    options_.contents = false;
    EXPECT_EQ(compare(), Lines());
}

TEST_F(TreeComparisonTest, FindsAttributesAndTimesOfFilesAndDirectories) {
    for (const wchar_t* name : {L"b\\zero.txt", L"b\\one.txt"}) {
        ASSERT_TRUE(::DeleteFileW((directory_ / name).c_str()));
    }
    {
        TreeBuilder(directory_ / L"b")
            .file(L"zero.txt", "", FILE_ATTRIBUTE_HIDDEN)
            .file(L"one.txt", "one", 0, TreeBuilder::defaultTime + 1)
            .directory(L"sub\\deep", 0, TreeBuilder::defaultTime - 10'000'000);
    }
    const auto distinct = [this] { // one is told for each of creation and writing
        Lines found = compare();
        found.erase(std::unique(found.begin(), found.end()), found.end());
        return found;
    };
    EXPECT_EQ(distinct(), (Lines{"attributes zero.txt", "times one.txt", "times sub\\deep"}));
    options_.directoryProperties = false;
    options_.ignoredAttributes = FILE_ATTRIBUTE_HIDDEN;
    EXPECT_EQ(distinct(), Lines{"times one.txt"});
}

TEST_F(TreeComparisonTest, NamesMayDifferInCaseAndLinksAreNeverEntered) {
    if (!underWine()) {
        GTEST_SKIP() << "makes links, and names that differ in case only, by Unix calls";
    }
    for (const wchar_t* top : {L"a", L"b"}) {
        TreeBuilder(directory_ / top).link(L"link", "sub");
    }
    const std::string top = unixPath(directory_ / L"b");
    ASSERT_EQ(unixCall(unixcall::Rename, (top + "/one.txt").c_str(), (top + "/ONE.txt").c_str()),
              0);
    options_.times = false;
    // There a link cannot be read as itself, and that is said of it and of nothing below it.
    EXPECT_EQ(compare(), (Lines{"name one.txt", "unreadable link"}));
}

TEST_F(TreeComparisonTest, AFileThatCannotBeReadIsADifferenceAndNoEnd) {
    FaultPoint fault("ReadFile");
    fault.failAt = 0;
    fault.code = ERROR_CRC;
    const Lines found = compare();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_TRUE(found[0].starts_with("unreadable "));
    EXPECT_EQ(result_.items, 7);
    EXPECT_EQ(result_.unreadable, 1);
}

TEST_F(TreeComparisonTest, CancelEndsItInTheMiddleOfAFileAndAMissingTopIsAnError) {
    TreeComparison comparison;
    EXPECT_THROW(comparison.compare(directory_ / L"a", directory_ / L"none", {}), vosexception);
    const Hook hook =
        comparison.progressEvent.hook([&](const std::wstring&, bool, std::int64_t bytes,
                                          bool& cancel) { cancel = bytes > 1'000'000; });
    EXPECT_THROW(comparison.compare(directory_ / L"a", directory_ / L"b", {}), CanceledException);
}

TEST_F(TreeComparisonTest, FindsWhatOnlyNtfsKeeps) {
    NtfsFake ntfs;
    const std::wstring one = directory_ / L"a\\one.txt", other = directory_ / L"b\\one.txt";
    struct Case {
        std::function<void()> spoil;
        const char* line;
        const char* detail;
    };
    const auto stream = [&](const std::wstring& path, const char* text) {
        return [&ntfs, path, text] { ntfs.setStream(path, L"note", text); };
    };
    const auto security = [&](const std::wstring& path, const wchar_t* sddl) {
        return [&ntfs, path, sddl] { ntfs.setSecurity(path, sddl); };
    };
    const Case cases[] = {
        {stream(one, "text"), "named stream one.txt", ":note:$DATA is missing there"},
        {stream(other, "longer text"), "named stream one.txt", "4 bytes here, 11 bytes there"},
        {stream(other, "tent"), "named stream one.txt", "first difference at byte 2"},
        {stream(other, "text"), nullptr, ""},
        {security(one, L"O:BUG:SYD:AI(A;ID;FA;;;SY)"), nullptr, nullptr},
        {security(other, L"O:BAG:SYD:AI(A;ID;FA;;;SY)"), "owner one.txt", "S-1-5-32-544 there"},
        {security(other, L"O:BUG:SYD:P(A;ID;FA;;;SY)"), "permissions one.txt", "here, D:P"},
        {security(other, L"O:BUG:SYD:AI(A;ID;FA;;;SY)"), nullptr, ""},
    };
    for (const Case& change : cases) {
        change.spoil();
        if (change.detail == nullptr) {
            continue; // one half of a pair
        }
        const Lines found = compare();
        EXPECT_EQ(found, change.line != nullptr ? Lines{change.line} : Lines());
        EXPECT_NE(toUtf8(details_).find(change.detail), std::string::npos) << toUtf8(details_);
    }
    EXPECT_TRUE(result_.streamsCompared);
    ntfs.setSecurity(other, L"O:BAG:SYD:P");
    ntfs.setStream(other, L"more", "");
    options_.streams = options_.security = options_.owner = false;
    EXPECT_EQ(compare(), Lines());

    options_.times = false;
    for (const wchar_t* top : {L"a", L"b"}) {
        ntfs.makeLink(directory_ / top + L"\\link", L"sub", IO_REPARSE_TAG_SYMLINK, true);
        ntfs.makeLink(directory_ / top + L"\\own", std::wstring(top) + L".txt",
                      IO_REPARSE_TAG_SYMLINK, false);
    }
    EXPECT_EQ(compare(), Lines{"link own"});
    EXPECT_EQ(toUtf8(details_), "to a.txt here, to b.txt there\n");
}
