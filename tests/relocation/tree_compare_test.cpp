#include "relocation/tree_compare.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/text.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <algorithm>

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
    EXPECT_EQ(compare(), (Lines{"only in the first one.txt", "only in the second sub\\extra",
                                "size zero.txt"}));
    options_.onlyInSecond = false;
    options_.leaveOut = [](const std::wstring& path) { return path == L"one.txt"; };
    EXPECT_EQ(compare(), Lines{"size zero.txt"});
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

TEST_F(TreeComparisonTest, FindsAFileInPlaceOfADirectoryAndDoesNotDescend) {
    options_.times = false;
    ASSERT_TRUE(::RemoveDirectoryW((directory_ / L"b\\empty").c_str()));
    directory_.writeFile(L"b\\empty");
    EXPECT_EQ(compare(), Lines{"type empty"});
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
    Lines found = compare();
    found.erase(std::unique(found.begin(), found.end()), found.end()); // created and written
    EXPECT_EQ(found, (Lines{"attributes zero.txt", "times one.txt", "times sub\\deep"}));
    options_.directoryProperties = false;
    options_.ignoredAttributes = FILE_ATTRIBUTE_HIDDEN;
    found = compare();
    found.erase(std::unique(found.begin(), found.end()), found.end());
    EXPECT_EQ(found, Lines{"times one.txt"});
}

TEST_F(TreeComparisonTest, FindsPermissionsThatDiffer) {
    if (!underWine()) {
        GTEST_SKIP() << "changes the mode by a Unix call";
    }
    constexpr long long chmod = 90;
    ASSERT_EQ(unixCall(chmod, unixPath(directory_ / L"b\\one.txt").c_str(), unixcall::number(0400)),
              0);
    options_.attributes = false; // the mode shows as read-only too
    EXPECT_EQ(compare(), Lines{"permissions one.txt"});
    options_.security = false;
    EXPECT_EQ(compare(), Lines());
}

TEST_F(TreeComparisonTest, NamesThatDifferInCaseAreMatchedAndReported) {
    if (!underWine()) {
        GTEST_SKIP() << "makes names that differ in case only by Unix calls";
    }
    const auto rename = [&](const wchar_t* from, const std::string& to) {
        const std::string path = unixPath(directory_ / from);
        const std::string renamed = path.substr(0, path.rfind('/') + 1) + to;
        ASSERT_EQ(unixCall(unixcall::Rename, path.c_str(), renamed.c_str()), 0);
    };
    options_.times = false;
    rename(L"b\\one.txt", "ONE.txt");
    EXPECT_EQ(compare(), Lines{"name one.txt"});
}

TEST_F(TreeComparisonTest, LinksAreNeverEntered) {
    if (!underWine()) {
        GTEST_SKIP() << "makes links by Unix calls";
    }
    for (const wchar_t* top : {L"a", L"b"}) {
        TreeBuilder(directory_ / top).link(L"link", "sub");
    }
    options_.times = false;
    // There a link cannot be read as itself, and that is said of it and of nothing below it.
    EXPECT_EQ(compare(), Lines{"unreadable link"});
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

TEST_F(TreeComparisonTest, AMissingTopIsAnError) {
    TreeComparison comparison;
    EXPECT_THROW(comparison.compare(directory_ / L"a", directory_ / L"none", {}), vosexception);
}

TEST_F(TreeComparisonTest, CancelEndsItInTheMiddleOfAFile) {
    TreeComparison comparison;
    const Hook hook =
        comparison.progressEvent.hook([&](const std::wstring&, bool, std::int64_t bytes,
                                          bool& cancel) { cancel = bytes > 1'000'000; });
    EXPECT_THROW(comparison.compare(directory_ / L"a", directory_ / L"b", {}), CanceledException);
}

// Named streams as a file system with streams gives them.
namespace {

std::vector<std::pair<std::wstring, LONGLONG>> fakeStreams; // of every path that ends in "one.txt"
std::size_t nextStream;

BOOL WINAPI fakeNextStream(HANDLE, LPVOID data) {
    if (nextStream == fakeStreams.size()) {
        ::SetLastError(ERROR_HANDLE_EOF);
        return FALSE;
    }
    auto* stream = static_cast<WIN32_FIND_STREAM_DATA*>(data);
    stream->StreamSize.QuadPart = fakeStreams[nextStream].second;
    ::wcscpy(stream->cStreamName, fakeStreams[nextStream++].first.c_str());
    return TRUE;
}

HANDLE WINAPI fakeFirstStream(LPCWSTR path, STREAM_INFO_LEVELS, LPVOID data, DWORD) {
    nextStream = 0;
    const bool has = std::wstring(path).ends_with(L"a\\one.txt");
    if (!has || !fakeNextStream(nullptr, data)) {
        ::SetLastError(ERROR_HANDLE_EOF);
        return INVALID_HANDLE_VALUE;
    }
    return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
}

BOOL WINAPI fakeClose(HANDLE handle) {
    return ::CloseHandle(handle);
}

decltype(&::GetVolumeInformationW) realVolumeInformation;
BOOL WINAPI volumeWithStreams(LPCWSTR root, LPWSTR name, DWORD size, LPDWORD serial,
                              LPDWORD component, LPDWORD flags, LPWSTR system, DWORD systemSize) {
    const BOOL done =
        realVolumeInformation(root, name, size, serial, component, flags, system, systemSize);
    if (flags != nullptr) {
        *flags |= FILE_NAMED_STREAMS;
    }
    return done;
}

} // namespace

TEST_F(TreeComparisonTest, FindsAStreamThatIsMissing) {
    ImportPatch volume("GetVolumeInformationW", &volumeWithStreams);
    realVolumeInformation = volume.original<decltype(&::GetVolumeInformationW)>();
    const ImportPatch first("FindFirstStreamW", &fakeFirstStream);
    const ImportPatch next("FindNextStreamW", &fakeNextStream);
    const ImportPatch close("FindClose", &fakeClose);
    fakeStreams = {{L"::$DATA", 3}, {L":note:$DATA", 12}};
    EXPECT_EQ(compare(), Lines{"named stream one.txt"});
    EXPECT_TRUE(result_.streamsCompared);
    EXPECT_EQ(toUtf8(details_), ":note:$DATA is missing there\n");
    options_.streams = false;
    EXPECT_EQ(compare(), Lines());
}
