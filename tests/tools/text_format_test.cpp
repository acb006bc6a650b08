#include "tools/zopctl/text_format.h"

#include "runtime/text.h"

#include <gtest/gtest.h>

namespace zopctl {

TEST(NumberTextTest, NumbersReadWellOnBothSidesOfEveryUnit) {
    EXPECT_EQ(formatCount(0), L"0");
    EXPECT_EQ(formatCount(999), L"999");
    EXPECT_EQ(formatCount(1234567), L"1,234,567");
    EXPECT_EQ(formatCount(-123456), L"-123,456");
    EXPECT_EQ(formatBytes(1), L"1 byte");
    EXPECT_EQ(formatBytes(1023), L"1,023 bytes");
    EXPECT_EQ(formatBytes(1536), L"1.5 KB");
    EXPECT_EQ(formatBytes(1024 * 1024 - 1), L"1.0 MB") << "never 1024 KB";
    EXPECT_EQ(formatBytes(INT64_MAX), L"8.0 EB");
    EXPECT_EQ(formatDuration(9949), L"9.9 s");
    EXPECT_EQ(formatDuration(59499), L"59 s");
    EXPECT_EQ(formatDuration(59500), L"1 min 00 s");
    EXPECT_EQ(formatDuration(2 * 3600 * 1000 + 7 * 60 * 1000), L"2 h 07 min");
    EXPECT_EQ(formatRate(1024 * 1024, 500), L"2.0 MB/s");
    EXPECT_EQ(formatRate(5, 0), L"");
}

TEST(CutTextTest, KeepsBeginningAndEndWithinTheCells) {
    const std::wstring path = L"C:\\one\\two\\three\\name.txt";
    EXPECT_EQ(cutToCells(path, 25), path);
    for (int cells = 0; cells < 25; ++cells) {
        EXPECT_EQ(cellWidth(cutToCells(path, cells)), cells);
    }
    EXPECT_EQ(cutToCells(path, 16), L"C:\\o...\\name.txt");
}

TEST(CutTextTest, CountsWideLettersTwiceAndCutsNoPairApart) {
    EXPECT_EQ(cellWidth(L"\x65E5\x672C"), 4);
    EXPECT_EQ(cellWidth(L"e\x0301"), 1);
    const std::wstring smileys = L"\xD83D\xDE00\xD83D\xDE00\xD83D\xDE00\xD83D\xDE00";
    EXPECT_EQ(cellWidth(smileys), 8);
    for (int cells = 4; cells < 8; ++cells) {
        const std::wstring cut = cutToCells(smileys, cells);
        EXPECT_LE(cellWidth(cut), cells);
        EXPECT_EQ(toUtf8(cut).find("\xEF\xBF\xBD"), std::string::npos) << "half a pair is left";
    }
}

TEST(NearestTest, FindsTheTypoAndNothingFarFetched) {
    const std::vector<std::wstring> options{L"--verify", L"--verbose", L"--yes"};
    EXPECT_EQ(nearest(L"--verifi", options), L"--verify");
    EXPECT_EQ(nearest(L"--VERBOSE", options), L"--verbose");
    EXPECT_EQ(nearest(L"--colour", options), L"");
}

TEST(PrintableTest, NamesCannotSteerTheConsole) {
    EXPECT_EQ(printable(L"a\x1B[2Jb\n\u202E!"), L"a\xFFFD[2Jb\xFFFD\xFFFD!");
    EXPECT_EQ(printableLines(L"a\r\n\x1B[2J\rb\n"), L"a\n\xFFFD[2J\xFFFD"
                                                    L"b\n");
}

} // namespace zopctl
