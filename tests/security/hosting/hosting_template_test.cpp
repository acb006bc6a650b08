#include "tests/security/hosting/hosting_fixture.h"

#include "runtime/text.h"
#include "security/acl.h"

namespace HostingSecurity {

namespace {

using DiskSecurity::PolicyEntry;
using HostingTemplateTest = HostingFixture;

std::string templateXml(const Attributes& changes) {
    Attributes all = {{"Path", "[Root]\\x"}};
    all.insert(all.end(), changes.begin(), changes.end());
    return "<t>" + entryXml(all) + "</t>";
}

} // namespace

TEST_F(HostingTemplateTest, PlaceholdersStandForTheAccountsOfAHosting) {
    const auto sidOf = [](const char* account, const HostingAccounts& accounts) {
        const auto made = HostingTemplate::fromBytes(
            templateXml({{"AccounType", "1"}, {"Account", account}}), L"t");
        const RunTime::Sid sid = made.expand(accounts).at(0).account.sid;
        return sid ? sid.string() : L"";
    };
    const HostingAccounts accounts = {.user = L"w1", .parent = L"d1", .poolUser = L"p1"};
    EXPECT_EQ(sidOf("[User]", accounts), L"S-1-5-21-1-2-3-1003");
    EXPECT_EQ(sidOf("[Parent]", accounts), L"S-1-5-21-1-2-3-1001");
    EXPECT_EQ(sidOf("[PoolUser]", accounts), L"S-1-5-21-1-2-3-1002");
    EXPECT_EQ(sidOf("[PoolUser]", {}), L"");
    const HostingAccounts named = {.user = L"CORP\\w1", .parent = L"d1@corp", .poolUser = L""};
    EXPECT_EQ(sidOf("[User]", named), L"S-1-5-21-1-2-3-1003");
    EXPECT_EQ(sidOf("[Parent]", named), L"S-1-5-21-1-2-3-1001");
    EXPECT_EQ(sidOf("d1", {}), L"S-1-5-21-1-2-3-1001");
    EXPECT_EQ(sidOf("[Group ftp_subaccounts]", {}), L"S-1-5-21-1-2-3-1004");
    EXPECT_EQ(sidOf("[Group gone]", {}), L"");
    const HostingAccounts gone = {.user = L"gone", .parent = L"", .poolUser = L""};
    EXPECT_THROW(sidOf("[User]", gone), VNoneMappedException);
    EXPECT_THROW(sidOf("gone", {}), VNoneMappedException);
}

TEST_F(HostingTemplateTest, WhatNoTemplateMayHaveIsRefused) {
    const std::pair<Attributes, const wchar_t*> cases[] = {
        {{{"Path", "C:\\sites"}}, L"does not begin with [Root]"},
        {{{"Path", "[Windows]"}}, L"does not begin with [Root]"},
        {{{"Path", "[Root]x"}}, L"does not begin with [Root]"},
        {{{"Path", "[Root]\\..\\x"}}, L"leads upwards"},
        {{{"Path", "[Root]"}, {"SubPath", "a/../../b"}}, L"leads upwards"},
        {{{"Path", "[Root]\\a*"}}, L"has a character that no name has"},
        {{{"Path", "[Root]\\a:b"}}, L"has a character that no name has"},
        {{{"Path", "[Root]\\\\a"}}, L"has an empty component"},
        {{{"EntryFlags", "8"}}, L"Unknown EntryFlags"},
        {{{"AccounType", "1"}, {"Account", "[Nobody]"}}, L"Unknown account placeholder: [Nobody]"},
        {{{"AccounType", "1"}, {"Account", "[Group ]"}}, L"Unknown account placeholder"},
        {{{"AccessMask", "modify"}}, L"Unknown access mask: modify"},
    };
    for (const auto& [changes, text] : cases) {
        try {
            HostingTemplate::fromBytes(templateXml(changes), L"t");
            ADD_FAILURE() << toUtf8(text);
        } catch (const vexception& error) {
            EXPECT_NE(error.message().find(text), std::wstring::npos) << toUtf8(error.message());
        }
    }
    EXPECT_THROW(HostingTemplate::fromBytes("<!DOCTYPE t><t/>", L"t"), vexception);
    const Attributes fine = {{"Path", "[Root]/a\\*"}, {"SubPath", "*/b"}};
    EXPECT_NO_THROW(HostingTemplate::fromBytes(templateXml(fine), L"t"));
}

TEST_F(HostingTemplateTest, InstalledFilesStandInForTheLibrarysOwn) {
    const HostingAccounts accounts = {.user = L"w1", .parent = L"d1", .poolUser = L"p1"};
    for (const HostingKind kind :
         {HostingKind::Forwarding, HostingKind::Domain, HostingKind::Webuser}) {
        EXPECT_GT(loadSecurity(kind).expand(accounts).size(), 2u); // without a product root
    }
    RegistryOverride::setString(L"PRODUCT_ROOT_D", place.path());
    const std::size_t own = loadDomainSecurity().expand(accounts).size();
    loadDomainSecurity().save(place / L"saved.xml");
    EXPECT_EQ(HostingTemplate::fromFile(place / L"saved.xml").expand(accounts).size(), own);
    EXPECT_THROW(loadDomainSecurity().save(place / L"saved.xml"), VFileExistsException);
    place.writeFile(L"etc\\HostingSecurity\\domain.xml", templateXml({}));
    EXPECT_EQ(loadDomainSecurity().expand(accounts).size(), 1u);
    EXPECT_GT(loadWebuserSecurity().expand(accounts).size(), 2u);
    place.writeFile(L"etc\\HostingSecurity\\webuser.xml", "<t>");
    EXPECT_THROW(loadWebuserSecurity(), vexception); // not passed over for the own one
}

// The promises of the documentation's table, by the rights that they come to.
TEST_F(HostingTemplateTest, TheTemplatesKeepTheirPromises) {
    const std::wstring user = L"S-1-5-21-1-2-3-1001", pool = L"S-1-5-21-1-2-3-1002";
    const auto rights = [](const std::wstring& sddl, const std::wstring& account) {
        const RunTime::Acl list = RunTime::Acl::fromSddl(sddl);
        ACCESS_MASK granted = 0, denied = 0;
        for (const RunTime::Ace ace : list) {
            RunTime::Sid sid;
            sid.copy(ace.sid());
            if (sid.string() == account && (ace.flags() & INHERIT_ONLY_ACE) == 0) {
                (ace.effect() == RunTime::AceEffect::Denies ? denied : granted) |= ace.mask();
            }
        }
        return granted & ~denied;
    };
    constexpr ACCESS_MASK read = 0x1200A9, write = FILE_WRITE_DATA, remove = DELETE;
    const struct {
        const wchar_t* path;
        ACCESS_MASK user, notUser, pool, notPool;
    } cases[] = {
        {L"", read, remove | WRITE_DAC, read, write | remove},
        {L"page", read | write | remove, WRITE_DAC | WRITE_OWNER, read, write | remove},
        {L"wwwroot", read | write, remove | WRITE_DAC, read, write},
        {L"wwwroot\\page", read | write | remove, WRITE_DAC, read, write | remove},
        {L"wwwroot\\App_Data\\db", read | write | remove, WRITE_DAC, read | write, WRITE_DAC},
        {L"subdomains\\any\\wwwroot\\page", read | write | remove, 0, read, write},
        {L"logs\\day.log", read, write | remove, 0, read},
        {L"conf\\set.ini", read | write, remove, 0, read},
        {L"private\\letter", read | write | remove, WRITE_DAC, 0, read},
    };
    const auto subject = manager();
    for (const auto& row : cases) {
        const std::wstring name = row.path;
        const std::wstring path = name.empty() || name == L"wwwroot"
                                      ? at(name)
                                      : place.writeFile(L"vhosts\\d1\\" + name, "x");
        const std::wstring sddl = subject->getSecurityInformation(path);
        SCOPED_TRACE(toUtf8(name + L" " + sddl));
        EXPECT_EQ(rights(sddl, user) & (row.user | row.notUser), row.user);
        EXPECT_EQ(rights(sddl, pool) & (row.pool | row.notPool), row.pool);
        EXPECT_EQ(rights(sddl, L"S-1-5-18"), FILE_ALL_ACCESS);
        EXPECT_EQ(rights(sddl, L"S-1-5-32-544"), FILE_ALL_ACCESS);
        for (const wchar_t* shared : {L"S-1-1-0", L"S-1-5-32-568", L"S-1-5-32-545"}) {
            EXPECT_EQ(rights(sddl, shared), 0u);
        }
        EXPECT_EQ(rights(sddl, L"S-1-3-4"), name.starts_with(L"logs") ? read : 0);
        if (name == L"page") {
            place.makeDirectory(L"vhosts\\d1\\wwwroot");
        }
    }
    EXPECT_EQ(subject->getSecurityInformation(place.makeDirectory(L"vhosts\\d1\\webusers\\w1")),
              L"");
}

} // namespace HostingSecurity
