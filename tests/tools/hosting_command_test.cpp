#include "tests/support/hosted_domain_fixture.h"
#include "tests/tools/pressing_clock.h"
#include "tests/tools/recording_console.h"
#include "tools/zopctl/commands.h"

#include <gmock/gmock.h>

namespace zopctl {

namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class HostingCommandTest : public HostedDomainFixture {
protected:
    // The words behind "hosting check ROOT", or "hosting" and all behind it.
    ExitCode run(const std::vector<std::wstring>& words, bool isConsole = false) {
        console.emplace(isConsole);
        console->answer = answer;
        return runCommandLine(words, *console);
    }
    ExitCode check(std::vector<std::wstring> words, bool isConsole = false) {
        words.insert(words.begin(), {L"hosting", L"check", root()});
        return run(words, isConsole);
    }
    nlohmann::json resultOf(std::vector<std::wstring> words, ExitCode code) {
        words.push_back(L"--json");
        EXPECT_EQ(check(words), code) << console->output;
        const nlohmann::json result = console->objects().back();
        EXPECT_EQ(result["event"], "result");
        EXPECT_EQ(result["exitCode"], static_cast<int>(code));
        return result;
    }

    bool answer = false;
    std::optional<RecordingConsole> console;
};

} // namespace

TEST_F(HostingCommandTest, ContradictionsAreRefusedBeforeAnythingIsLookedAt) {
    const std::pair<std::vector<std::wstring>, const char*> cases[] = {
        {{}, "--user is missing"},
        {{L"--user", L"w1", L"--webuser"}, "--webuser needs --parent"},
        {{L"--user", L"d1", L"--forwarding"}, "--forwarding goes without"},
        {{L"--webuser", L"--forwarding"}, "--forwarding goes without"},
        {{L"--user", L"d1", L"--fast", L"--read-only"}, "contradict"},
    };
    for (const auto& [words, says] : cases) {
        EXPECT_EQ(check(words), ExitCode::Usage);
        EXPECT_THAT(console->errors, HasSubstr(says));
    }
    EXPECT_TRUE(accounts.calls.empty());
}

TEST_F(HostingCommandTest, WhatCannotWorkIsRefusedWithWhatToDo) {
    makeAccounts();
    const AccountFake::State before = accounts.state;
    const std::vector<std::wstring> disk = temp.list();
    const auto refused = [&](const std::wstring& at, const std::vector<std::wstring>& words,
                             ExitCode code, const char* says, const char* remedy) {
        std::vector<std::wstring> all{L"hosting", L"check", at};
        all.insert(all.end(), words.begin(), words.end());
        EXPECT_EQ(run(all), code) << toUtf8(at);
        EXPECT_THAT(console->errors, HasSubstr(says));
        EXPECT_THAT(console->errors, HasSubstr(remedy));
        EXPECT_THAT(console->output, IsEmpty());
    };
    refused(temp.nice(), {L"--user", L"d1", L"--yes"}, ExitCode::Refused, "virtual hosts",
            "HTTPD_VHOSTS_D");
    refused(webRoot(), {L"--forwarding", L"--read-only"}, ExitCode::Refused, "no directory",
            "Without --read-only it is made");
    refused(root(), {L"--user", L"nobody", L"--yes"}, ExitCode::Refused, "no user (nobody)",
            "login");
    refused(root(), {L"--user", L"d1"}, ExitCode::Refused, "nobody to ask", "--yes");
    ntfs.makeLink(webRoot(), temp.nice(), IO_REPARSE_TAG_MOUNT_POINT, true);
    refused(webRoot(), {L"--forwarding", L"--yes"}, ExitCode::Refused, "is a link",
            "remove the link");
    ::RemoveDirectoryW(webRoot().c_str());
    RegistryOverride::remove(L"PRODUCT_DATA_D");
    refused(root(), {L"--user", L"d1", L"--yes"}, ExitCode::Failed, "PRODUCT_DATA_D", "are kept");
    configurePanel();
    database->execute(L"update hosting set app_pool_user = NULL");
    refused(root(), {L"--user", L"d1", L"--yes"}, ExitCode::Refused, "pool user", "--forwarding");
    database->execute(L"update hosting set app_pool_user = 'pool1'");
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, 4)");
    refused(root(), {L"--user", L"d1", L"--yes"}, ExitCode::Refused, "\"ftp2\"",
            "Make the account");
    accounts.state.groups.erase(L"zopcln");
    refused(root(), {L"--user", L"d1", L"--yes"}, ExitCode::Refused, "\"zopcln\"", "install");
    accounts.state = before;
    RegistryOverride::setDword(L"MySQLPort", 1);
    refused(root(), {L"--user", L"d1", L"--yes"}, ExitCode::Failed, "(127.0.0.1:1)", "MySQLPort");
    RegistryOverride::remove(L"HTTPD_VHOSTS_D");
    refused(root(), {L"--user", L"d1", L"--yes"}, ExitCode::Failed, "HTTPD_VHOSTS_D", "config set");
    EXPECT_EQ(accounts.state, before);
    EXPECT_EQ(temp.list(), disk);
}

TEST_F(HostingCommandTest, ARepairIsAskedForToldAndUndone) {
    const std::wstring file = temp.writeFile(L"vhosts\\a.example\\wwwroot\\index.html");
    ntfs.setSecurity(file, L"O:BAG:SYD:(A;;FA;;;WD)");
    const std::string disk = ntfs.fingerprint(root());
    const std::vector<std::wstring> user{L"--user", L"d1"};

    EXPECT_EQ(check({L"--user", L"d1", L"--read-only"}), ExitCode::Different);
    EXPECT_THAT(console->errors, HasSubstr("Warning: d1: The domain user account is absent.\n"));
    EXPECT_THAT(console->errors, HasSubstr("An account is missing"));
    EXPECT_EQ(check(user, true), ExitCode::Cancelled);
    EXPECT_THAT(console->questions, ::testing::ElementsAre(HasSubstr("Missing accounts are made")));
    EXPECT_THAT(console->errors, StartsWith("Nothing has been changed."));
    EXPECT_TRUE(accounts.state.users.empty());
    EXPECT_EQ(ntfs.fingerprint(root()), disk);

    answer = true;
    EXPECT_EQ(check(user, true), ExitCode::Success) << console->errors;
    EXPECT_THAT(console->errors, HasSubstr("Warning: pool1: Application pool user was absent. "));
    EXPECT_THAT(console->output,
                HasSubstr("Different: " + toUtf8(root()) + "\\wwwroot\\index.html\n  "));
    EXPECT_THAT(console->output, HasSubstr(" repaired, 3 accounts or groups made, in "));
    EXPECT_EQ(accounts.state.users.size(), 2U);
    const std::string repaired = ntfs.fingerprint(root());
    EXPECT_NE(repaired, disk);
    const std::string line = "To undo: zopctl hosting undo \"";
    const std::size_t at = console->output.find(line) + line.size();
    const std::wstring undoFile =
        toWide(console->output.substr(at, console->output.find('"', at) - at));

    nlohmann::json result = resultOf({L"--user", L"d1", L"--read-only"}, ExitCode::Success);
    EXPECT_EQ(result["status"], "in-order");
    EXPECT_EQ(result["different"], 0);
    EXPECT_EQ(result["undoFile"], "");
    result = resultOf({L"--user", L"d1", L"--yes"}, ExitCode::Success);
    EXPECT_EQ(result["status"], "in-order");

    EXPECT_EQ(run({L"hosting", L"undo", undoFile}), ExitCode::Success) << console->errors;
    EXPECT_EQ(ntfs.fingerprint(root()), disk);
    EXPECT_THAT(console->output, HasSubstr(" the old permissions again.\n"));
    EXPECT_EQ(run({L"hosting", L"undo", undoFile}), ExitCode::Success);
    EXPECT_THAT(console->output, HasSubstr("had them already"));
    result = resultOf({L"--user", L"d1", L"--read-only"}, ExitCode::Different);
    EXPECT_EQ(result["repaired"], 0);
    result = resultOf({L"--forwarding", L"--fast", L"--yes"}, ExitCode::Success);
    EXPECT_EQ(result["status"], "repaired");
    EXPECT_EQ(run({L"hosting", L"undo", temp.writeFile(L"other", "other")}), ExitCode::Refused);
    EXPECT_EQ(run({L"hosting", L"undo", temp.nice() + L"\\none"}), ExitCode::Failed);
}

// Whenever Ctrl+C comes, what was repaired is told and can be undone, and a second run goes on.
TEST_F(HostingCommandTest, CtrlCAtAnyMomentTellsWhatWasRepaired) {
    makeAccounts();
    for (const wchar_t* name : {L"a", L"b", L"c"}) {
        ntfs.setSecurity(temp.writeFile(L"vhosts\\a.example\\wwwroot\\" + std::wstring(name)),
                         L"O:BAG:SYD:(A;;FA;;;WD)");
    }
    const std::string disk = ntfs.fingerprint(root());
    PressingClock clock;
    int incomplete = 0;
    for (long pressAt = 1;; ++pressAt) {
        SCOPED_TRACE("pressed at " + std::to_string(pressAt));
        clock.pressAt(pressAt);
        const ExitCode code = check({L"--user", L"d1", L"--yes", L"--json"});
        const bool pressed = clock.wasPressed();
        clock.pressAt(0);
        const nlohmann::json result = console->objects().back();
        EXPECT_EQ(result["exitCode"], static_cast<int>(code));
        const std::wstring undoFile = toWide(result["undoFile"].get<std::string>());
        EXPECT_EQ(undoFile.empty(), result["repaired"] == 0);
        if (!undoFile.empty()) {
            EXPECT_EQ(run({L"hosting", L"undo", undoFile, L"--json"}), ExitCode::Success);
            EXPECT_EQ(console->objects().back()["restored"], result["repaired"]);
        }
        EXPECT_EQ(code == ExitCode::Cancelled, pressAt == 1) << "the first look is before the work";
        if (code == ExitCode::RollbackIncomplete) {
            ++incomplete;
        } else {
            EXPECT_EQ(code, undoFile.empty() ? ExitCode::Cancelled : ExitCode::Success);
        }
        EXPECT_EQ(ntfs.fingerprint(root()), disk);
        if (!pressed || HasFailure()) {
            break;
        }
    }
    EXPECT_GT(incomplete, 1);
    clock.pressAt(2);
    EXPECT_EQ(check({L"--user", L"d1", L"--yes"}), ExitCode::RollbackIncomplete);
    EXPECT_THAT(console->errors, HasSubstr("\nCancelled.\nWhat has been done so far stays"));
}

} // namespace zopctl
