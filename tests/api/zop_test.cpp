#include "api/zop.h"

#include "runtime/accounts/user_information.h"
#include "runtime/text.h"
#include "tests/api/public_failure.h"
#include "tests/support/child_program.h"
#include "tests/support/local_config_service.h"
#include "tests/support/temp_directory.h"
#include "tests/support/traced.h"

#include <functional>
#include <gmock/gmock.h>
#include <sstream>

namespace {

using testing::MatchesRegex;
using zopobsolete::zop;

zop& panel() {
    return zop::getInstance();
}

class DomainOfTests final : public UserManagement::IUserInformation {
public:
    std::wstring getDomainServerName() override { return L"dc1.example.com"; }
    bool userExists(const std::wstring&) override { return false; }
    bool groupExists(const std::wstring&) override { return false; }
};

} // namespace

TEST(ZopTest, ValuesComeBackAsTheyWereSet) {
    const RegistryOverride registry;
    const LocalConfigService service;
    panel().set_Item(L"FTPPassword", L"p\x00E4ss \x65E5");
    EXPECT_EQ(panel().get_Item(L"FTPPassword"), L"p\x00E4ss \x65E5");
    panel().set_ConfigDWORD(L"Debug", 0xFFFFFFFF);
    panel().Dispose();
    EXPECT_EQ(panel().get_ConfigDWORD(L"Debug"), 0xFFFFFFFF) << "still there";
    for (const DWORD yes : {1UL, 0UL}) {
        RegistryOverride::setDword(L"VirtualEnvironment", yes);
        EXPECT_EQ(panel().get_isVPS(), yes != 0);
    }
}

// The message of the client, the place where the client failed with the cause, and the public
// method: nothing else, whether the service refuses or is not there. No text has a value in it.
TEST(ZopTest, FailuresHaveTheCallsMessageTheCauseAndOneLineForTheMethod) {
    const RegistryOverride registry;
    LocalConfigService service;
    RegistryOverride::setString(L"text", L"s3cret");
    struct Case {
        std::function<void()> call;
        const char* message;
        const char* client;
        const char* method; // empty: no line
    };
    const auto hidden = [](const std::wstring& name) { panel().set_Item(name, L"s3cret"); };
    const Case refused[] = {
        {[] { panel().get_Item(L"none"); }, "Unable to call getString\\(none\\)", "getString",
         "Item::get line 91"},
        {[&] { hidden(L""); }, "Unexpected error", "setString", "Item::set line 110"},
        {[] { panel().get_ConfigDWORD(L"text"); }, "Unable to call getDWORD\\(text\\)", "getDWORD",
         "ConfigDWORD::get line \\d+"},
        {[] { panel().set_ConfigDWORD(L"a\\b", 70'000); },
         "Unable to call setDWORD\\(a\\\\b = 70000\\)", "setDWORD", "ConfigDWORD::set line \\d+"},
        {[] { panel().get_Item(L"none"); }, "Unable to call getString\\(none\\)", "getString",
         "Item::get line 91"},
        {[&] { hidden(L"text"); }, "Unexpected error", "setString", "Item::set line 110"},
        {[] { panel().get_isVPS(); }, "Unable to call isVE\\(\\)", "isVE", ""},
    };
    for (std::size_t i = 0; i < std::size(refused); ++i) {
        if (i == 4) {
            service.stop();
        }
        const Case& c = refused[i];
        const std::string text = failureOf(c.call);
        std::string pattern =
            std::string(c.message) + "\n   at .+\\(TarvoSrvClient::" + c.client + " line \\d+\\)";
        if (*c.method != '\0') {
            pattern += std::string("\n   at \\(zopobsolete::zop::") + c.method + "\\)";
        }
        EXPECT_THAT(text, MatchesRegex(pattern));
        EXPECT_EQ(text.find("s3cret"), std::string::npos);
    }
}

TEST(ZopTest, MembersButFourHaveTheirSpan) {
    const Traced traced;
    const LocalConfigService service;
    panel().set_Item(L"text", L"");
    panel().get_Item(L"text");
    panel().set_ConfigDWORD(L"number", 1);
    panel().get_ConfigDWORD(L"number");
    panel().init();
    panel().done();
    panel().get_isVPS();
    panel().getUserNameWithoutDomain(L"");
    panel().getUserDomainServerName();
    failureOf([] { panel().execBinUtil(L"none.exe", {}); });
    panel().Dispose();
    std::vector<std::string> spans;
    std::istringstream lines(takeTraces());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string verb, name, number;
        words >> verb >> name >> number;
        if (verb == "start" && name.starts_with("zopobsolete::zop::")) {
            const bool given = name.find("::Item::") != std::string::npos;
            spans.push_back(name.substr(18) + (given ? " " + number : ""));
        }
    }
    EXPECT_EQ(spans,
              (std::vector<std::string>{"Item::set 98", "Item::get 68", "ConfigDWORD::set",
                                        "ConfigDWORD::get", "getUserNameWithoutDomain",
                                        "getUserDomainServerName", "execBinUtil", "Dispose"}));
}

TEST(ZopTest, AUtilityOfThePanelRunsAndItsMessageIsTheFailure) {
    const RegistryOverride registry;
    const TempDirectory product;
    const std::wstring tool = product.makeDirectory(L"admin\\bin") + L"\\tool.exe";
    ASSERT_TRUE(::CopyFileW(childProgram().c_str(), tool.c_str(), TRUE));
    EXPECT_THAT(
        failureOf([] { panel().execBinUtil(L"tool.exe", {}); }),
        MatchesRegex("lookup subKey=.*PRODUCT_ROOT_D.*\n   at \\(registry::getstr line 736\\)"
                     "\n   at \\(zopobsolete::zop::execBinUtil line \\d+\\)"));
    RegistryOverride::setString(L"PRODUCT_ROOT_D", product.nice());
    EXPECT_EQ(panel().execBinUtil(L"tool.exe", childWords({L"args", L"a \"b\"\\"})),
              codeUnits(L"a \"b\"\\") + L"\nend");
    EXPECT_THAT(failureOf([] {
                    panel().execBinUtil(L"tool.exe", childWords({L"exit", L"5", L"o", L"no site"}));
                }),
                MatchesRegex("no site\n   at \\(RunTime::execUtil line \\d+\\)"
                             "\n   at \\(zopobsolete::zop::execBinUtil line \\d+\\)"));
}

TEST(ZopTest, AccountNamesAndTheirServerComeFromTheAccountService) {
    const RegistryOverride registry;
    EXPECT_EQ(panel().getUserNameWithoutDomain(L"DOMAIN\\user"), L"user");
    EXPECT_EQ(panel().getUserDomainServerName(), L"");
    using UserManagement::UserInformation;
    const UserInformation::Provider before =
        UserInformation::replaceProvider([] { return std::make_unique<DomainOfTests>(); });
    EXPECT_EQ(panel().getUserDomainServerName(), L"dc1.example.com");
    UserInformation::replaceProvider(before);
}
