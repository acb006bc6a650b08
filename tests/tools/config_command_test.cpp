#include "runtime/files/path.h"
#include "runtime/process/execute.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "tests/support/child_program.h"
#include "tests/support/local_config_service.h"
#include "tests/tools/recording_console.h"
#include "tools/zopctl/commands.h"

#include <gmock/gmock.h>

namespace zopctl {

namespace {

using testing::HasSubstr;
using testing::Not;
using Words = std::vector<std::wstring>;

constexpr const char* secret = "s3cret w\xC3\xB6rd";
const std::wstring wideSecret = L"s3cret w\x00F6rd";
const std::wstring storedSecret = L"[passwd]cwAzAGMAcgBlAHQAIAB3APYAcgBkAA==";

std::wstring storedText(const wchar_t* name) {
    std::wstring value = L"(none)";
    registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, name, value, RegistryView::View32);
    return value;
}

class ConfigCommandTest : public testing::Test {
protected:
    // The words behind "config", and what they end with; console_ has what was printed.
    ExitCode run(const Words& words) {
        console_.output.clear();
        console_.errors.clear();
        console_.questions.clear();
        Words all{L"config"};
        all.insert(all.end(), words.begin(), words.end());
        return runCommandLine(all, console_, commands());
    }
    std::string outputOf(const Words& words) {
        EXPECT_EQ(run(words), ExitCode::Success) << console_.errors;
        EXPECT_EQ(console_.errors, "");
        return console_.output;
    }

    const RegistryOverride registry_;
    LocalConfigService service_;
    RecordingConsole console_;
};

} // namespace

TEST_F(ConfigCommandTest, WhatIsSetIsPrintedWithTheTypeThatIsKnownOrStored) {
    EXPECT_EQ(outputOf({L"set", L"product_data_d", L"D:\\panel data\\\x65E5"}),
              "PRODUCT_DATA_D = D:\\panel data\\\xE6\x97\xA5\n");
    EXPECT_EQ(outputOf({L"get", L"PRODUCT_DATA_D"}), "D:\\panel data\\\xE6\x97\xA5\n");
    EXPECT_EQ(outputOf({L"set", L"Debug", L"0x10"}), "Debug = 16\n"); // known to be a number
    EXPECT_EQ(outputOf({L"set", L"Debug", L"--dword", L"00004294967295"}), "Debug = 4294967295\n");
    EXPECT_EQ(outputOf({L"get", L"Debug"}), "4294967295\n");
    EXPECT_EQ(outputOf({L"set", L"Own", L"7", L"--dword"}), "Own = 7\n");
    EXPECT_EQ(outputOf({L"set", L"own", L"8"}), "Own = 8\n"); // stored as a number
    EXPECT_EQ(outputOf({L"set", L"Text", L"--", L"-8"}), "Text = -8\n");
    EXPECT_EQ(outputOf({L"set", L"Text", L""}), "Text = \n");
    EXPECT_EQ(outputOf({L"get", L"Text"}), "\n");
    console_.input = "\xEF\xBB\xBFline of input\r\n";
    EXPECT_EQ(outputOf({L"set", L"Text", L"-"}), "Text = line of input\n");

    outputOf({L"get", L"Own", L"--json"});
    const auto objects = console_.objects();
    ASSERT_EQ(objects.size(), 2U);
    EXPECT_EQ(objects[0], nlohmann::json::parse(
                              R"({"event":"value","name":"Own","type":"dword","value":8,"set":true,
                                  "secret":false,"hidden":false,"meaning":""})"));
    EXPECT_EQ(objects[1], nlohmann::json::parse(
                              R"({"event":"result","status":"read","exitCode":0,"message":""})"));
}

TEST_F(ConfigCommandTest, MistakesAreExplainedAndChangeNothing) {
    RegistryOverride::setString(L"Text", L"old");
    registry::setDWORD(HKEY_LOCAL_MACHINE, config::configKey, L"Number", 5, RegistryView::View32);
    RunTime::AutoRegKey key;
    ASSERT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, config::configKey, 0, KEY_ALL_ACCESS, key.put()),
              ERROR_SUCCESS);
    ::RegSetValueExW(key.get(), L"Bytes", 0, REG_BINARY, reinterpret_cast<const BYTE*>("xy"), 2);
    const std::string before = outputOf({L"list"});
    struct Case {
        Words words;
        ExitCode code;
        const char* says;
        std::optional<std::string> input{};
    };
    const Case cases[] = {
        {{L"get"}, ExitCode::Usage, "NAME is missing."},
        {{L"get", L"Texd"},
         ExitCode::Refused,
         "There is no value \"Texd\"; did you mean \"Text\"?"},
        {{L"get", L"x\ny"}, ExitCode::Refused, "There is no value \"x\xEF\xBF\xBDy\""},
        {{L"get", L"AWStatsPath"}, ExitCode::Refused, "\"AWStatsPath\" is not set: installation"},
        {{L"get", L"Bytes"}, ExitCode::Refused, "neither a text nor a number"},
        {{L"set", L"Text"}, ExitCode::Usage, "VALUE is missing. With - it is taken"},
        {{L"set", L"FTPPassword"}, ExitCode::Usage, "VALUE is missing."}, // nobody to be asked
        {{L"set", L"Text", L"5", L"--dword"}, ExitCode::Refused, "is a text, no number: leave out"},
        {{L"set", L"AWStatsPath", L"5", L"--dword"}, ExitCode::Refused, "is a text, no number"},
        {{L"set", L"Bytes", L"x"}, ExitCode::Refused, "holds something other than"},
        {{L"set", L"Number", L"six"}, ExitCode::Usage, "\"six\" is no number. Give decimal"},
        {{L"set", L"Number", L"0x"}, ExitCode::Usage, "\"0x\" is no number."},
        {{L"set", L"Number", L"4294967296"}, ExitCode::Usage, "the largest number is 4294967295"},
        {{L"set", L"Number", L"18446744073709551617"}, ExitCode::Usage, "is too large"},
        {{L"set", L"Number", L"--", L"-1"}, ExitCode::Usage, "\"-1\" is no number."},
        {{L"set", L"own_token", L"six", L"--dword"}, ExitCode::Usage, "The value is no number."},
        {{L"set", L"a\\b", L"x"}, ExitCode::Failed, "\"a\\b\" cannot be set: "},
        {{L"set", L"Text", L"-"}, ExitCode::Usage, "which is a console"},
        {{L"set", L"Text", L"-"}, ExitCode::Usage, "holds too much", std::string(600'000, 'x')},
        {{L"set", L"Text", L"-"}, ExitCode::Usage, "one line of UTF-8", ""},
        {{L"set", L"Text", L"-"}, ExitCode::Usage, "one line of UTF-8", "two\nlines\n"},
        {{L"set", L"Text", L"-"}, ExitCode::Usage, "one line of UTF-8", "\xFF\xFEx"},
        {{L"set", L"Text", L"-"}, ExitCode::Usage, "one line of UTF-8", std::string("a\0b", 3)},
    };
    for (const Case& c : cases) {
        console_.input = c.input;
        EXPECT_EQ(run(c.words), c.code) << c.says;
        EXPECT_THAT(console_.errors, HasSubstr(c.says));
        EXPECT_EQ(console_.output, "");
    }
    EXPECT_EQ(outputOf({L"list"}), before);

    EXPECT_EQ(run({L"get", L"none", L"--json"}), ExitCode::Refused);
    ASSERT_EQ(console_.objects().size(), 1U);
    EXPECT_EQ(console_.objects()[0]["status"], "refused");
    EXPECT_EQ(console_.objects()[0]["exitCode"], 3);
    EXPECT_EQ(console_.errors, "");
}

TEST_F(ConfigCommandTest, SecretsAreShownOnlyOnRequest) {
    console_.input = std::string(secret) + "\n";
    RegistryOverride::setString(L"mail_PassWord", wideSecret);
    const Words hiding[] = {
        {L"set", L"ftppassword", L"-"},
        {L"set", L"FTPPassword", L"-", L"--json"},
        {L"set", L"FTPPassword", wideSecret},
        {L"get", L"FTPPassword"},
        {L"get", L"FTPPassword", L"--json"},
        {L"get", L"mail_password"},
        {L"list"},
        {L"list", L"--json"},
    };
    for (const Words& words : hiding) {
        const ExitCode code = run(words);
        EXPECT_EQ(code, words[0] == L"get" ? ExitCode::Refused : ExitCode::Success);
        EXPECT_THAT(console_.output + console_.errors, Not(HasSubstr("s3cret")));
        EXPECT_THAT(console_.output + console_.errors, Not(HasSubstr("passwd]")));
        EXPECT_EQ(storedText(L"FTPPassword"), storedSecret);
    }
    const Words showing[] = {
        {L"set", L"FTPPassword", L"-", L"--show-secrets"},
        {L"get", L"ftppassword", L"--show-secrets"},
        {L"get", L"FTPPassword", L"--show-secrets", L"--json"},
        {L"list", L"--show-secrets"},
        {L"list", L"--show-secrets", L"--json"},
    };
    for (const Words& words : showing) {
        EXPECT_THAT(outputOf(words), HasSubstr(secret));
    }
}

// Another process, real handles, and the pipe's usual name, since it has a registry of its own.
TEST(ConfigRunTest, TheProgramReadsStandardInputAndPrints) {
    const RegistryOverride registry;
    std::unique_ptr<config::ConfigService> service;
    try {
        service = std::make_unique<config::ConfigService>(
            config::ConfigService::Options{.pipeName = L"zoppipe"});
    } catch (const vosexception&) {
        GTEST_SKIP() << "a configuration service runs here";
    }
    const auto run = [](const Words& words, const std::string& input) {
        RunTime::Execute program(RunTime::parentPath(childProgram()) + L"\\zopctl.exe", words);
        program.input = input;
        return startingAgain([&] { return program.run(); });
    };
    const RunTime::Execute::Result set =
        run({L"config", L"set", L"FTPPassword", L"-"}, std::string(secret) + "\r\n");
    EXPECT_EQ(set.exitStatus, 0U);
    EXPECT_EQ(toUtf8(set.output + set.errors), "FTPPassword is set.\r\n");
    EXPECT_EQ(storedText(L"FTPPassword"), storedSecret);
    EXPECT_EQ(run({L"config", L"set", L"FTPPassword", L"-"}, "").exitStatus, 2U);
    EXPECT_EQ(run({L"config", L"set", L"Text", L"-"}, std::string(700'000, 'x')).exitStatus, 2U);
    const RunTime::Execute::Result got =
        run({L"config", L"get", L"FTPPassword", L"--show-secrets"}, "");
    EXPECT_EQ(toUtf8(got.output), std::string(secret) + "\r\n");
}

TEST(ConfigCommandAskTest, APasswordIsAskedForTwiceAndSetWhenBothAgree) {
    const RegistryOverride registry;
    const LocalConfigService service;
    struct Case {
        Words answers;
        ExitCode code;
        std::wstring stored;
    };
    const Case cases[] = {
        {{}, ExitCode::Cancelled, L"(none)"},
        {{wideSecret, L"other"}, ExitCode::Cancelled, L"(none)"},
        {{wideSecret, wideSecret}, ExitCode::Success, storedSecret},
        {{L"", L""}, ExitCode::Success, L""},
    };
    for (const Case& c : cases) {
        RecordingConsole console(true);
        console.hiddenAnswers = c.answers;
        EXPECT_EQ(runCommandLine({L"config", L"set", L"FTPPassword"}, console, commands()), c.code);
        EXPECT_EQ(storedText(L"FTPPassword"), c.stored);
        EXPECT_EQ(console.questions[0], "FTPPassword: ");
    }
}

TEST_F(ConfigCommandTest, TheListHasWhatIsStoredAndWhatIsKnown) {
    outputOf({L"set", L"Own", L"text"});
    outputOf({L"set", L"Debug", L"1"});
    outputOf({L"set", L"NAMED_RUN_ROOT_D", std::wstring(60, L'n')});
    const std::string table = outputOf({L"list"});
    EXPECT_TRUE(table.starts_with("NAME  ")) << table;
    EXPECT_THAT(table, testing::ContainsRegex("\nDebug +dword +1 +1: debug output of the whole"));
    EXPECT_THAT(table, testing::ContainsRegex("\nOwn +string +text\n"));
    EXPECT_THAT(table, testing::ContainsRegex("\nAWStatsPath +string +\\(not set\\) +install"));
    EXPECT_THAT(table, testing::ContainsRegex("n  run root of the DNS server\n"));

    outputOf({L"list", L"--json"});
    std::vector<std::string> names;
    for (const nlohmann::json& object : console_.objects()) {
        if (object["event"] == "value") {
            names.push_back(object["name"]);
            EXPECT_EQ(object["set"], !object["value"].is_null()) << names.back();
        }
    }
    EXPECT_EQ(names.size(), config::valueTable().size() + 1);
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end(), [](const auto& a, const auto& b) {
        return ::_stricmp(a.c_str(), b.c_str()) < 0;
    }));
    EXPECT_EQ(console_.objects().back()["status"], "listed");

    // What others wrote, and the service cannot serve, does not keep the rest from being listed.
    RegistryOverride::setString(L"a\\name", L"text");
    RegistryOverride::setString(L"Long", std::wstring(600'000, L'x'));
    const std::string odd = outputOf({L"list"});
    EXPECT_THAT(odd, testing::ContainsRegex("\nLong +string +\\(cannot be read\\)\n"));
    EXPECT_THAT(odd, testing::Not(HasSubstr("a\\name")));
    EXPECT_THAT(odd, testing::ContainsRegex("\nOwn +string +text\n"));
}

} // namespace zopctl
