#include "security/disk/policy_names.h"
#include "tests/support/expect_error.h"

#include "security/sid.h"

#include <algorithm>

namespace DiskSecurity {

namespace {

// Composed of the rights that Windows' own header names.
TEST(PolicyNamesTest, AccessNamesAreTheseRights) {
    const AccessName expected[] = {
        {L"NoAccess", 0},
        {L"Read", FILE_GENERIC_READ},
        {L"ReadAndExecute", FILE_GENERIC_READ | FILE_GENERIC_EXECUTE},
        {L"ReadAndDelete", FILE_READ_DATA | DELETE},
        {L"ReadWrite", FILE_GENERIC_READ | FILE_GENERIC_WRITE},
        {L"Modify", FILE_GENERIC_READ | FILE_GENERIC_WRITE | FILE_GENERIC_EXECUTE | DELETE},
        {L"FullAccess", FILE_ALL_ACCESS},
        {L"FileRemovable", DELETE | WRITE_DAC | WRITE_OWNER | FILE_WRITE_EA | FILE_DELETE_CHILD |
                               FILE_WRITE_ATTRIBUTES},
        {L"FileNonRemovable",
         FILE_GENERIC_READ | FILE_EXECUTE | FILE_WRITE_DATA | FILE_APPEND_DATA},
        {L"FtpSubaccountsNonRemovable", DELETE | WRITE_DAC | WRITE_OWNER | FILE_WRITE_EA |
                                            FILE_DELETE_CHILD | FILE_WRITE_ATTRIBUTES |
                                            FILE_WRITE_DATA | FILE_APPEND_DATA},
        {L"SpecialModify",
         READ_CONTROL | SYNCHRONIZE | FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_EXECUTE},
    };
    ASSERT_EQ(std::size(expected), accessNames().size());
    for (const AccessName& row : expected) {
        const AccessName* found = findName(accessNames(), row.name);
        ASSERT_NE(nullptr, found) << toUtf8(row.name);
        EXPECT_EQ(row.value, found->value) << toUtf8(row.name);
    }
    EXPECT_EQ(nullptr, findName(accessNames(), L"modify"));
}

TEST(PolicyNamesTest, InheritanceNamesSayThisObjectFoldersAndFiles) {
    struct {
        const wchar_t* name;
        bool here, folders, files;
    } expected[] = {
        {L"ThisObjectOnly", true, false, false},
        {L"ThisFolderAndFiles", true, false, true},
        {L"ThisFolderAndSubfolders", true, true, false},
        {L"ThisFolderSubfoldersAndFiles", true, true, true},
        {L"FilesOnly", false, false, true},
        {L"SubfoldersOnly", false, true, false},
        {L"SubfoldersAndFilesOnly", false, true, true},
    };
    ASSERT_EQ(std::size(expected), aceFlagsNames().size());
    for (const auto& row : expected) {
        const AceFlagsName* found = findName(aceFlagsNames(), row.name);
        ASSERT_NE(nullptr, found) << toUtf8(row.name);
        EXPECT_EQ((row.here ? 0 : 8) + (row.folders ? 2 : 0) + (row.files ? 1 : 0), found->value)
            << toUtf8(row.name);
    }
}

TEST(PolicyNamesTest, AccountNamesAreTheSystemsWellKnownSids) {
    constexpr std::pair<const wchar_t*, WELL_KNOWN_SID_TYPE> expected[] = {
        {L"Null", WinNullSid},
        {L"Everyone", WinWorldSid},
        {L"Local", WinLocalSid},
        {L"CreatorOwner", WinCreatorOwnerSid},
        {L"CreatorGroup", WinCreatorGroupSid},
        {L"CreatorOwnerServer", WinCreatorOwnerServerSid},
        {L"CreatorGroupServer", WinCreatorGroupServerSid},
        {L"Dialup", WinDialupSid},
        {L"Network", WinNetworkSid},
        {L"Batch", WinBatchSid},
        {L"Interactive", WinInteractiveSid},
        {L"Service", WinServiceSid},
        {L"AnonymousLogon", WinAnonymousSid},
        {L"Proxy", WinProxySid},
        {L"ServerLogon", WinEnterpriseControllersSid},
        {L"Self", WinSelfSid},
        {L"AuthenticatedUser", WinAuthenticatedUserSid},
        {L"RestrictedCode", WinRestrictedCodeSid},
        {L"TerminalServer", WinTerminalServerSid},
        {L"System", WinLocalSystemSid},
        {L"LocalService", WinLocalServiceSid},
        {L"NetworkService", WinNetworkServiceSid},
        {L"ThisOrganization", WinThisOrganizationSid},
        {L"Administrators", WinBuiltinAdministratorsSid},
        {L"Users", WinBuiltinUsersSid},
        {L"Guests", WinBuiltinGuestsSid},
        {L"PowerUsers", WinBuiltinPowerUsersSid},
        {L"RemoteDesktopUsers", WinBuiltinRemoteDesktopUsersSid},
        {L"AccountOps", WinBuiltinAccountOperatorsSid},
        {L"SystemOps", WinBuiltinSystemOperatorsSid},
        {L"PrintOps", WinBuiltinPrintOperatorsSid},
        {L"BackupOps", WinBuiltinBackupOperatorsSid},
        {L"Replicator", WinBuiltinReplicatorSid},
        {L"PreW2kCompAccess", WinBuiltinPreWindows2000CompatibleAccessSid},
    };
    for (const auto& [name, type] : expected) {
        const AccountName* row = findName(accountNames(), name);
        ASSERT_NE(nullptr, row) << toUtf8(name);
        alignas(SID) BYTE sid[SECURITY_MAX_SID_SIZE];
        DWORD size = sizeof(sid);
        ASSERT_TRUE(::CreateWellKnownSid(type, nullptr, sid, &size)) << toUtf8(name);
        EXPECT_TRUE(::EqualSid(sid, RunTime::Sid(std::wstring(row->sid)).get())) << toUtf8(name);
    }
    EXPECT_EQ(std::size(expected) + 3, accountNames().size()); // the three that have no such type
    EXPECT_EQ(L"S-1-5-32-" + std::to_wstring(DOMAIN_ALIAS_RID_RAS_SERVERS),
              findName(accountNames(), L"RasServers")->sid);
    EXPECT_EQ(500u, findName(accountNames(), L"Administrator")->rid);
    EXPECT_EQ(501u, findName(accountNames(), L"Guest")->rid);
}

TEST(PolicyNamesTest, NumbersAreDecimalHexadecimalOrOctalAndNothingElse) {
    const std::pair<const wchar_t*, std::uint32_t> good[] = {{L"0", 0},
                                                             {L"10", 10},
                                                             {L"0x10", 16},
                                                             {L"0XfF", 255},
                                                             {L"010", 8},
                                                             {L"00", 0},
                                                             {L"4294967295", ~0u},
                                                             {L"0xFFFFFFFF", ~0u},
                                                             {L"0777", 0777},
                                                             {L"037777777777", ~0u}};
    for (const auto& [text, number] : good) {
        EXPECT_EQ(number, toInteger(text)) << toUtf8(text);
    }
    const wchar_t* const bad[] = {L"",
                                  L" 1",
                                  L"1 ",
                                  L"+1",
                                  L"-1",
                                  L"12a",
                                  L"0x",
                                  L"0xG",
                                  L"08",
                                  L"1.0",
                                  L"0x-1",
                                  L"4294967296",
                                  L"0x100000000",
                                  L"a",
                                  L"0b1",
                                  L"١",
                                  L"99999999999999999999999999",
                                  L"0x 1",
                                  L"1\n"};
    for (const std::wstring text : bad) {
        expectError<vexception>(L"Unable to convert from '" + text + L"' to integer type.",
                                [&] { toInteger(text); });
    }
}

} // namespace

} // namespace DiskSecurity
