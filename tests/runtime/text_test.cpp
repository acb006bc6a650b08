#include "runtime/text.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

TEST(TextTest, ConvertsBothWaysWithoutLoss) {
    const std::wstring wide = L"a\u00e9\u20ac\xD83D\xDE00 \uFFFF"s + L'\0' + L"end";
    const std::string utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80 \xEF\xBF\xBF"s + '\0' + "end";
    EXPECT_EQ(utf8, toUtf8(wide));
    EXPECT_EQ(wide, toWide(utf8));
    for (wchar_t c = 1; c != 0; ++c) {
        if (c < 0xD800 || c > 0xDFFF) {
            ASSERT_EQ(std::wstring(1, c), toWide(toUtf8(std::wstring(1, c)))) << int(c);
        }
    }
}

TEST(TextTest, LoneSurrogatesAreReplaced) {
    const std::string mark = "\xEF\xBF\xBD";
    EXPECT_EQ("a" + mark, toUtf8(L"a\xD83D"));
    EXPECT_EQ(mark + "b", toUtf8(L"\xDE00"
                                 L"b"));
    EXPECT_EQ(mark + mark, toUtf8(L"\xDE00\xD83D"));
    EXPECT_EQ(mark + "\xF0\x9F\x98\x80", toUtf8(L"\xD83D\xD83D\xDE00"));
}

TEST(TextTest, MalformedUtf8IsReplacedAndNeverSwallowsWhatFollows) {
    EXPECT_EQ(L"\uFFFD", toWide("\x80"));
    EXPECT_EQ(L"\uFFFDa", toWide("\xC3"
                                 "a"));
    EXPECT_EQ(L"\uFFFD", toWide("\xE2\x82"));                           // cut off
    EXPECT_EQ(L"\uFFFD\u00e9", toWide("\xE2\x82\xC3\xA9"));             // cut off by another
    EXPECT_EQ(L"\uFFFD\uFFFD", toWide("\xC0\x80"));                     // overlong zero
    EXPECT_EQ(L"\uFFFD\uFFFD\uFFFD", toWide("\xE0\x80\xAF"));           // overlong slash
    EXPECT_EQ(L"\uFFFD\uFFFD\uFFFD", toWide("\xED\xA0\x80"));           // a surrogate
    EXPECT_EQ(L"\uFFFD\uFFFD\uFFFD\uFFFD", toWide("\xF4\x90\x80\x80")); // past the last plane
    EXPECT_EQ(L"\uFFFD\uFFFD", toWide("\xFF\xFE"));
}
