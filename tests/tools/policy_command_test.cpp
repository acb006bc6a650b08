#include "tests/support/policy_xml.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"
#include "tests/tools/recording_console.h"
#include "tools/zopctl/commands.h"

#include <gtest/gtest.h>

namespace zopctl {

namespace {

class PolicyCommandTest : public ::testing::Test {
protected:
    TempDirectory directory;
    RegistryOverride registry;

    std::wstring nice(const wchar_t* name) const { return directory.nice() + L"\\" + name; }

    ExitCode run(std::vector<std::wstring> words) {
        console.emplace();
        words.insert(words.begin(), L"policy");
        return runCommandLine(words, *console);
    }
    std::optional<RecordingConsole> console;
};

// docs/example-policy.xml, which stands beside the tests.
TEST_F(PolicyCommandTest, ExampleOfTheDocumentationIsInOrder) {
    wchar_t program[MAX_PATH];
    ::GetModuleFileNameW(nullptr, program, MAX_PATH);
    const std::wstring own = program;
    const std::wstring example = own.substr(0, own.rfind(L'\\') + 1) + L"example-policy.xml";
    RegistryOverride::setString(L"HTTPD_VHOSTS_D", L"D:\\vhosts");
    EXPECT_EQ(ExitCode::Success, run({L"check", example}));
    EXPECT_EQ(toUtf8(example) + ": no errors, 7 entries in order\n", console->output);
    EXPECT_EQ("", console->errors);

    EXPECT_EQ(ExitCode::Success, run({L"show", example, L"--json"}));
    const std::vector<nlohmann::json> objects = console->objects();
    ASSERT_EQ(9u, objects.size());
    EXPECT_EQ("D:\\vhosts", objects[2]["resolved"]);
    EXPECT_EQ("sites", objects[2]["tag"]);
    EXPECT_EQ("S-1-5-32-546", objects[3]["sid"]);
    EXPECT_EQ(nullptr, objects[3]["resolved"]); // there is no product on this machine
    EXPECT_EQ(0x1200A9, objects[4]["accessMask"]);
    EXPECT_EQ("warning", objects[7]["event"]);
    EXPECT_EQ("valid", objects[8]["status"]);

    EXPECT_EQ(ExitCode::Success, run({L"show", example}));
    EXPECT_NE(std::string::npos,
              console->output.find("D:\\vhosts             Users                  NoAccess        "
                                   "ThisObjectOnly                0      sites\n"))
        << console->output;
    // A SID that stands in for a name is shown for what it is.
    EXPECT_NE(std::string::npos, console->output.find("zopcln (S-1-5-32-546)"));
    EXPECT_NE(std::string::npos, console->errors.find("PRODUCT_ROOT_D")) << console->errors;
}

TEST_F(PolicyCommandTest, EveryErrorIsShownWithItsPlaceAndWhatToDo) {
    directory.writeFile(
        L"p.xml", policyXml(entryXml() + "\n" +
                            entryXml({{"AccessMask", "modify"}, {"Path", "[HTTP_VHOSTS_D]"}}) +
                            "\n  " + entryXml({{"AccounType", "x"}, {"EntryFlags", "\x7F"}})));
    const std::string file = toUtf8(nice(L"p.xml"));
    for (const wchar_t* command : {L"check", L"show"}) {
        EXPECT_EQ(ExitCode::Refused, run({command, nice(L"p.xml")}));
        const std::string& errors = console->errors;
        for (const std::string& expected : {
                 file + ":3:1: Unknown path variable: HTTP_VHOSTS_D, known names are: "
                        "HTTPD_VHOSTS_D, PRODUCT_ROOT_D, ",
                 std::string("\n  Did you mean \"HTTPD_VHOSTS_D\"?\n"),
                 file + ":3:1: Unknown access mask: modify, known names are: NoAccess, Read, ",
                 std::string("\n  Did you mean \"Modify\"?\n"),
                 file + ":4:3: Unable to convert from 'x' to integer type.\n  Give AccounType 0 ",
                 file + ":4:3: Unable to convert from '\xEF\xBF\xBD' to integer type.\n  Write a ",
             }) {
            EXPECT_NE(std::string::npos, errors.find(expected)) << expected << "\nin " << errors;
        }
        EXPECT_EQ(file + ": 4 errors, 1 entry in order\n", console->output);
    }
    EXPECT_EQ(ExitCode::Refused, run({L"check", nice(L"p.xml"), L"--json"}));
    const std::vector<nlohmann::json> objects = console->objects();
    ASSERT_EQ(5u, objects.size());
    EXPECT_EQ("access-mask", objects[1]["kind"]);
    EXPECT_EQ(3, objects[1]["line"]);
    EXPECT_EQ("modify", objects[1]["value"]);
    EXPECT_EQ("invalid", objects[4]["status"]);
    EXPECT_EQ(4, objects[4]["problems"]);
}

TEST_F(PolicyCommandTest, InstalledFilesAreThoseBelowTheProductRoot) {
    EXPECT_EQ(ExitCode::Failed, run({L"check", L"--installed"})); // no root is configured
    RegistryOverride::setString(L"PRODUCT_ROOT_D", directory.nice());
    EXPECT_EQ(ExitCode::Failed, run({L"check", L"--installed"})); // no directory
    directory.makeDirectory(L"etc\\DiskSecurity\\folder.xml");
    EXPECT_EQ(ExitCode::Failed, run({L"check", L"--installed"}));
    EXPECT_NE(std::string::npos, console->errors.find("There are no policy files in "));
    directory.writeFile(L"etc\\DiskSecurity\\b.XML", policyXml(entryXml()));
    directory.writeFile(L"etc\\DiskSecurity\\a.xml", policyXml(""));
    directory.writeFile(L"etc\\DiskSecurity\\c.xml.bak", "nothing");
    EXPECT_EQ(ExitCode::Success, run({L"check", L"--installed"}));
    const std::string place = toUtf8(nice(L"etc\\DiskSecurity\\"));
    EXPECT_EQ(place + "a.xml: no errors, 0 entries in order\n" + place +
                  "b.XML: no errors, 1 entry in order\n",
              console->output);
    directory.writeFile(L"etc\\DiskSecurity\\d.xml", "<");
    EXPECT_EQ(ExitCode::Refused, run({L"check", L"--installed"}));

    EXPECT_EQ(ExitCode::Failed, run({L"check", nice(L"missing.xml")}));
    EXPECT_EQ(ExitCode::Usage, run({L"check"}));
    EXPECT_EQ(ExitCode::Usage, run({L"show", nice(L"a.xml"), L"--installed"}));
}

} // namespace

} // namespace zopctl
