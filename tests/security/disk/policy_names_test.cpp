#include "security/disk/policy_names.h"

#include "security/sid.h"
#include "tests/support/expect_error.h"
#include "tests/support/policy_xml.h"

#include <cwchar>

namespace DiskSecurity {

namespace {

// In the order of the names, which the messages of the importer are tested for. Composed of the
// rights that Windows' own header names.
TEST(PolicyNamesTest, AccessNamesAreTheseRights) {
    constexpr ACCESS_MASK read = FILE_GENERIC_READ;
    constexpr ACCESS_MASK write = FILE_GENERIC_WRITE;
    constexpr ACCESS_MASK run = FILE_GENERIC_EXECUTE;
    constexpr ACCESS_MASK change = FILE_WRITE_DATA | FILE_APPEND_DATA;
    constexpr ACCESS_MASK remove = DELETE | WRITE_DAC | WRITE_OWNER | FILE_WRITE_EA |
                                   FILE_DELETE_CHILD | FILE_WRITE_ATTRIBUTES;
    const auto expected = listOf<ACCESS_MASK>(
        0, read, read | run, FILE_READ_DATA | DELETE, read | write, read | write | run | DELETE,
        FILE_ALL_ACCESS, remove, read | FILE_EXECUTE | change, remove | change,
        READ_CONTROL | SYNCHRONIZE | change | FILE_EXECUTE);
    ASSERT_EQ(std::size(expected), accessNames().size());
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(expected[i], accessNames()[i].value) << toUtf8(accessNames()[i].name);
    }
}

TEST(PolicyNamesTest, InheritanceNamesSayThisObjectFoldersAndFiles) {
    for (const AceFlagsName& row : aceFlagsNames()) {
        const std::wstring name = row.name;
        const bool here = name.starts_with(L"This");
        const bool folders = name.find(L"Subfolders") != name.npos;
        const bool files = name.find(L"Files") != name.npos;
        EXPECT_EQ((here ? 0 : 8) | (folders ? 2 : 0) | (files ? 1 : 0), row.value) << toUtf8(name);
    }
}

TEST(PolicyNamesTest, AccountNamesAreTheSystemsWellKnownSids) {
    const std::vector<std::wstring> names =
        wordsOf(L"Null Everyone Local CreatorOwner CreatorGroup CreatorOwnerServer "
                L"CreatorGroupServer Dialup Network Batch Interactive Service AnonymousLogon Proxy "
                L"ServerLogon Self AuthenticatedUser RestrictedCode TerminalServer System "
                L"LocalService NetworkService ThisOrganization Administrators Users Guests "
                L"PowerUsers RemoteDesktopUsers AccountOps SystemOps PrintOps BackupOps Replicator "
                L"PreW2kCompAccess");
    const auto types = listOf<WELL_KNOWN_SID_TYPE>(
        WinNullSid, WinWorldSid, WinLocalSid, WinCreatorOwnerSid, WinCreatorGroupSid,
        WinCreatorOwnerServerSid, WinCreatorGroupServerSid, WinDialupSid, WinNetworkSid,
        WinBatchSid, WinInteractiveSid, WinServiceSid, WinAnonymousSid, WinProxySid,
        WinEnterpriseControllersSid, WinSelfSid, WinAuthenticatedUserSid, WinRestrictedCodeSid,
        WinTerminalServerSid, WinLocalSystemSid, WinLocalServiceSid, WinNetworkServiceSid,
        WinThisOrganizationSid, WinBuiltinAdministratorsSid, WinBuiltinUsersSid,
        WinBuiltinGuestsSid, WinBuiltinPowerUsersSid, WinBuiltinRemoteDesktopUsersSid,
        WinBuiltinAccountOperatorsSid, WinBuiltinSystemOperatorsSid, WinBuiltinPrintOperatorsSid,
        WinBuiltinBackupOperatorsSid, WinBuiltinReplicatorSid,
        WinBuiltinPreWindows2000CompatibleAccessSid);
    ASSERT_EQ(std::size(names), std::size(types));
    for (std::size_t i = 0; i < std::size(names); ++i) {
        const AccountName* row = findName(accountNames(), names[i]);
        ASSERT_NE(nullptr, row) << toUtf8(names[i]);
        EXPECT_EQ(RunTime::Sid::wellKnown(types[i]).string(), row->sid) << toUtf8(names[i]);
    }
    EXPECT_EQ(std::size(names) + 3, accountNames().size()); // the three that have no such type
    EXPECT_EQ(L"S-1-5-32-" + std::to_wstring(DOMAIN_ALIAS_RID_RAS_SERVERS),
              findName(accountNames(), L"RasServers")->sid);
    EXPECT_EQ(500u, findName(accountNames(), L"Administrator")->rid);
    EXPECT_EQ(501u, findName(accountNames(), L"Guest")->rid);
}

TEST(PolicyNamesTest, NumbersAreDecimalHexadecimalOrOctalAndNothingElse) {
    for (const wchar_t* text : {L"0", L"10", L"0x10", L"0XfF", L"010", L"00", L"4294967295",
                                L"0xFFFFFFFF", L"0777", L"037777777777"}) {
        EXPECT_EQ(std::wcstoul(text, nullptr, 0), toInteger(text)) << toUtf8(text);
    }
    for (const std::wstring text : {L"", L" 1", L"1 ", L"+1", L"-1", L"12a", L"0x", L"0xG", L"08",
                                    L"1.0", L"0x-1", L"4294967296", L"0x100000000", L"a", L"0b1",
                                    L"١", L"99999999999999999999999999", L"0x 1", L"1\n"}) {
        expectError<vexception>(L"Unable to convert from '" + text + L"' to integer type.",
                                [&] { toInteger(text); });
    }
}

} // namespace

} // namespace DiskSecurity
