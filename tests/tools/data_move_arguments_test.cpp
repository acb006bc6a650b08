#include "tools/zopctl/data_move_arguments.h"

#include "runtime/text.h"

#include <gtest/gtest.h>

namespace zopctl {

namespace {

using Words = std::vector<std::wstring>;

// The first line of what a wrong command line is answered with.
std::string complaint(const Words& words) {
    const Parsed<DataMoveOptions> parsed = parseDataMove(words);
    EXPECT_FALSE(parsed.options);
    EXPECT_TRUE(parsed.isError);
    EXPECT_NE(parsed.text.find(L"Usage: zopctl data move SOURCE TARGET"), std::wstring::npos)
        << toUtf8(parsed.text);
    return toUtf8(parsed.text.substr(0, parsed.text.find(L'\n')));
}

} // namespace

TEST(DataMoveArgumentsTest, EveryOptionIsUnderstoodInAnyOrder) {
    const Parsed<DataMoveOptions> parsed = parseDataMove(
        {L"--verify", L"C:\\\u00E4 \u65E5", L"-y", L"--streams=data,SECURITY", L"D:\\b", L"--copy",
         L"--copy-owner", L"--keep-going", L"--dry-run", L"-v", L"--json"});
    ASSERT_TRUE(parsed.options) << toUtf8(parsed.text);
    const DataMoveOptions& options = *parsed.options;
    EXPECT_EQ(options.source, L"C:\\\u00E4 \u65E5");
    EXPECT_EQ(options.target, L"D:\\b");
    EXPECT_EQ(options.streams, StreamType::Data | StreamType::SecurityData);
    EXPECT_TRUE(options.verify && options.yes && options.copy && options.copyOwner &&
                options.keepGoing && options.dryRun && options.verbose && options.json);
    EXPECT_FALSE(options.quiet);
    EXPECT_EQ(parseDataMove({L"C:\\a", L"D:\\b"}).options->streams, StreamType::All);
}

TEST(DataMoveArgumentsTest, MistakesAreAnsweredWithWhatWasMeant) {
    EXPECT_EQ(complaint({}), "SOURCE and TARGET are missing.");
    EXPECT_EQ(complaint({L"C:\\a"}), "TARGET is missing.");
    EXPECT_EQ(complaint({L"C:\\a", L"D:\\b", L"--verfy"}),
              "There is no option \"--verfy\"; did you mean \"--verify\"?");
    EXPECT_EQ(complaint({L"C:\\a", L"D:\\b", L"--banana"}), "There is no option \"--banana\".");
    EXPECT_TRUE(complaint({L"C:\\my", L"data", L"D:\\b"}).starts_with("\"D:\\b\" is one word too"));
    EXPECT_TRUE(
        complaint({L"C:\\a", L"D:\\b", L"--streams", L"data,securty"})
            .starts_with("--streams does not know \"securty\"; did you mean \"security\"?"));
    EXPECT_TRUE(
        complaint({L"C:\\a", L"D:\\b", L"--streams", L""}).starts_with("--streams does not"));
    EXPECT_EQ(complaint({L"C:\\a", L"D:\\b", L"-q", L"-v"}),
              "--quiet and --verbose contradict each other.");
}

TEST(DataMoveArgumentsTest, HelpIsNoMistakeAndNamesEveryExitCode) {
    for (const wchar_t* word : {L"--help", L"-h", L"/?"}) {
        const Parsed<DataMoveOptions> parsed = parseDataMove({word});
        EXPECT_FALSE(parsed.isError);
        for (const wchar_t* code : {L"  0  ", L"  2  ", L"  3  ", L"  4  ", L"  5  ", L"  6  "}) {
            EXPECT_NE(parsed.text.find(code), std::wstring::npos) << toUtf8(code);
        }
    }
}

} // namespace zopctl
