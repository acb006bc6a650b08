#include "relocation/move_preflight.h"

#include "relocation/place_check.h"
#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <algorithm>

namespace {

std::wstring environment(const wchar_t* name) {
    wchar_t value[MAX_PATH];
    const DWORD length = ::GetEnvironmentVariableW(name, value, MAX_PATH);
    return std::wstring(value, length < MAX_PATH ? length : 0);
}

// Volume flags and drive type as a test wants them.
DWORD addedFlags;
DWORD removedFlags;
UINT driveType;
decltype(&::GetVolumeInformationW) realVolumeInformation;

BOOL WINAPI fakeVolumeInformation(LPCWSTR root, LPWSTR name, DWORD size, LPDWORD serial,
                                  LPDWORD component, LPDWORD flags, LPWSTR system,
                                  DWORD systemSize) {
    const BOOL done =
        realVolumeInformation(root, name, size, serial, component, flags, system, systemSize);
    if (flags != nullptr) {
        *flags = (*flags | addedFlags) & ~removedFlags;
    }
    return done;
}
UINT WINAPI fakeDriveType(LPCWSTR) {
    return driveType;
}
BOOL WINAPI noSpace(LPCWSTR, PULARGE_INTEGER available, PULARGE_INTEGER total,
                    PULARGE_INTEGER free) {
    for (const PULARGE_INTEGER value : {available, total, free}) {
        if (value != nullptr) {
            value->QuadPart = 5000;
        }
    }
    return TRUE;
}

class MovePreflightTest : public ::testing::Test {
protected:
    MovePreflightTest() {
        directory_.writeFile(L"data\\a.txt", "a");
        directory_.writeFile(L"data\\sub\\b.txt", std::string(5000, 'b'));
        directory_.makeDirectory(L"out");
    }

    std::wstring nice(const wchar_t* name) const { return directory_.nice() + L"\\" + name; }

    MovePreflight::Result examine(const std::wstring& source, const std::wstring& target) {
        MovePreflight preflight;
        return preflight.examine(source, target, options_);
    }

    // The code of the only refusal, which must have a reason and a remedy; "" when there is none.
    std::string refusal(const std::wstring& source, const std::wstring& target) {
        std::string code;
        for (const MoveFinding& finding : examine(source, target).findings) {
            if (finding.severity == MoveFinding::Severity::Refuse) {
                EXPECT_EQ(code, "") << "more than one";
                EXPECT_FALSE(finding.reason.empty() || finding.remedy.empty()) << finding.code;
                EXPECT_EQ(finding.reason.find(L"\\\\?\\"), std::wstring::npos) << finding.code;
                code = finding.code;
            }
        }
        return code;
    }
    std::string refusalOf(const std::wstring& target) { return refusal(nice(L"data"), target); }

    static bool warns(const MovePreflight::Result& result, const std::string& code) {
        return std::any_of(
            result.findings.begin(), result.findings.end(), [&](const MoveFinding& finding) {
                return finding.code == code && finding.severity == MoveFinding::Severity::Warn;
            });
    }

    TempDirectory directory_;
    MovePreflight::Options options_;
};

} // namespace

TEST_F(MovePreflightTest, AGoodMoveIsMeasuredAndNothingIsChanged) {
    const TreeImage before = imageOf(directory_.path());
    const MovePreflight::Result result = examine(nice(L"data"), nice(L"out\\new"));
    EXPECT_TRUE(sameTree(before, imageOf(directory_.path())));
    EXPECT_FALSE(result.isRefused());
    EXPECT_TRUE(result.isExamined);
    EXPECT_FALSE(result.willCopy);
    EXPECT_EQ(result.contents.files, 2);
    EXPECT_EQ(result.contents.directories, 1);
    EXPECT_EQ(result.contents.bytes, 5001);
    EXPECT_EQ(result.longestPath, (nice(L"out\\new") + L"\\sub\\b.txt").size());
    options_.copy = true;
    const MovePreflight::Result copy = examine(nice(L"data"), nice(L"out\\new"));
    EXPECT_TRUE(copy.willCopy);
    EXPECT_GE(copy.bytesNeeded, 5001);
    EXPECT_GT(copy.bytesFree, 0);
}

TEST_F(MovePreflightTest, PathsThatCannotBeMeantAreRefused) {
    EXPECT_EQ(refusalOf(L""), "empty-path");
    EXPECT_EQ(refusalOf(L"new"), "relative-path");
    EXPECT_EQ(refusalOf(L"C:new"), "relative-path");
    EXPECT_EQ(refusalOf(L"\\new"), "relative-path");
    EXPECT_EQ(refusalOf(nice(L"out\\n*w")), "bad-character");
    EXPECT_EQ(refusalOf(nice(L"out\" --yes")), "quote-in-path");
    EXPECT_EQ(refusalOf(L"\\\\.\\C:"), "bad-character");
    EXPECT_EQ(refusalOf(L"C:\\"), "target-around-source");
    EXPECT_EQ(refusalOf(L"Z:\\"), "target-root");
    EXPECT_EQ(refusalOf(L"Z:\\none\\here"), "target-parent-missing");
    options_.createsTarget = true; // but no drive
    EXPECT_EQ(refusalOf(L"Q:\\none\\here"), "target-parent-missing");
}

TEST_F(MovePreflightTest, SourcesThatAreNoDirectoryOfOursAreRefused) {
    EXPECT_EQ(refusal(nice(L"none"), nice(L"out\\new")), "source-missing");
    EXPECT_EQ(refusal(nice(L"data\\a.txt"), nice(L"out\\new")), "source-file");
    EXPECT_EQ(refusal(L"C:\\", nice(L"out\\new")), "source-root");
    EXPECT_EQ(refusal(L"C:\\Windows\\System32", nice(L"out\\new")), "source-system");
    EXPECT_EQ(refusal(L"C:\\Program Files", nice(L"out\\new")), "source-system");
    EXPECT_EQ(refusal(L"C:\\users", nice(L"out\\new")), "source-system");
    EXPECT_EQ(refusal(L"C:\\ProgramData", nice(L"out\\new")), "source-system");
    EXPECT_EQ(refusalOf(L"C:\\windows\\Temp\\new"), "target-system");
    // The two paths the wrong way round.
    const MovePreflight::Result swapped = examine(nice(L"none"), nice(L"data"));
    EXPECT_NE(swapped.findings.at(0).remedy.find(L"the wrong way round"), std::wstring::npos);
    if (underWine()) {
        TreeBuilder(directory_.path()).link(L"link", "data");
        EXPECT_EQ(refusal(nice(L"link"), nice(L"out\\new")), "source-link");
        EXPECT_EQ(refusalOf(nice(L"link")), "same-place");
    }
}

TEST_F(MovePreflightTest, OverlappingPlacesAreRefusedUnderAnyName) {
    EXPECT_EQ(refusalOf(nice(L"DATA")), "same-place");
    EXPECT_EQ(refusalOf(nice(L"data\\sub\\new")), "target-inside-source");
    EXPECT_EQ(refusalOf(nice(L"out\\..\\data\\new")), "target-inside-source");
    EXPECT_EQ(refusal(nice(L"data\\sub"), nice(L"data")), "target-around-source");
    if (underWine()) {
        TreeBuilder(directory_.path()).link(L"alias", ".");
        EXPECT_EQ(refusalOf(nice(L"alias\\data")), "same-place");
        EXPECT_EQ(refusalOf(nice(L"alias\\data\\new")), "target-inside-source");
        EXPECT_EQ(refusal(nice(L"alias\\data\\sub"), nice(L"data")), "target-around-source");
    }
}

TEST_F(MovePreflightTest, TargetsThatCannotTakeTheTreeAreRefused) {
    EXPECT_EQ(refusalOf(nice(L"none\\new")), "target-parent-missing");
    directory_.writeFile(L"out\\file");
    EXPECT_EQ(refusalOf(nice(L"out\\file")), "target-file");
    {
        ImportPatch patch("GetVolumeInformationW", &fakeVolumeInformation);
        realVolumeInformation = patch.original<decltype(&::GetVolumeInformationW)>();
        addedFlags = 0;
        removedFlags = FILE_PERSISTENT_ACLS;
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "target-without-permissions");
        removedFlags = 0;
        addedFlags = FILE_READ_ONLY_VOLUME;
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "target-read-only");
    }
    {
        const ImportPatch patch("GetDriveTypeW", &fakeDriveType);
        driveType = DRIVE_REMOTE;
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "target-network");
        driveType = DRIVE_REMOVABLE;
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "target-removable");
    }
    {
        FaultPoint fault("GetVolumeInformationW");
        fault.failAt = 0;
        fault.failOnwards = true;
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "cannot-look");
    }
    {
        const ImportPatch patch("GetDiskFreeSpaceExW", &noSpace);
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "") << "a rename takes no room";
        options_.copy = true;
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "no-space");
    }
}

TEST_F(MovePreflightTest, MissingPrivilegesAndACurrentDirectoryInTheSourceAreRefused) {
    {
        FaultPoint fault("LookupPrivilegeValueW"); // as if the token did not know them
        fault.failAt = 0;
        fault.failOnwards = true;
        fault.code = ERROR_NO_SUCH_PRIVILEGE;
        EXPECT_EQ(refusalOf(nice(L"out\\new")), "missing-privileges");
    }
    wchar_t before[MAX_PATH];
    ASSERT_NE(::GetCurrentDirectoryW(MAX_PATH, before), 0U);
    ASSERT_TRUE(::SetCurrentDirectoryW(nice(L"data\\sub").c_str()));
    const std::string code = refusalOf(nice(L"out\\new"));
    ASSERT_TRUE(::SetCurrentDirectoryW(before));
    EXPECT_EQ(code, "current-directory");
}

TEST_F(MovePreflightTest, ATargetThatHoldsItemsIsToldAndCollisionsAreFound) {
    directory_.writeFile(L"out\\full\\sub\\other.txt");
    const MovePreflight::Result merged = examine(nice(L"data"), nice(L"out\\full"));
    EXPECT_FALSE(merged.isRefused());
    EXPECT_TRUE(warns(merged, "target-not-empty"));
    EXPECT_TRUE(merged.willCopy);
    EXPECT_TRUE(merged.targetHoldsItems());
    if (underWine()) {
        TreeBuilder(directory_ / L"linked").link(L"link", "../data");
        EXPECT_TRUE(warns(examine(nice(L"data"), nice(L"linked")), "target-not-empty"));
    }
    directory_.writeFile(L"out\\full\\sub\\b.txt");
    EXPECT_EQ(refusalOf(nice(L"out\\full")), "collisions");
    options_.keepGoing = true;
    EXPECT_TRUE(warns(examine(nice(L"data"), nice(L"out\\full")), "collisions"));
}

TEST_F(MovePreflightTest, WhatTheTargetCannotKeepIsTold) {
    const std::wstring other = environment(L"ZOP_TEST_TMPFS_DRIVE");
    if (other.empty()) {
        GTEST_SKIP() << "needs a second drive";
    }
    ASSERT_TRUE(::CreateHardLinkW((directory_ / L"data\\twin.txt").c_str(),
                                  (directory_ / L"data\\a.txt").c_str(), nullptr));
    ImportPatch patch("GetVolumeInformationW", &fakeVolumeInformation);
    realVolumeInformation = patch.original<decltype(&::GetVolumeInformationW)>();
    removedFlags = 0;
    addedFlags = FILE_SUPPORTS_HARD_LINKS;
    EXPECT_FALSE(warns(examine(nice(L"data"), other + L"new"), "lost-on-target"));
    static std::wstring otherRoot;
    otherRoot = other;
    const ImportPatch differing(
        "GetVolumeInformationW",
        +[](LPCWSTR root, LPWSTR name, DWORD size, LPDWORD serial, LPDWORD component, LPDWORD flags,
            LPWSTR system, DWORD systemSize) -> BOOL {
            const bool isOther = std::wstring(root).find(otherRoot) != std::wstring::npos;
            addedFlags = isOther ? 0 : DWORD{FILE_SUPPORTS_HARD_LINKS};
            return fakeVolumeInformation(root, name, size, serial, component, flags, system,
                                         systemSize);
        });
    EXPECT_TRUE(warns(examine(nice(L"data"), other + L"new"), "lost-on-target"));
}

TEST_F(MovePreflightTest, SurprisesOfTheMoveAreToldBefore) {
    options_.copy = true;
    EXPECT_TRUE(warns(examine(nice(L"data"), nice(L"data2")), "keeps-source"));
    EXPECT_FALSE(warns(examine(nice(L"data"), nice(L"new")), "keeps-source"));
    options_.streams = StreamType::Data | StreamType::AlternateData;
    EXPECT_TRUE(warns(examine(nice(L"data"), nice(L"new")), "streams-left-out"));
    options_.streams = StreamType::SecurityData;
    EXPECT_EQ(refusalOf(nice(L"new")), "no-data");
    options_.streams = StreamType::All;
    std::wstring deep = nice(L"out\\");
    deep.append(240, L'n');
    EXPECT_TRUE(warns(examine(nice(L"data"), deep), "long-paths"));
    directory_.makeDirectory(L"$Backup1A2B");
    EXPECT_TRUE(warns(examine(nice(L"data"), nice(L"new")), "earlier-move"));
}

TEST(PlaceCheckTest, OnlyPathsWithADriveOrShareAreAbsolute) {
    for (const wchar_t* path :
         {L"C:\\a", L"c:/a", L"\\\\server\\share", L"\\\\?\\C:\\a", L"C:\\"}) {
        EXPECT_TRUE(isAbsolutePath(path)) << toUtf8(path);
    }
    for (const wchar_t* path : {L"", L"a", L"C:", L"C:a", L"\\a", L".\\a", L"1:\\a"}) {
        EXPECT_FALSE(isAbsolutePath(path)) << toUtf8(path);
    }
}

TEST(PlaceCheckTest, ProductDirectoriesInSystemPlacesMayMove) {
    for (const wchar_t* path : {L"C:\\Program Files\\Panel", L"C:\\ProgramData\\Panel\\data",
                                L"C:\\users\\someone\\data", L"C:\\Windows2"}) {
        EXPECT_TRUE(systemPlace(path).empty()) << toUtf8(path);
    }
    for (const wchar_t* path :
         {L"C:\\users\\someone", L"C:\\ProgramData\\Microsoft\\x",
          L"D:\\System Volume Information\\x", L"D:\\$RECYCLE.BIN", L"c:\\WINDOWS\\x"}) {
        EXPECT_FALSE(systemPlace(path).empty()) << toUtf8(path);
    }
}
