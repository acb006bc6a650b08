#include "tests/support/tree_image.h"

#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>

namespace {

void change(const std::wstring& path, std::int64_t written, DWORD attributes) {
    const HANDLE file = ::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    FILE_BASIC_INFO basic = {};
    basic.LastWriteTime.QuadPart = written;
    basic.FileAttributes = attributes;
    EXPECT_TRUE(::SetFileInformationByHandle(file, FileBasicInfo, &basic, sizeof basic));
    ::CloseHandle(file);
}

// TreeImageTest: an image that misses a change would let every test pass that trusts it.
TEST(TreeImageTest, EqualTreesHaveEqualImagesAndEveryChangeShows) {
    const TempDirectory temp;
    const std::wstring one = temp / L"one", two = temp / L"two";
    for (const std::wstring& root : {one, two}) {
        TreeBuilder tree(root);
        tree.everything();
    }
    const TreeImage image = imageOf(one);
    EXPECT_EQ(image.size(), 40u);
    for (const auto& [name, item] : image) {
        EXPECT_EQ(item.error, 0u) << testing::PrintToString(name);
    }
    EXPECT_TRUE(sameTree(image, imageOf(two)));
    EXPECT_TRUE(sameTree({}, imageOf(one + L"-missing")));
    EXPECT_EQ(image.at(L"old").written, 100'000'000'000'000'000);
    EXPECT_EQ(image.at(L"empty directories\\a").written, TreeBuilder::defaultTime);
    EXPECT_EQ(image.at(L"third link").linkedTo, L"links\\first");
    EXPECT_EQ(image.at(L"odd\\con.txt").content, "device");

    const auto expectOnly = [&](const std::string& line) {
        EXPECT_EQ(difference(image, imageOf(two)), line);
    };
    change(two + L"\\small", TreeBuilder::defaultTime + 1, 0);
    expectOnly("'small' written: 132000000001234567 -> 132000000001234568;\n");
    change(two + L"\\small", TreeBuilder::defaultTime, FILE_ATTRIBUTE_HIDDEN);
    expectOnly("'small' attributes: 0x20 -> 0x22;\n");
    EXPECT_TRUE(::DeleteFileW((two + L"\\small").c_str()));
    TreeBuilder(two).file(L"small", "texT\r\n").file(L"odd\\new");
    const std::string lines = difference(image, imageOf(two));
    EXPECT_NE(lines.find("'small' content: text\\0d\\0a -> texT\\0d\\0a;\n"), lines.npos) << lines;
    EXPECT_NE(lines.find("'odd\\new' is new\n"), lines.npos) << lines;
    EXPECT_NE(difference(imageOf(two), image).find("'odd\\new' is missing\n"), lines.npos);
}

} // namespace
