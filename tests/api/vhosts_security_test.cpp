#include "api/vhosts_security.h"

#include "api/argument_null_exception.h"
#include "tests/api/public_failure.h"
#include "tests/support/hosted_domain_fixture.h"
#include "tests/support/traced.h"

#include <gmock/gmock.h>
#include <stdexcept>

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using zopobsolete::VHostsSecurity;
using Flags = VHostsSecurity::CheckPermissionsFlags;
using Type = VHostsSecurity::HostingType;

// The calls for an account, and for the FTP group, that are there.
std::string finished(const std::string& user) {
    return "getUser " + user + "\nisAdministrator " + user +
           "\ngetGroup zopcln\naddMember zopcln " + user + "\nallowUserRDPLogon " + user + " 0\n";
}
std::string seenTo(const std::string& user) {
    return "userExists " + user + "\n" + finished(user);
}
const std::string ftpSeenTo = "groupExists ftp_subaccounts\ngetGroup ftp_subaccounts\n"
                              "setGroupComment ftp_subaccounts Tarvo FTP group\n";

class VHostsSecurityTest : public HostedDomainFixture {
protected:
    // Runs a check. What it did, a line each: calls for accounts, warnings, and "commit" where it
    // went on to the permissions. Whatever ended it is in failure.
    std::string traceOf(Type type, const wchar_t* user, const wchar_t* parent,
                        Flags flags = Flags::None) {
        VHostsSecurity security(type == Type::Webuser ? webRoot() : root());
        std::string trace;
        const auto add = [&](const std::string& line) {
            for (const std::wstring& call : std::exchange(accounts.calls, {})) {
                trace += toUtf8(call) + "\n";
            }
            trace += line;
        };
        accounts.calls.clear();
        const Hook warnings = security.Warning.hook(
            [&](const std::wstring& text) { add("! " + toUtf8(text) + "\n"); });
        bool committed = false;
        const Hook items = security.Progress.hook(
            [&](const std::wstring&) { add(std::exchange(committed, true) ? "" : "commit\n"); });
        failure = failureOf([&] { security.CheckPermissions(type, user, parent, flags); });
        add("");
        return trace;
    }

    std::string failure;
};

} // namespace

TEST_F(VHostsSecurityTest, MissingAccountsAreMadeBeforeThePermissions) {
    EXPECT_EQ(traceOf(Type::Domain, L"d1", nullptr),
              "userExists d1\n"
              "! d1: The domain user account was absent. Tarvo has created it.\n"
              "createUser d1\n" +
                  finished("d1") +
                  "groupExists ftp_subaccounts\n"
                  "! ftp_subaccounts: Tarvo group was absent. Tarvo has created it.\n"
                  "createGroup ftp_subaccounts Tarvo FTP group\ngetGroup ftp_subaccounts\n"
                  "setGroupComment ftp_subaccounts Tarvo FTP group\n"
                  "userExists pool1\n"
                  "! pool1: Application pool user was absent. Tarvo has created it.\n"
                  "createUser pool1\n" +
                  finished("pool1") + "commit\n");
    EXPECT_EQ(failure, "no failure");
    AccountFake::State expected;
    expected.users[L"d1"] = {.password = L"secret d1",
                             .fullName = L"Tarvo Domain User",
                             .comment = L"Created by Tarvo",
                             .rdpLogon = false};
    expected.users[L"pool1"] = {.password = L"secret d1",
                                .description = L"Tarvo IIS Worker Process Identity Account",
                                .rdpLogon = false};
    expected.groups[L"zopcln"].members = {L"d1", L"pool1"};
    expected.groups[L"ftp_subaccounts"].comment = L"Tarvo FTP group";
    EXPECT_EQ(accounts.state, expected);
    EXPECT_EQ(traceOf(Type::Domain, L"d1", L""),
              seenTo("d1") + ftpSeenTo + seenTo("pool1") + "commit\n");
    EXPECT_EQ(accounts.state, expected);
}

TEST_F(VHostsSecurityTest, AWebUserComesWithTheAccountOfItsDomain) {
    makeAccounts();
    EXPECT_EQ(traceOf(Type::Webuser, L"w1", L"d1", Flags::ReadOnly),
              seenTo("w1") + ftpSeenTo + seenTo("d1") + "userExists pool1\ncommit\n");
    accounts.state.users.erase(L"w1");
    for (const wchar_t* parent : {static_cast<const wchar_t*>(nullptr), L""}) {
        EXPECT_THAT(traceOf(Type::Webuser, L"w1", parent), ::testing::EndsWith("0\n" + ftpSeenTo));
        EXPECT_THAT(failure, StartsWith("Unknown parent user name for webuser\n   at ("));
        EXPECT_THAT(failure, HasSubstr("\n   at Check hosting permissions(web, w1, , #0("
                                       "zopobsolete::VHostsSecurity::CheckPermissions line "));
    }
    EXPECT_EQ(accounts.state.users[L"w1"].password, L"secret w1");
    EXPECT_EQ(traceOf(Type::Domain, L"d1", L"w1"),
              seenTo("d1") + ftpSeenTo + seenTo("w1") + seenTo("pool1") + "commit\n");
}

TEST_F(VHostsSecurityTest, AnAdministratorsAccountIsNoHostings) {
    makeAccounts();
    accounts.state.users[L"pool1"].administrator = true;
    accounts.state.groups[L"zopcln"].members.erase(L"pool1");
    EXPECT_EQ(traceOf(Type::Domain, L"d1", L""),
              seenTo("d1") + ftpSeenTo +
                  "userExists pool1\ngetUser pool1\nisAdministrator pool1\n");
    EXPECT_THAT(failure, StartsWith("pool1: The account is an administrator's"));
}

// A file that the template does not name, and the root, which it names, are open to everybody.
TEST_F(VHostsSecurityTest, FlagsSayWhatIsLookedAtAndWhetherItIsRepaired) {
    makeAccounts();
    const std::wstring deep = temp.writeFile(L"vhosts\\a.example\\site\\sub\\file");
    struct Case {
        int flags;
        bool looksDeep;
        bool repairs;
    };
    for (const Case& one : {Case{0, true, true}, Case{1, true, false}, Case{2, false, true},
                            Case{3, true, true}, Case{-1, true, true}}) {
        for (const bool forwards : {false, true}) {
            SCOPED_TRACE(std::to_string(one.flags) + (forwards ? " forwarding" : ""));
            for (const std::wstring& item : {root(), deep}) {
                ntfs.setSecurity(item, L"O:BAG:SYD:(A;;FA;;;WD)");
            }
            const std::wstring open = ntfs.security(root());
            VHostsSecurity security(root());
            bool sawDeep = false;
            const Hook items = security.Progress.hook([&](const std::wstring& path) {
                sawDeep = sawDeep || path == temp.nice() + L"\\vhosts\\a.example\\site\\sub\\file";
            });
            accounts.calls.clear();
            const auto flags = static_cast<Flags>(one.flags);
            forwards ? security.CheckFrameForwardingPermissions(flags)
                     : security.CheckPermissions(Type::Domain, L"d1", nullptr, flags);
            EXPECT_EQ(accounts.calls.empty(), forwards);
            EXPECT_EQ(sawDeep, one.looksDeep);
            EXPECT_EQ(ntfs.security(root()) != open, one.repairs);
            EXPECT_EQ(ntfs.security(deep) != open, one.repairs && one.looksDeep);
            EXPECT_EQ(security.get_RepairedCount() > 0, one.repairs);
            EXPECT_EQ(security.get_UndoFile().empty(), !one.repairs);
        }
    }
}

TEST_F(VHostsSecurityTest, WhatCannotBeAskedForIsRefusedWithItsText) {
    makeAccounts();
    for (const auto& [type, name] : {std::pair(5, "5"), std::pair(26, "1A"), std::pair(0, "0")}) {
        EXPECT_EQ(traceOf(static_cast<Type>(type), L"d1", nullptr, static_cast<Flags>(0x2B)),
                  seenTo("d1") + ftpSeenTo);
        EXPECT_THAT(failure, StartsWith("Unknown hosting type #" + std::string(name) + "\n   at "));
        EXPECT_THAT(failure, HasSubstr("at Check hosting permissions(domain, d1, , #2B("));
    }
    EXPECT_EQ(VHostsSecurity::translateHostingType(Type::Webuser), L"web");
    EXPECT_EQ(VHostsSecurity::translateHostingType(static_cast<Type>(7)), L"domain");
    VHostsSecurity security(root());
    accounts.calls.clear();
    try {
        security.CheckPermissions(Type::Domain, nullptr, L"d1", Flags::None);
        ADD_FAILURE() << "a null user was taken";
    } catch (const zopobsolete::ArgumentNullException& e) {
        EXPECT_STREQ(e.get_ParamName(), L"user");
    }
    EXPECT_TRUE(accounts.calls.empty());
    EXPECT_EQ(traceOf(Type::Domain, L"nobody", nullptr), "");
    EXPECT_THAT(failure, StartsWith("The panel's database has no user (nobody)\n"));
}

// What was done before stays, nothing is done after.
TEST_F(VHostsSecurityTest, AFailingStepEndsTheCheck) {
    makeAccounts();
    accounts.state.users.erase(L"pool1");
    accounts.state.groups.erase(L"ftp_subaccounts");
    const AccountFake::State before = accounts.state;
    const std::string whole = traceOf(Type::Domain, L"d1", L"w1");
    const auto calls = static_cast<long>(std::count(whole.begin(), whole.end(), '\n')) - 3;
    for (long n = 1; n <= calls; ++n) { // neither a warning nor the commit is a call
        accounts.state = before;
        accounts.failAt = n;
        const std::string trace = traceOf(Type::Domain, L"d1", L"w1");
        EXPECT_THAT(whole, StartsWith(trace));
        EXPECT_LT(trace.size(), whole.size());
        EXPECT_THAT(failure, HasSubstr("Unable to use the account ("));
        EXPECT_THAT(failure, HasSubstr("at Check hosting permissions(domain, d1, w1, #0("));
    }
    accounts.failAt = 0;
    RegistryOverride::setString(L"MySQLPassword", L"wrong");
    EXPECT_EQ(traceOf(Type::Domain, L"d1", nullptr), "");
    EXPECT_THAT(failure, StartsWith("Unable to connect to the database server"));
}

// A login that is found stays out of the group; one that is not is put into it, and the system
// refuses what is no account.
TEST_F(VHostsSecurityTest, FtpLoginsThatAreNotFoundAreAddedToTheGroup) {
    makeAccounts();
    accounts.state.users[L"ftp1"];
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, NULL), (1, 3)");
    EXPECT_EQ(traceOf(Type::Domain, L"d1", nullptr),
              seenTo("d1") + ftpSeenTo + "userExists ftp1\n" + seenTo("pool1") + "commit\n");
    EXPECT_TRUE(accounts.state.groups[L"ftp_subaccounts"].members.empty());
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, 4), (1, 3)");
    EXPECT_EQ(traceOf(Type::Domain, L"d1", nullptr),
              seenTo("d1") + ftpSeenTo +
                  "userExists ftp1\nuserExists ftp2\naddMember ftp_subaccounts ftp2\n");
    EXPECT_THAT(failure, HasSubstr("(Error code 1387)"));
}

TEST_F(VHostsSecurityTest, EachStepHasItsSpan) {
    const Traced traced;
    configurePanel();
    makeAccounts();
    traceOf(Type::Webuser, L"w1", L"d1");
    traceOf(Type::Domain, L"d1", nullptr);
    const std::string spans = takeTraces();
    for (const char* name :
         {"VHostsSecurity::CheckPermissions", "Check web w1 user", "Check domain d1 user",
          "Check FTP sub accounts ftp_subaccounts group", "Check pool pool1 user"}) {
        EXPECT_THAT(spans, HasSubstr(name));
    }
}

TEST_F(VHostsSecurityTest, AnInspectionChangesNothing) {
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, 4)");
    std::string warnings;
    const auto inspect = [&] {
        const AccountFake::State before = accounts.state;
        const std::string disk = ntfs.fingerprint(root());
        VHostsSecurity security(root(), false);
        const Hook hook = security.Warning.hook(
            [&](const std::wstring& text) { warnings += toUtf8(text) + "\n"; });
        const bool complete = security.InspectPermissions(Type::Domain, L"d1", L"w1");
        EXPECT_EQ(accounts.state, before);
        EXPECT_EQ(ntfs.fingerprint(root()), disk);
        return complete;
    };
    EXPECT_FALSE(inspect());
    makeAccounts();
    accounts.state.groups[L"zopcln"].members.erase(L"w1");
    EXPECT_TRUE(inspect());
    EXPECT_EQ(warnings, "d1: The domain user account is absent.\n"
                        "ftp_subaccounts: Tarvo group is absent.\n"
                        "w1: The domain user account is absent.\n"
                        "pool1: Application pool user is absent.\n"
                        "ftp2: FTP account is absent.\n"
                        "w1: The account is not in the group zopcln.\n");
    temp.writeFile(L"vhosts\\file");
    EXPECT_ANY_THROW(VHostsSecurity(temp.nice() + L"\\vhosts\\file", false)
                         .CheckFrameForwardingPermissions(Flags::ReadOnly));
    EXPECT_TRUE(temp.has(L"vhosts\\file"));
}

TEST_F(VHostsSecurityTest, WhateverAListenerThrowsEndsTheCheck) {
    makeAccounts();
    accounts.state.users.erase(L"d1");
    VHostsSecurity security(root());
    const auto fail = [](auto&&...) { throw std::runtime_error("no screen"); };
    const auto check = [&] {
        return failureOf(
            [&] { security.CheckPermissions(Type::Domain, L"d1", nullptr, Flags::None); });
    };
    for (int event = 0; event < 3; ++event) {
        const Hook hook = event == 0   ? security.Warning.hook(fail)
                          : event == 1 ? security.Progress.hook(fail)
                                       : security.SecurityException.hook(fail);
        EXPECT_THAT(check(), StartsWith("no screen\n   at (zopobsolete::VHostsSecurityProxy::on"));
        makeAccounts();
    }
    // It goes when the call that runs has ended.
    const Hook disposing = security.Progress.hook([&](const std::wstring&) { security.Dispose(); });
    EXPECT_EQ(check(), "no failure");
    EXPECT_THAT(check(), StartsWith("The hosting security object has been disposed of"));
}
