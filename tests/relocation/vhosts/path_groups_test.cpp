#include "relocation/vhosts/path_groups.h"

#include "tests/support/expect_error.h"

namespace {

std::string commonOf(const wchar_t* first, const wchar_t* second) {
    return toUtf8(commonPathPart(first, second));
}

} // namespace

TEST(CommonPathPartTest, WholeComponentsAreComparedWhateverTheirCase) {
    struct Case {
        const wchar_t* first;
        const wchar_t* second;
        const char* common; // as the first has it
    };
    const Case cases[] = {
        {L"D:\\vhosts\\a.com", L"D:\\vhosts", "D:\\vhosts"},
        {L"d:\\VHosts", L"D:\\vhosts\\a.com\\", "d:\\VHosts"},
        {L"D:\\vhosts2\\a.com", L"D:\\vhosts", "D:"},
        {L"D:\\vh\\a.com", L"D:\\vhosts", "D:"},
        {L"D:\\", L"D:\\vhosts", "D:"},
        {L"D:", L"d:\\", "D:"},
        {L"C:\\vhosts", L"D:\\vhosts", ""},
        {L"\\\\?\\D:\\vhosts\\a", L"D:\\vhosts\\b", "\\\\?\\D:\\vhosts"},
        {L"D:\\vhosts\\a", L"\\\\?\\D:\\vhosts", "D:\\vhosts"},
        {L"D:/vhosts/a", L"D:\\vhosts", "D:/vhosts"},
        {L"\\\\server\\share\\a", L"\\\\SERVER\\share\\b", "\\\\server\\share"},
        {L"\\\\?\\UNC\\server\\share\\a\\x", L"//server/share/a/y", "\\\\?\\UNC\\server\\share\\a"},
        {L"\\\\server\\share", L"\\\\server\\share2", ""},
        {L"\\\\server", L"\\\\server\\share", ""},
        {L"D:\\vhosts\\..\\Windows", L"D:\\vhosts\\..\\Windows", "D:\\vhosts"},
        {L"D:\\\x416\x443\x43A\\x", L"D:\\\x436\x443\x43A\\y", "D:\\\xD0\x96\xD1\x83\xD0\xBA"},
        {L"D:\\vhosts", L"", ""},
        {L"\\\\\\", L"\\\\\\", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(commonOf(c.first, c.second), c.common)
            << toUtf8(c.first) << " and " << toUtf8(c.second);
    }
}

TEST(PathGroupsTest, PathsJoinTheGroupOfTheOldRootOrOneThatShrinks) {
    PathGroups groups(L"\\\\?\\D:\\vhosts\\all");
    const std::pair<const wchar_t*, const wchar_t*> paths[] = {
        {L"D:\\vhosts\\all\\a", L"D:\\vhosts\\all"},
        {L"\\\\?\\d:\\vhosts\\ALL", L"D:\\vhosts\\all"},
        {L"D:/Vhosts/b/c", L"D:\\Vhosts"},
        {L"d:\\vhosts", L"D:\\Vhosts"},
        {L"D:\\vhosts2", L"D:"},
        {L"E:\\homes\\web\\one\\", L"E:\\homes"}, // until then of "E:\homes\web"
        {L"E:\\homes\\web\\two", L"E:\\homes"},
        {L"E:\\Homes\\mail", L"E:\\homes"},
        {L"F:\\", L"F:"},
        {L"G:\\one", L"G:"},
        {L"\\\\server\\share\\a\\b", L"\\\\server\\share\\a"},
        {L"", L""},
    };
    for (const auto& [path, root] : paths) {
        groups.add(path, path);
    }
    for (const auto& [path, root] : paths) {
        const std::optional<std::wstring> found = groups.rootOf(path);
        ASSERT_TRUE(found) << toUtf8(path);
        EXPECT_TRUE(RunTime::equalNames(*found, root)) << toUtf8(path + (L": " + *found));
    }
    EXPECT_FALSE(groups.rootOf(L"unknown"));
    // Each place has a group of its own: a search through all of them would take a minute.
    for (int i = 0; i < 10'000; ++i) {
        groups.add(std::to_wstring(i), L"\\\\server" + std::to_wstring(i) + L"\\homes\\a\\b");
    }
    EXPECT_EQ(groups.rootOf(L"9999"), L"\\\\server9999\\homes\\a");
}
