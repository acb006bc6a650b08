#include "relocation/vhosts/vhosts_preflight.h"

#include "relocation/vhosts/place_text.h"
#include "runtime/files/file.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "tests/panel/panel.h"
#include "tests/support/account_fake.h"
#include "tests/support/database_fixture.h"
#include "tests/support/local_config_service.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace {

using Severity = MoveFinding::Severity;

class VHostsPreflightTest : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (database) {
            panel_.build();
            restore();
        }
    }

    // The whole panel again, whatever a case that must not be seen by others has done to it.
    void restore() {
        for (; !aside_.empty(); aside_.pop_back()) {
            RunTime::moveEx(aside_.back() + L".aside", aside_.back());
        }
        RegistryOverride::setString(config::name::vhosts, panel_.vhosts());
        RegistryOverride::setString(config::name::productRoot, panel_.productRoot());
        configure(registry_);
        panel_.store().setControl({});
        accounts_.state = {};
        accounts_.failAt = 0;
        for (const panel::Account& account : panel_.accounts()) {
            accounts_.state.users[account.login] = {.home = account.home};
        }
        source_.clear();
        if (!service_) {
            service_.emplace();
        }
    }

    void putAside(const std::wstring& path) {
        RunTime::moveEx(path, path + L".aside");
        aside_.push_back(path);
    }

    std::wstring target() const { return directory_.nice() + L"\\moved\\hosts"; }

    VHostsPreflight::Result examine(const std::wstring& to = {}) {
        VHostsPreflight preflight;
        return preflight.examine(source_, to.empty() ? target() : to, options_);
    }

    static const MoveFinding* find(const MovePreflight::Result& seen, const std::string& code) {
        const auto found =
            std::find_if(seen.findings.begin(), seen.findings.end(),
                         [&](const MoveFinding& finding) { return finding.code == code; });
        return found == seen.findings.end() ? nullptr : &*found;
    }

    static std::string text(const MovePreflight::Result& seen) {
        std::string all;
        for (const MoveFinding& finding : seen.findings) {
            all += finding.code + ": " + toUtf8(finding.reason + L" " + finding.remedy) + "\n";
        }
        return all;
    }

    static void setValue(const wchar_t* key, const wchar_t* name, const std::wstring& value) {
        registry::setString(HKEY_LOCAL_MACHINE, key, name, value, RegistryView::View64,
                            registry::MissingKey::Create);
    }

    TempDirectory directory_;
    RegistryOverride registry_;
    AccountFake accounts_;
    panel::Panel panel_{directory_.nice(), {.domains = 4, .files = 1}};
    std::optional<LocalConfigService> service_;
    std::vector<std::wstring> aside_;
    std::wstring source_;
    VHostsPreflight::Options options_;
};

} // namespace

TEST_F(VHostsPreflightTest, AWholePanelIsCountedAndNothingIsChanged) {
    const std::string before = panel_.snapshot();
    const AccountFake::State accounts = accounts_.state;
    const VHostsPreflight::Result seen = examine();
    EXPECT_EQ(panel_.snapshot(), before);
    EXPECT_EQ(accounts_.state, accounts);
    for (const panel::Words& call : panel_.store().calls()) {
        EXPECT_EQ(toUtf8(call.back()), "--get-sites-root-path");
    }
    EXPECT_FALSE(seen.isRefused()) << text(seen);
    EXPECT_TRUE(seen.isExamined);
    EXPECT_TRUE(seen.willCopy) << "homes are copied into the target first";
    EXPECT_EQ(seen.homes, std::ssize(panel_.accounts()));
    EXPECT_EQ(seen.homesOnDisk, std::count_if(panel_.accounts().begin(), panel_.accounts().end(),
                                              [](const panel::Account& account) {
                                                  return RunTime::exists(account.home);
                                              }));
    EXPECT_EQ(seen.wwwRoots, 2) << "of three hostings, one lies elsewhere";
    EXPECT_GE(seen.sites, 3);
    EXPECT_EQ(seen.installerValues, 4);
    EXPECT_FALSE(seen.otherVolume);
    // The expandable value is the only thing that a move does not bring into line.
    ASSERT_EQ(seen.notCovered.size(), 1U);
    EXPECT_TRUE(seen.notCovered[0].ends_with(L"\\Components\\Webmail\\Expandable"))
        << toUtf8(seen.notCovered[0]);
}

TEST_F(VHostsPreflightTest, WhatStandsInTheWayOrIsNotCoveredIsFound) {
    struct Case {
        const char* code;
        Severity severity;
        const wchar_t* says; // in reason or remedy
        std::function<void()> arrange;
    };
    const std::wstring vhosts = panel_.vhosts();
    const auto remove = [&](const wchar_t* program) {
        return [this, program] { putAside(panel_.productRoot() + program); };
    };
    std::wstring to; // empty: the usual one
    const Case cases[] = {
        {"no-config-service", Severity::Refuse, L"sc start", [&] { service_.reset(); }},
        {"not-configured", Severity::Refuse, L"HTTPD_VHOSTS_D",
         [] { RegistryOverride::remove(config::name::vhosts); }},
        {"other-than-configured", Severity::Warn, L"--source",
         [&] { source_ = panel_.elsewhere(); }},
        {"source-missing", Severity::Refuse, L"does not exist", [&] { putAside(vhosts); }},
        {"no-product-root", Severity::Refuse, L"PRODUCT_ROOT_D",
         [] { RegistryOverride::remove(config::name::productRoot); }},
        {"missing-program", Severity::Refuse, L"admin\\bin64\\ftphostctl.exe",
         remove(L"\\admin\\bin64\\ftphostctl.exe")},
        {"missing-program", Severity::Refuse, L"admin\\modlib\\cu\\repair.php",
         remove(L"\\admin\\modlib\\cu\\repair.php")},
        {"missing-program", Severity::Refuse, L"admin\\bin\\relink_tool.exe",
         remove(L"\\admin\\bin\\relink_tool.exe")},
        {"no-database", Severity::Refuse, L"MySQLPort",
         [] { RegistryOverride::setDword(config::name::mySqlPort, 1); }},
        {"bad-database", Severity::Refuse, L"sys_users",
         [] { RegistryOverride::setString(config::name::mySqlDatabase, L"information_schema"); }},
        {"no-sites", Severity::Refuse, L"IIS is stopped",
         [&] {
             panel_.store().setControl(
                 {{L"fail", L"0", L"--get-sites-root-path", L"3", L"IIS is stopped"}});
         }},
        {"missing-users", Severity::Warn, L"(d1)", [&] { accounts_.state.users.erase(L"d1"); }},
        {"no-accounts", Severity::Refuse, L"domain controller",
         [&] {
             accounts_.failCall = L"userExists";
             accounts_.failAt = 1;
         }},
        {"missing-homes", Severity::Warn, L"web_users\\gone", [] {}},
        {"unmatched-roots", Severity::Warn, L"domain 1: file:///",
         [&] {
             database->execute(L"update hosting set www_root = ? where dom_id = 1",
                               {L"file:///" + vhosts + L"\\x"});
         }},
        {"not-covered", Severity::Warn, L"Config\\OTHER_D",
         [&] { RegistryOverride::setString(L"OTHER_D", L"\"" + vhosts + L"\\x\" -a"); }},
        {"not-covered", Severity::Warn, L"Environment\\Path",
         [&] {
             setValue(L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment", L"Path",
                      L"C:\\windows;" + vhosts + L"\\bin;");
         }},
        {"not-covered", Severity::Warn, L"etc\\sub\\server.conf",
         [&] {
             std::wstring slashes = vhosts;
             std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
             directory_.writeFile(L"panel\\etc\\sub\\server.conf",
                                  "root " + toUtf8(slashes) + "/default;");
         }},
        {"target-inside-source", Severity::Refuse, L"outside", [&] { to = vhosts + L"\\new"; }},
        {"cannot-look", Severity::Refuse, L"names a device", [&] { source_ = L"\\\\.\\pipe\\x"; }},
        {"quotation-mark", Severity::Warn, L"config.php", [&] { to = target() + L"'s"; }},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(std::string(each.code) + " " + toUtf8(each.says));
        restore();
        to.clear();
        each.arrange();
        const VHostsPreflight::Result seen = examine(to);
        const MoveFinding* finding = find(seen, each.code);
        ASSERT_TRUE(finding) << text(seen);
        EXPECT_EQ(finding->severity, each.severity);
        EXPECT_NE((finding->reason + finding->remedy).find(each.says), std::wstring::npos)
            << text(seen);
        EXPECT_EQ(seen.isRefused(), each.severity == Severity::Refuse) << text(seen);
    }
}

TEST_F(VHostsPreflightTest, LinksIntoTheOldPlaceAreToldAndKeptForTheMove) {
    NtfsFake ntfs;
    ntfs.makeLink(panel_.vhosts() + L"\\link", panel_.vhosts() + L"\\webmail",
                  IO_REPARSE_TAG_MOUNT_POINT, true);
    const MoveFinding* told = nullptr;
    const VHostsPreflight::Result plain = examine();
    ASSERT_TRUE(told = find(plain, "links-into-source")) << text(plain);
    EXPECT_EQ(told->severity, Severity::Warn);
    options_.relink = true;
    VHostsPreflight preflight;
    const VHostsPreflight::Result seen = preflight.examine({}, target(), options_);
    ASSERT_TRUE(told = find(seen, "links-into-source")) << text(seen);
    EXPECT_EQ(told->severity, Severity::Info);
    EXPECT_EQ(seen.links, 1);
    EXPECT_EQ(preflight.takeLinks()->get_links().at(0).path, L"\\link");
}

TEST_F(VHostsPreflightTest, AnotherVolumeWithoutQuotasIsTold) {
    wchar_t drive[8] = L"";
    if (::GetEnvironmentVariableW(L"ZOP_TEST_TMPFS_DRIVE", drive, 8) == 0) {
        GTEST_SKIP() << "needs a second drive";
    }
    const VHostsPreflight::Result seen = examine(drive + std::wstring(L"a\\b\\hosts"));
    EXPECT_FALSE(seen.isRefused()) << text(seen);
    EXPECT_TRUE(seen.otherVolume);
    EXPECT_GT(seen.quotas, 0);
    EXPECT_TRUE(find(seen, "no-quotas")) << text(seen);
    EXPECT_FALSE(RunTime::exists(drive + std::wstring(L"a"))) << "made by the move only";
}

TEST(PlaceTextTest, SeesThePlaceWhereverItStandsAndNoNeighbour) {
    const PlaceText place(L"C:\\Inetpub\\vhosts\\");
    for (const wchar_t* text :
         {L"C:\\Inetpub\\vhosts", L"c:/inetpub/VHOSTS/x", L"C:\\\\Inetpub\\\\vhosts\\\\x",
          L"a;C:\\Inetpub\\vhosts;b", L"\"C:\\Inetpub\\vhosts\\a b\\x.exe\" /s",
          L"C:\\Inetpub\\vhosts2 C:\\Inetpub\\vhosts", L"<root>C:\\Inetpub\\vhosts</root>"}) {
        EXPECT_TRUE(place.isIn(text)) << toUtf8(text);
    }
    for (const wchar_t* text : {L"", L"C:\\Inetpub", L"C:\\Inetpub\\vhosts2\\x", L"vhosts",
                                L"D:\\Inetpub\\vhosts", L"C:\\Inetpub\\vhosts.old"}) {
        EXPECT_FALSE(place.isIn(text)) << toUtf8(text);
    }
}
