#include "tools/zopctl/commands.h"

#include "tests/tools/recording_console.h"

#include <gtest/gtest.h>

namespace zopctl {

namespace {

struct Case {
    std::vector<std::wstring> words;
    const char* says;
};

ExitCode countWords(const std::vector<std::wstring>& arguments, Console& console) {
    console.line(std::to_wstring(arguments.size()));
    return ExitCode::Different;
}

const std::vector<Command> table = {
    {L"config", L"get", L"KEY", L"shows a value", countWords},
    {L"config", L"list", L"", L"shows all values", countWords},
    {L"disk", L"list", L"", L"shows the disks", countWords},
};

} // namespace

TEST(CommandsTest, WrongWordsAreUsageErrorsThatSayWhatWasMeant) {
    const Case cases[] = {
        {{}, "Commands:"},
        {{L"config"}, "needs a second word:\n  zopctl config get KEY"},
        {{L"Config"}, "  zopctl config list"},
        {{L"config", L"banana"}, "goes on with one of these:\n  zopctl config get KEY"},
        {{L"config", L"gte", L"x"}, "no command \"config gte\"; did you mean \"config get\"?"},
        {{L"get", L"x"}, "no command \"get\"; did you mean \"config get\"?"},
        {{L"list"}, "did you mean \"config list\" or \"disk list\"?"},
        {{L"banana"}, "There is no command \"banana\".\n"},
    };
    for (const Case& wrong : cases) {
        RecordingConsole console;
        EXPECT_EQ(runCommandLine(wrong.words, console, table), ExitCode::Usage);
        EXPECT_NE(console.errors.find(wrong.says), std::string::npos) << console.errors;
        EXPECT_EQ(console.output, "");
    }
}

TEST(CommandsTest, TheCommandGetsTheWordsBehindItsName) {
    RecordingConsole console;
    EXPECT_EQ(runCommandLine({L"CONFIG", L"get", L"a", L"b"}, console, table), ExitCode::Different);
    EXPECT_EQ(runCommandLine({L"help", L"disk", L"list"}, console, table), ExitCode::Different);
    EXPECT_EQ(console.output, "2\n1\n");
}

TEST(CommandsTest, EveryCommandHasHelpAndExplainsAMistake) {
    for (const std::vector<std::wstring>& words :
         {std::vector<std::wstring>{L"--help"}, {L"help"}, {L"/?"}, {L"data", L"-h"}}) {
        RecordingConsole console;
        EXPECT_EQ(runCommandLine(words, console), ExitCode::Success);
        EXPECT_NE(console.output.find("  zopctl data move SOURCE TARGET  "), std::string::npos);
        EXPECT_EQ(console.errors, "");
    }
    for (const Command& command : commands()) {
        const std::string name = toUtf8(std::wstring(command.group) + L" " + command.name);
        for (const wchar_t* word : {L"-h", L"/?", L"--banana"}) {
            RecordingConsole console;
            const bool help = word[1] != L'-';
            EXPECT_EQ(runCommandLine({command.group, command.name, word}, console),
                      help ? ExitCode::Success : ExitCode::Usage);
            EXPECT_NE((help ? console.output : console.errors).find("zopctl " + name),
                      std::string::npos)
                << name << toUtf8(word);
        }
    }
}

} // namespace zopctl
