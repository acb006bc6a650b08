#include "api/vhosts_security.h"

#include "api/argument_null_exception.h"
#include "runtime/exception.h"
#include "tests/support/hosted_domain_fixture.h"
#include "tests/support/traced.h"

#include <gmock/gmock.h>
#include <stdexcept>

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using zopobsolete::VHostsSecurity;
using Flags = VHostsSecurity::CheckPermissionsFlags;
using Type = VHostsSecurity::HostingType;

class VHostsSecurityTest : public HostedDomainFixture {
protected:
    // Runs a check. What it did: calls for accounts, texts of warnings, and "commit" where it went
    // on to the permissions, in order; the text of its failure at the end.
    template <class Function>
    std::vector<std::string> traceOf(const std::wstring& at, Function&& check) {
        VHostsSecurity security(at);
        std::vector<std::string> trace;
        accounts.calls.clear();
        const auto takeCalls = [&] {
            for (const std::wstring& call : accounts.calls) {
                trace.push_back(toUtf8(call));
            }
            accounts.calls.clear();
        };
        const Hook warnings = security.Warning.hook([&](const std::wstring& text) {
            takeCalls();
            trace.push_back("! " + toUtf8(text));
        });
        bool committed = false;
        const Hook items = security.Progress.hook([&](const std::wstring& path) {
            EXPECT_TRUE(path.starts_with(at)) << toUtf8(path);
            if (!std::exchange(committed, true)) {
                takeCalls();
                trace.push_back("commit");
            }
        });
        try {
            check(security);
        } catch (const zopobsolete::Exception& e) {
            takeCalls();
            trace.push_back(e.what());
        }
        takeCalls();
        return trace;
    }
    std::vector<std::string> traceOf(Type type, const wchar_t* user, const wchar_t* parent,
                                     Flags flags = Flags::None) {
        return traceOf(type == Type::Webuser ? webRoot() : root(), [&](VHostsSecurity& security) {
            security.CheckPermissions(type, user, parent, flags);
        });
    }
};

constexpr const char* ftpGroupThere[] = {"groupExists ftp_subaccounts", "getGroup ftp_subaccounts",
                                         "setGroupComment ftp_subaccounts Tarvo FTP group"};

// The calls for an account that is there.
std::vector<std::string> seenTo(const std::string& user) {
    return {"userExists " + user, "getGroup zopcln", "addMember zopcln " + user, "getUser " + user,
            "allowUserRDPLogon " + user + " 0"};
}

std::vector<std::string> joined(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

const std::vector<std::string> ftpSeenTo{std::begin(ftpGroupThere), std::end(ftpGroupThere)};

} // namespace

TEST_F(VHostsSecurityTest, MissingAccountsAreMadeBeforeThePermissions) {
    EXPECT_THAT(traceOf(Type::Domain, L"d1", nullptr),
                ElementsAre("userExists d1",
                            "! d1: The domain user account was absent. Tarvo has created it.",
                            "createUser d1", "getGroup zopcln", "addMember zopcln d1", "getUser d1",
                            "allowUserRDPLogon d1 0", "groupExists ftp_subaccounts",
                            "! ftp_subaccounts: Tarvo group was absent. Tarvo has created it.",
                            "createGroup ftp_subaccounts Tarvo FTP group",
                            "getGroup ftp_subaccounts",
                            "setGroupComment ftp_subaccounts Tarvo FTP group", "userExists pool1",
                            "! pool1: Application pool user was absent. Tarvo has created it.",
                            "createUser pool1", "getGroup zopcln", "addMember zopcln pool1",
                            "getUser pool1", "allowUserRDPLogon pool1 0", "commit"));
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

    const std::vector<std::string> again =
        joined({seenTo("d1"), ftpSeenTo, seenTo("pool1"), {"commit"}});
    EXPECT_EQ(traceOf(Type::Domain, L"d1", L""), again);
    EXPECT_EQ(accounts.state, expected);
}

TEST_F(VHostsSecurityTest, AWebUserComesWithTheAccountOfItsDomain) {
    makeAccounts();
    EXPECT_EQ(traceOf(Type::Webuser, L"w1", L"d1", Flags::ReadOnly),
              joined({seenTo("w1"), ftpSeenTo, seenTo("d1"), {"userExists pool1", "commit"}}));
    accounts.state.users.erase(L"w1");
    for (const wchar_t* parent : {static_cast<const wchar_t*>(nullptr), L""}) {
        const std::vector<std::string> trace = traceOf(Type::Webuser, L"w1", parent);
        EXPECT_THAT(trace.back(),
                    AllOf(StartsWith("Unknown parent user name for webuser\n   at ("),
                          HasSubstr("\n   at Check hosting permissions(web, w1, , #0("
                                    "zopobsolete::VHostsSecurity::CheckPermissions line ")));
        EXPECT_EQ(trace[trace.size() - 2], ftpSeenTo.back()) << "something ran after the group";
    }
    EXPECT_EQ(accounts.state.users[L"w1"].password, L"secret w1");
    EXPECT_EQ(traceOf(Type::Domain, L"d1", L"w1", static_cast<Flags>(9)),
              joined({seenTo("d1"), ftpSeenTo, seenTo("w1"), seenTo("pool1"), {"commit"}}));
}

TEST_F(VHostsSecurityTest, WhatCannotBeAskedForIsRefusedWithItsText) {
    makeAccounts();
    for (const auto& [type, name] :
         {std::pair(5, "5"), std::pair(26, "1A"), std::pair(0, "0"), std::pair(-1, "FFFFFFFF")}) {
        const std::vector<std::string> trace =
            traceOf(static_cast<Type>(type), L"d1", nullptr, static_cast<Flags>(0x2B));
        EXPECT_THAT(
            trace.back(),
            AllOf(StartsWith("Unknown hosting type #" + std::string(name) + "\n   at ("),
                  HasSubstr("\n   at Check hosting permissions(domain, d1, , #2B(zopobsolete::")));
        EXPECT_EQ(trace[trace.size() - 2], ftpSeenTo.back());
    }
    EXPECT_EQ(VHostsSecurity::translateHostingType(Type::Webuser), L"web");
    EXPECT_EQ(VHostsSecurity::translateHostingType(Type::Domain), L"domain");
    EXPECT_EQ(VHostsSecurity::translateHostingType(static_cast<Type>(7)), L"domain");

    VHostsSecurity security(root());
    accounts.calls.clear();
    try {
        security.CheckPermissions(Type::Domain, nullptr, L"d1", Flags::None);
        ADD_FAILURE() << "a null user was taken";
    } catch (const zopobsolete::ArgumentNullException& e) {
        EXPECT_STREQ(e.get_ParamName(), L"user");
    }
    EXPECT_THROW(security.InspectPermissions(Type::Domain, nullptr, L"d1"),
                 zopobsolete::ArgumentNullException);
    EXPECT_TRUE(accounts.calls.empty());
    security.Dispose();
    security.Dispose();
    EXPECT_THROW(security.CheckPermissions(Type::Domain, L"d1", nullptr, Flags::None),
                 zopobsolete::Exception);
    EXPECT_THAT(traceOf(Type::Domain, L"nobody", nullptr),
                ElementsAre(StartsWith("The panel's database has no user (nobody)\n")));
}

// What was done before stays, nothing is done after.
TEST_F(VHostsSecurityTest, AFailingStepEndsTheCheck) {
    makeAccounts();
    accounts.state.users.erase(L"pool1");
    accounts.state.groups.erase(L"ftp_subaccounts");
    const AccountFake::State before = accounts.state;
    const std::vector<std::string> whole = traceOf(Type::Domain, L"d1", L"w1");
    ASSERT_EQ(whole.back(), "commit");
    std::size_t failed = 0;
    for (long n = 1;; ++n) {
        accounts.state = before;
        accounts.failAt = n;
        std::vector<std::string> trace = traceOf(Type::Domain, L"d1", L"w1");
        if (!accounts.failAt.fired) {
            EXPECT_EQ(trace, whole);
            break;
        }
        ++failed;
        EXPECT_THAT(trace.back(), HasSubstr("Unable to use the account ("));
        EXPECT_THAT(trace.back(), HasSubstr("at Check hosting permissions(domain, d1, w1, #0("));
        trace.pop_back();
        EXPECT_EQ(trace, std::vector(whole.begin(),
                                     whole.begin() + static_cast<std::ptrdiff_t>(trace.size())));
    }
    EXPECT_EQ(failed, whole.size() - 3); // two warnings and the commit are no calls
    accounts.failAt = 0;
    RegistryOverride::setString(L"MySQLPassword", L"wrong");
    EXPECT_THAT(traceOf(Type::Domain, L"d1", nullptr),
                ElementsAre(HasSubstr("at Check hosting permissions(domain, d1, , #0(")));
}

// A login that is found stays out of the group; one that is not is put into it, and the system
// refuses what is no account.
TEST_F(VHostsSecurityTest, FtpLoginsThatAreNotFoundAreAddedToTheGroup) {
    makeAccounts();
    accounts.state.users[L"ftp1"];
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, NULL), (1, 3)");
    EXPECT_EQ(traceOf(Type::Domain, L"d1", nullptr),
              joined({seenTo("d1"), ftpSeenTo, {"userExists ftp1"}, seenTo("pool1"), {"commit"}}));
    EXPECT_TRUE(accounts.state.groups[L"ftp_subaccounts"].members.empty());
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, 4), (1, 3)");
    std::vector<std::string> trace = traceOf(Type::Domain, L"d1", nullptr);
    EXPECT_THAT(trace.back(), HasSubstr("(Error code 1387)"));
    trace.pop_back();
    EXPECT_EQ(trace,
              joined({seenTo("d1"),
                      ftpSeenTo,
                      {"userExists ftp1", "userExists ftp2", "addMember ftp_subaccounts ftp2"}}));
}

TEST_F(VHostsSecurityTest, EachStepHasItsSpan) {
    const Traced traced;
    configure();
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

TEST_F(VHostsSecurityTest, InspectionChangesNoAccount) {
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, 4)");
    const auto inspect = [&](std::vector<std::string>& warnings) {
        const AccountFake::State before = accounts.state;
        VHostsSecurity security(root(), false);
        const Hook hook = security.Warning.hook(
            [&](const std::wstring& text) { warnings.push_back(toUtf8(text)); });
        const bool complete = security.InspectPermissions(Type::Domain, L"d1", L"w1");
        EXPECT_EQ(accounts.state, before);
        return complete;
    };
    std::vector<std::string> warnings;
    EXPECT_FALSE(inspect(warnings));
    EXPECT_THAT(warnings, ElementsAre("d1: The domain user account is absent.",
                                      "ftp_subaccounts: Tarvo group is absent.",
                                      "w1: The domain user account is absent.",
                                      "pool1: Application pool user is absent."));
    makeAccounts();
    accounts.state.groups[L"zopcln"].members.erase(L"w1");
    warnings.clear();
    EXPECT_TRUE(inspect(warnings));
    EXPECT_THAT(warnings, ElementsAre("ftp2: FTP account is absent.",
                                      "w1: The account is not in the group zopcln."));
    temp.writeFile(L"vhosts\\file");
    EXPECT_ANY_THROW(VHostsSecurity(temp.nice() + L"\\vhosts\\file", false)
                         .CheckFrameForwardingPermissions(Flags::ReadOnly));
    EXPECT_TRUE(temp.has(L"vhosts\\file"));
}

TEST_F(VHostsSecurityTest, WhateverAListenerThrowsEndsTheCheck) {
    makeAccounts();
    accounts.state.users.erase(L"d1");
    temp.writeFile(L"vhosts\\a.example\\file");
    VHostsSecurity security(root());
    int raised = 0;
    const auto fail = [&raised](auto&&...) {
        ++raised;
        throw std::runtime_error("no screen");
    };
    const auto check = [&] {
        try {
            security.CheckPermissions(Type::Domain, L"d1", nullptr, Flags::None);
        } catch (const zopobsolete::Exception& e) {
            return std::string(e.what());
        }
        return std::string("no failure");
    };
    for (int event = 0; event < 3; ++event) {
        const Hook hook = event == 0   ? security.Warning.hook(fail)
                          : event == 1 ? security.Progress.hook(fail)
                                       : security.SecurityException.hook(fail);
        EXPECT_THAT(check(), StartsWith("no screen\n   at (zopobsolete::VHostsSecurityProxy::on"));
        EXPECT_EQ(raised, event + 1);
        makeAccounts();
    }
    // It goes when the call that runs has ended.
    const Hook disposing = security.Progress.hook([&](const std::wstring&) { security.Dispose(); });
    EXPECT_EQ(check(), "no failure");
    EXPECT_THAT(check(), StartsWith("The hosting security object has been disposed of"));
}
