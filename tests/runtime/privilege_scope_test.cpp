#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"

#include <optional>

using namespace RunTime;

namespace {

// Of the token in force.
bool isEnabled(const wchar_t* name) {
    AutoHandle token;
    if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, token.put())) {
        EXPECT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()));
    }
    alignas(TOKEN_PRIVILEGES) BYTE buffer[4096];
    DWORD size = 0;
    EXPECT_TRUE(::GetTokenInformation(token.get(), TokenPrivileges, buffer, sizeof(buffer), &size));
    LUID wanted = {};
    EXPECT_TRUE(::LookupPrivilegeValueW(nullptr, name, &wanted));
    const auto* all = reinterpret_cast<const TOKEN_PRIVILEGES*>(buffer);
    for (DWORD i = 0; i < all->PrivilegeCount; ++i) {
        const LUID_AND_ATTRIBUTES& one = all->Privileges[i];
        if (one.Luid.LowPart == wanted.LowPart && one.Luid.HighPart == wanted.HighPart) {
            return (one.Attributes & SE_PRIVILEGE_ENABLED) != 0;
        }
    }
    return false;
}

} // namespace

TEST(PrivilegeScopeTest, EnablesForItsLifeWhatTheTokenHolds) {
    ASSERT_FALSE(isEnabled(SE_BACKUP_NAME));
    {
        // The one that nobody but the system holds, and one that does not exist, hide no other.
        const PrivilegeScope scope(
            {SE_ASSIGNPRIMARYTOKEN_NAME, SE_BACKUP_NAME, L"SeNoSuchPrivilege", SE_RESTORE_NAME});
        EXPECT_TRUE(isEnabled(SE_BACKUP_NAME) && isEnabled(SE_RESTORE_NAME));
        EXPECT_TRUE(scope.holds(SE_BACKUP_NAME));
        EXPECT_FALSE(scope.holds(SE_ASSIGNPRIMARYTOKEN_NAME));
        EXPECT_FALSE(scope.holds(SE_SECURITY_NAME)) << "it was not asked for";
        EXPECT_EQ(scope.missing(),
                  (std::vector<std::wstring>{SE_ASSIGNPRIMARYTOKEN_NAME, L"SeNoSuchPrivilege"}));
    }
    EXPECT_FALSE(isEnabled(SE_BACKUP_NAME) || isEnabled(SE_RESTORE_NAME));
}

TEST(PrivilegeScopeTest, OverlappingScopesDoNotTakeFromEachOther) {
    std::optional<PrivilegeScope> first(std::in_place,
                                        std::initializer_list<const wchar_t*>{SE_BACKUP_NAME});
    std::optional<PrivilegeScope> second(std::in_place,
                                         std::initializer_list<const wchar_t*>{SE_BACKUP_NAME});
    first.reset();
    EXPECT_TRUE(isEnabled(SE_BACKUP_NAME));
    second.reset();
    EXPECT_FALSE(isEnabled(SE_BACKUP_NAME));
    {
        // What was enabled by someone else stays enabled.
        ASSERT_FALSE(isEnabled(SE_RESTORE_NAME));
        AutoHandle token;
        ASSERT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY,
                                       token.put()));
        TOKEN_PRIVILEGES one = {1, {{{}, SE_PRIVILEGE_ENABLED}}};
        ASSERT_TRUE(::LookupPrivilegeValueW(nullptr, SE_RESTORE_NAME, &one.Privileges[0].Luid));
        ASSERT_TRUE(::AdjustTokenPrivileges(token.get(), FALSE, &one, 0, nullptr, nullptr));
        { const PrivilegeScope inner({SE_RESTORE_NAME}); }
        EXPECT_TRUE(isEnabled(SE_RESTORE_NAME));
        one.Privileges[0].Attributes = 0;
        ASSERT_TRUE(::AdjustTokenPrivileges(token.get(), FALSE, &one, 0, nullptr, nullptr));
    }
}

TEST(PrivilegeScopeTest, AsksNothingOfTheSystemInsideAnother) {
    const std::vector<std::wstring> missing = {SE_ASSIGNPRIMARYTOKEN_NAME};
    const PrivilegeScope outer({SE_BACKUP_NAME, SE_ASSIGNPRIMARYTOKEN_NAME});
    EXPECT_EQ(outer.newlyMissing(), missing);
    FaultPoint lookup("LookupPrivilegeValueW");
    FaultPoint adjust("AdjustTokenPrivileges");
    {
        const PrivilegeScope inner({SE_BACKUP_NAME, SE_ASSIGNPRIMARYTOKEN_NAME, SE_RESTORE_NAME});
        EXPECT_TRUE(inner.holds(SE_BACKUP_NAME));
        EXPECT_EQ(inner.missing(), missing);
        EXPECT_TRUE(inner.newlyMissing().empty()) << "it is told once";
        EXPECT_EQ(lookup.calls, 1) << "of the one that the outer scope has not";
        EXPECT_EQ(adjust.calls, 1);
    }
    EXPECT_EQ(adjust.calls, 2) << "that one is given back";
    // Another token may have what this one lacks.
    ASSERT_TRUE(::ImpersonateSelf(SecurityImpersonation));
    {
        const PrivilegeScope other({SE_BACKUP_NAME, SE_ASSIGNPRIMARYTOKEN_NAME});
        EXPECT_EQ(adjust.calls, 4);
        EXPECT_EQ(other.newlyMissing(), missing);
    }
    ASSERT_TRUE(::RevertToSelf());
}

TEST(PrivilegeScopeTest, ActsOnTheTokenInForce) {
    ASSERT_TRUE(::ImpersonateSelf(SecurityImpersonation));
    {
        const PrivilegeScope scope({SE_BACKUP_NAME});
        EXPECT_TRUE(isEnabled(SE_BACKUP_NAME)); // the thread's
        ASSERT_TRUE(::RevertToSelf());
        EXPECT_FALSE(isEnabled(SE_BACKUP_NAME)); // the process's
    }
}

TEST(PrivilegeScopeTest, AFailureGivesBackWhatWasEnabledBefore) {
    {
        FaultPoint adjust("AdjustTokenPrivileges");
        adjust.failAt = 1;
        expectError<VInvalidHandleException>(
            ERROR_INVALID_HANDLE, L"Unable to adjust token privileges", [&] {
                adjust.code = ERROR_INVALID_HANDLE;
                const PrivilegeScope scope({SE_BACKUP_NAME, SE_RESTORE_NAME});
            });
    }
    EXPECT_FALSE(isEnabled(SE_BACKUP_NAME));
    FaultPoint open("OpenProcessToken");
    open.failAt = 0;
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED, L"Unable to open token",
                                        [] { const PrivilegeScope scope({SE_BACKUP_NAME}); });
}
