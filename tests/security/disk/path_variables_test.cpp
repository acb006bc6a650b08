#include "security/disk/path_variables.h"

#include "runtime/files/path.h"
#include "security/disk/well_known_folders.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/policy_xml.h"
#include "tests/support/registry_override.h"

#include <initguid.h>
#include <knownfolders.h>
#include <shlobj.h>

namespace DiskSecurity {

namespace {

// The system tells the same folders in another way, too.
TEST(WellKnownFoldersTest, NamesAreTheSystemsFolders) {
    const std::vector<std::wstring> names =
        wordsOf(L"CommonAdmintools CommonAppdata CommonDocuments ProgramFiles ProgramFilesX86 "
                L"ProgramFilesX64 ProgramFilesCommon ProgramFilesCommonX86 ProgramFilesCommonX64 "
                L"CommonFilesDir Windows WindowsSystem32 WindowsSystem32X86 WindowsSystem32X64 "
                L"Profiles");
    const auto ids =
        listOf<GUID>(FOLDERID_CommonAdminTools, FOLDERID_ProgramData, FOLDERID_PublicDocuments,
                     FOLDERID_ProgramFiles, FOLDERID_ProgramFilesX86, FOLDERID_ProgramFilesX64,
                     FOLDERID_ProgramFilesCommon, FOLDERID_ProgramFilesCommonX86,
                     FOLDERID_ProgramFilesCommonX64, FOLDERID_ProgramFilesCommon, FOLDERID_Windows,
                     FOLDERID_System, FOLDERID_SystemX86, FOLDERID_System, FOLDERID_UserProfiles);
    ASSERT_EQ(std::size(names), wellKnownFolders().size());
    PathVariables variables;
    for (std::size_t i = 0; i < std::size(names); ++i) {
        PWSTR path = nullptr;
        ASSERT_EQ(S_OK, ::SHGetKnownFolderPath(ids[i], 0, nullptr, &path)) << toUtf8(names[i]);
        EXPECT_TRUE(RunTime::equalNames(path, variables.value(names[i])))
            << toUtf8(names[i]) << " " << toUtf8(variables.value(names[i])) << " " << toUtf8(path);
        ::CoTaskMemFree(path);
    }
}

TEST(WellKnownFoldersTest, FailuresSayWhichCallFailed) {
    const struct {
        const char* function;
        const wchar_t* name;
        std::uintptr_t result;
        DWORD code;
        const wchar_t* message;
    } cases[] = {
        {"SHGetFolderPathW", L"Windows", static_cast<std::uintptr_t>(E_FAIL),
         static_cast<DWORD>(E_FAIL), L"SHGetFolderPath failed for index 36"},
        {"SHGetSpecialFolderPathW", L"CommonDocuments", 0, ERROR_ACCESS_DENIED,
         L"SHGetSpecialFolderPath failed for index 46"},
        {"GetProfilesDirectoryW", L"Profiles", 0, ERROR_ACCESS_DENIED,
         L"GetProfilesDirectory failed"},
    };
    for (const auto& row : cases) {
        FaultPoint fault(row.function);
        fault.failAt = 0;
        fault.result = row.result;
        try {
            PathVariables().value(row.name);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const vosexception& e) {
            EXPECT_EQ(row.code, e.get_errorCode());
            EXPECT_EQ(toUtf8(systemMessageOf(row.code, row.message)), toUtf8(e.message()));
        }
    }
    const RegistryOverride empty;
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND, L"Unable to read ProgramFilesDir",
                                        [] { PathVariables().value(L"ProgramFilesX64"); });
}

TEST(PathVariablesTest, PathsAreResolvedInOneSyntax) {
    const RegistryOverride registry;
    RegistryOverride::setString(L"HTTPD_VHOSTS_D", L"D:\\vhosts\\");
    RegistryOverride::setString(L"PRODUCT_ROOT_D", L"E:\\");
    RegistryOverride::setString(L"PRODUCT_DATA_D", L"\\\\?\\C:/panel/data");
    PathVariables variables;
    const struct {
        const wchar_t* path;
        const wchar_t* subPath;
        const wchar_t* expected;
    } cases[] = {
        {L"[HTTPD_VHOSTS_D]", L"", L"D:\\vhosts"},
        {L"[HTTPD_VHOSTS_D]\\", L"", L"D:\\vhosts"},
        {L"[HTTPD_VHOSTS_D]\\a/b\\", L"\\c\\", L"D:\\vhosts\\a\\b\\c"},
        {L"[PRODUCT_ROOT_D]", L"", L"E:\\"},
        {L"[PRODUCT_ROOT_D]", L"etc", L"E:\\etc"},
        {L"[PRODUCT_DATA_D]\\x", L"", L"C:\\panel\\data\\x"},
        {L"c:\\", L"", L"c:\\"},
        {L"C:/a b", L"...c", L"C:\\a b\\...c"},
        {L"C:\\com\\com0", L"nulls\\aux-1", L"C:\\com\\com0\\nulls\\aux-1"},
        {L"\\\\?\\C:\\sites [old]\\[x]", L"[y", L"C:\\sites [old]\\[x]\\[y"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(toUtf8(row.expected), toUtf8(variables.resolve(row.path, row.subPath)))
            << toUtf8(row.path);
    }
    expectError<VFileNotFoundException>(
        ERROR_FILE_NOT_FOUND, L"Unable to get the configuration value NAMED_RUN_ROOT_D for a path",
        [&] { variables.resolve(L"[NAMED_RUN_ROOT_D]", L""); });
    for (const wchar_t* bad : {L"", L"vhosts", L"\\\\server\\share", L"C:\\a\\..\\b", L"C:"}) {
        RegistryOverride::setString(L"NAMED_RUN_ROOT_D", bad);
        EXPECT_THROW(variables.resolve(L"[NAMED_RUN_ROOT_D]", L""), vexception) << toUtf8(bad);
    }
}

TEST(PathVariablesTest, PathsThatAreNotWhatTheySeemAreRefused) {
    const struct {
        const wchar_t* path;
        const wchar_t* subPath;
        const char* message; // its beginning
    } cases[] = {
        {L"", L"", "The path \"\" begins neither with a drive"},
        {L"sites", L"", "The path \"sites\" begins neither"},
        {L"\\sites", L"", "The path \"\\sites\" begins neither"},
        {L"C:", L"", "The path \"C:\" begins neither"},
        {L"C:sites", L"", "The path \"C:sites\" begins neither"},
        {L"\\\\server\\share\\x", L"", "The path \"\\\\server\\share\\x\" begins neither"},
        {L"\\\\?\\UNC\\server\\share", L"", "The path \"\\\\?\\UNC\\server\\share\" begins"},
        {L"\\\\.\\C:\\x", L"", "The path \"\\\\.\\C:\\x\" begins neither"},
        {L"[Windows", L"", "The bracket of the path \"[Windows\" is not closed."},
        {L"[windows]", L"", "Unknown path variable: windows, known names are:\nHTTPD_VHOSTS_D\n"},
        {L"[]", L"", "Unknown path variable: , known names are:"},
        {L"[[Windows]]", L"", "Unknown path variable: [Windows, known"},
        {L"[Windows]x", L"", "Behind the variable of the path \"[Windows]x\" a backslash"},
        {L"C:\\[Windows]\\x", L"", "The variable in the path \"C:\\[Windows]\\x\" is not at"},
        {L"[Windows]\\[Windows]", L"", "The variable in the path \"[Windows]\\[Windows]\" is not"},
        {L"C:\\a\\..\\b", L"", "The path \"C:\\a\\..\\b\" leads upwards."},
        {L"[Windows]/../x", L"", "The path \"[Windows]/../x\" leads upwards."},
        {L"C:\\a", L"..", "The path \"..\" leads upwards."},
        {L"C:\\a", L"b/../../c", "The path \"b/../../c\" leads upwards."},
        {L"C:\\a", L"b\\.. \\c", "A name in the path \"b\\.. \\c\" ends in a dot or a blank."},
        {L"C:\\a", L".", "A name in the path \".\" ends in a dot"},
        {L"C:\\a", L"C:\\b", "The path \"C:\\b\" has a character that no name has."},
        {L"C:\\a", L"\\\\server\\share", "The path \"\\\\server\\share\" has an empty component."},
        {L"C:\\a", L"b:stream", "The path \"b:stream\" has a character"},
        {L"C:\\\\a", L"", "The path \"C:\\\\a\" has an empty component."},
        {L"C:\\a", L"b\\nul .txt\\c", "A name in the path \"b\\nul .txt\\c\" is that of a device."},
        {L"C:\\Com\xB9", L"", "A name in the path"},
        {L"C:\\a\\*", L"", "The path \"C:\\a\\*\" has a character"},
        {L"C:\\a\tb", L"", "The path \"C:\\a\tb\" has a character"},
    };
    for (const auto& row : cases) {
        for (const bool resolving : {false, true}) {
            try {
                if (resolving) {
                    PathVariables().resolve(row.path, row.subPath);
                } else {
                    vetPaths(row.path, row.subPath);
                }
                ADD_FAILURE() << toUtf8(row.path) << " was accepted";
            } catch (const vexception& e) {
                EXPECT_TRUE(toUtf8(e.message()).starts_with(row.message)) << toUtf8(e.message());
            }
        }
    }
    const std::wstring half = L"\\" + std::wstring(20'000, L'x');
    EXPECT_THROW(PathVariables().resolve(L"C:" + half, half), vexception);
}

} // namespace

} // namespace DiskSecurity
