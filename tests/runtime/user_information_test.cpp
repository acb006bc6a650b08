#include "runtime/accounts/user_information.h"

#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"

#include <dsgetdc.h>
#include <lm.h>

namespace {

using UserManagement::UserInformation;

std::wstring controller; // what the domain answers; empty: there is none

DWORD WINAPI getDcName(LPCWSTR, LPCWSTR domain, GUID*, LPCWSTR, ULONG flags,
                       PDOMAIN_CONTROLLER_INFOW* found) {
    EXPECT_TRUE(domain == nullptr && (flags & DS_WRITABLE_REQUIRED) != 0);
    if (controller.empty()) {
        return ERROR_NO_SUCH_DOMAIN;
    }
    ::NetApiBufferAllocate(sizeof **found, reinterpret_cast<void**>(found));
    (*found)->DomainControllerName = controller.data();
    return ERROR_SUCCESS;
}

std::wstring serverName() {
    return UserInformation::createInstance()->getDomainServerName();
}

} // namespace

TEST(UserInformationTest, TheServerIsADomainControllerOnlyInActiveDirectoryMode) {
    const RegistryOverride registry;
    const ImportPatch patch("DsGetDcNameW", &getDcName);
    controller = L"\\\\dc1.example.com";
    EXPECT_EQ(serverName(), L"");
    RegistryOverride::setDword(L"active_directory_mode", 0);
    EXPECT_EQ(serverName(), L"");
    for (const DWORD mode : {1UL, 7UL}) {
        RegistryOverride::setDword(L"active_directory_mode", mode);
        EXPECT_EQ(serverName(), L"dc1.example.com");
    }
    controller.clear();
    expectError<vosexception>(ERROR_NO_SUCH_DOMAIN, L"Unable to find a domain controller",
                              serverName);
    // Not to be taken for local accounts.
    RegistryOverride::setString(L"active_directory_mode", L"1");
    EXPECT_THROW(serverName(), vexception);
    FaultPoint fault("RegOpenKeyExW");
    fault.failAt = 0;
    fault.result = ERROR_ACCESS_DENIED;
    EXPECT_THROW(serverName(), VAccessDeniedException);
}

TEST(UserInformationTest, NamesLoseTheirDomain) {
    const std::pair<const wchar_t*, const wchar_t*> cases[] = {
        {L"DOMAIN\\user", L"user"}, {L"user@example.com", L"user"}, {L"user", L"user"},
        {L"\\user", L"user"},       {L".\\user", L"user"},          {L"a\\b\\user", L"user"},
        {L"a\\user@b", L"user@b"},  {L"us@er@b", L"us@er"},         {L"", L""},
        {L"DOMAIN\\", L"DOMAIN\\"}, {L"@domain", L"@domain"},       {L"\\", L"\\"},
    };
    for (const auto& [name, user] : cases) {
        EXPECT_EQ(toUtf8(UserInformation::getNameWithoutDomain(name)), toUtf8(user));
    }
}
