// zopctl database: what it prints, asks and returns. What the work itself does is tested beside it.
#include "tests/support/database_fixture.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"
#include "tests/tools/recording_console.h"
#include "tools/zopctl/commands.h"

namespace zopctl {

namespace {

class DatabaseCommandTest : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (!database) {
            return;
        }
        database->execute(L"create or replace database zop_test_tools character set utf8mb4");
        Parameters own = parameters();
        own.database = L"zop_test_tools";
        database = std::make_unique<VMySQLDatabase>(own);
        makeTable(L"sys_users", L"id int, login text, password text, home text");
        database->execute(L"insert into sys_users values (1, 'a', 'secret', 'C:')");
        RegistryOverride::setString(L"MySQLHost", own.host);
        RegistryOverride::setDword(L"MySQLPort", own.port);
        RegistryOverride::setString(L"MySQLLogin", own.user);
        RegistryOverride::setString(L"MySQLPassword", own.password);
        RegistryOverride::setString(L"MySQLDatabase", own.database);
    }

    ExitCode run(std::vector<std::wstring> words, bool isConsole = false, bool answer = false) {
        console.emplace(isConsole);
        console->answer = answer;
        words.insert(words.begin(), L"database");
        return runCommandLine(words, *console);
    }

    TempDirectory directory;
    RegistryOverride registry;
    const std::wstring file = directory.nice() + L"\\panel.sql";
    std::optional<RecordingConsole> console;
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

} // namespace

TEST_F(DatabaseCommandTest, CheckTellsWhatTheDatabaseLacksAndHowToReachIt) {
    EXPECT_EQ(run({L"check", L"--json"}), ExitCode::Refused);
    const nlohmann::json found = console->objects()[0];
    EXPECT_EQ(found["missing"], (std::vector<std::string>{"sys_users.quota", "domains", "hosting",
                                                          "ftp_users", "ServiceNodeEnvironment"}));
    EXPECT_EQ(found["tables"], 1);
    EXPECT_EQ(run({L"check", L"--database", L"zop_test"}), ExitCode::Success) << console->errors;
    EXPECT_TRUE(contains(console->output, "utf8mb4")) << console->output;

    RegistryOverride::setString(L"MySQLPassword", L"wrong one");
    EXPECT_EQ(run({L"check"}), ExitCode::Failed);
    EXPECT_TRUE(contains(console->errors, "(Error number 1045)"));
    EXPECT_TRUE(contains(console->errors, "zopctl config list"));
    EXPECT_FALSE(contains(console->errors, "wrong one"));
}

TEST_F(DatabaseCommandTest, NothingIsReplacedUnasked) {
    EXPECT_EQ(run({L"export", file}), ExitCode::Success);
    EXPECT_TRUE(contains(console->output, "Exported 1 table, 1 row, ")) << console->output;
    EXPECT_EQ(run({L"export", file}), ExitCode::Refused);
    EXPECT_TRUE(contains(console->errors, "--yes"));
    EXPECT_EQ(run({L"export", file}, true, false), ExitCode::Cancelled);
    EXPECT_EQ(run({L"export", file}, true, true), ExitCode::Success);
    EXPECT_EQ(console->questions.size(), 1u);

    database->execute(L"create table third (a int)");
    EXPECT_EQ(run({L"import", file}), ExitCode::Refused);
    EXPECT_EQ(run({L"import", file}, true, false), ExitCode::Cancelled);
    EXPECT_TRUE(contains(console->output, "Removes:  third\n")) << console->output;
    EXPECT_EQ(one(L"select count(*) from third"), "0") << "nothing was changed";
    EXPECT_EQ(run({L"import", file, L"--yes", L"--json"}), ExitCode::Success);
    const std::vector<nlohmann::json> objects = console->objects();
    const nlohmann::json& result = objects.back();
    EXPECT_EQ(result["status"], "imported");
    EXPECT_EQ(result["rows"], 1);
    EXPECT_EQ(result["leftBehind"].size(), 0u);
    EXPECT_EQ(one(L"select group_concat(table_name) from information_schema.tables where "
                  L"table_schema = database()"),
              "sys_users");

    std::string hostile = directory.readFile(L"panel.sql");
    hostile.insert(hostile.find("CREATE"), "CREATE TABLE `a` (\x1b[2J int);\n");
    directory.writeFile(L"panel.sql", hostile);
    EXPECT_EQ(run({L"import", file, L"--yes"}), ExitCode::Failed);
    EXPECT_TRUE(contains(console->errors, "[2J")) << console->errors;
    EXPECT_FALSE(contains(console->errors, "\x1b")) << "the file speaks to the terminal";

    directory.writeFile(L"panel.sql", "-- ZOP database export, version 2\n");
    EXPECT_EQ(run({L"import", file, L"--yes"}), ExitCode::Failed);
    EXPECT_TRUE(contains(console->errors, "no export of a database")) << console->errors;
    EXPECT_FALSE(contains(console->output + console->errors, "secret"));
}

} // namespace zopctl
