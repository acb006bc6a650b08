#include "relocation/move_preflight.h"

#include "relocation/place_check.h"
#include "runtime/text.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_drive.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <functional>

namespace {

// Volume flags, drive type and free space as a test wants them.
std::function<DWORD(const std::wstring& root, DWORD flags)> changedFlags;
UINT driveType;
decltype(&::GetVolumeInformationW) realVolumeInformation;

BOOL WINAPI fakeVolumeInformation(LPCWSTR root, LPWSTR name, DWORD size, LPDWORD serial,
                                  LPDWORD component, LPDWORD flags, LPWSTR system,
                                  DWORD systemSize) {
    const BOOL done =
        realVolumeInformation(root, name, size, serial, component, flags, system, systemSize);
    if (flags != nullptr) {
        *flags = changedFlags(root, *flags);
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

    // A path that begins with "~" lies in the test's directory.
    std::wstring full(const std::wstring& path) const {
        return path.starts_with(L'~') ? directory_.nice() + path.substr(1) : path;
    }

    MovePreflight::Result examine(const std::wstring& target,
                                  const std::wstring& source = L"~\\data") {
        MovePreflight preflight;
        return preflight.examine(full(source), full(target), options_);
    }

    // The code of the only refusal, which must have a reason and a remedy; "" when there is none.
    std::string refusal(const std::wstring& target, const std::wstring& source = L"~\\data") {
        std::string code;
        for (const MoveFinding& finding : examine(target, source).findings) {
            if (finding.severity == MoveFinding::Severity::Refuse) {
                EXPECT_EQ(code, "") << "more than one";
                EXPECT_FALSE(finding.reason.empty() || finding.remedy.empty()) << finding.code;
                EXPECT_EQ(finding.reason.find(L"\\\\?\\"), std::wstring::npos) << finding.code;
                code = finding.code;
            }
        }
        return code;
    }

    bool warns(const char* code, const std::wstring& target) {
        const auto findings = examine(target).findings;
        return std::any_of(findings.begin(), findings.end(), [&](const MoveFinding& finding) {
            return finding.code == std::string(code) &&
                   finding.severity == MoveFinding::Severity::Warn;
        });
    }

    TempDirectory directory_;
    MovePreflight::Options options_;
};

} // namespace

TEST_F(MovePreflightTest, AGoodMoveIsMeasuredAndNothingIsChanged) {
    const TreeImage before = imageOf(directory_.path());
    const MovePreflight::Result result = examine(L"~\\out\\new");
    EXPECT_TRUE(sameTree(before, imageOf(directory_.path())));
    EXPECT_FALSE(result.isRefused());
    EXPECT_TRUE(result.isExamined);
    EXPECT_FALSE(result.willCopy);
    EXPECT_EQ(result.contents.files, 2);
    EXPECT_EQ(result.contents.directories, 1);
    EXPECT_EQ(result.contents.bytes, 5001);
    EXPECT_EQ(result.longestPath, full(L"~\\out\\new\\sub\\b.txt").size());
    options_.copy = true;
    const MovePreflight::Result copy = examine(L"~\\out\\new");
    EXPECT_TRUE(copy.willCopy);
    EXPECT_GE(copy.bytesNeeded, 5001);
    EXPECT_GT(copy.bytesFree, 0);
}

TEST_F(MovePreflightTest, PathsThatCannotBeMeantAndPlacesThatOverlapAreRefused) {
    struct Case {
        const char* code;
        const wchar_t* target;
        const wchar_t* source = L"~\\data";
    };
    const Case cases[] = {
        {"empty-path", L""},
        {"relative-path", L"new"},
        {"bad-character", L"~\\out\\n*w"},
        {"bad-character", L"\\\\.\\C:"},
        {"quote-in-path", L"~\\out\" --yes"},
        {"target-around-source", L"C:\\"},
        {"target-root", L"Z:\\"},
        {"target-parent-missing", L"~\\none\\new"},
        {"target-file", L"~\\out\\file"},
        {"target-system", L"C:\\windows\\Temp\\new"},
        {"source-missing", L"~\\out\\new", L"~\\none"},
        {"source-file", L"~\\out\\new", L"~\\data\\a.txt"},
        {"source-root", L"~\\out\\new", L"C:\\"},
        {"source-system", L"~\\out\\new", L"C:\\Program Files"},
        {"same-place", L"~\\DATA"},
        {"target-inside-source", L"~\\out\\..\\data\\new"},
        {"target-around-source", L"~\\data", L"~\\data\\sub"},
    };
    const Case linked[] = {
        {"source-link", L"~\\out\\new", L"~\\link"},
        {"same-place", L"~\\link"},
        {"same-place", L"~\\alias\\data"},
        {"target-inside-source", L"~\\alias\\data\\new"},
        {"target-around-source", L"~\\data", L"~\\alias\\data\\sub"},
    };
    directory_.writeFile(L"out\\file");
    const auto expectRefused = [this](const Case& c) {
        EXPECT_EQ(refusal(c.target, c.source), c.code) << toUtf8(c.source) << toUtf8(c.target);
    };
    std::for_each(std::begin(cases), std::end(cases), expectRefused);
    if (underWine()) {
        TreeBuilder(directory_.path()).link(L"link", "data").link(L"alias", ".");
        std::for_each(std::begin(linked), std::end(linked), expectRefused);
    }
    const MovePreflight::Result swapped = examine(L"~\\data", L"~\\none");
    EXPECT_NE(swapped.findings.at(0).remedy.find(L"the wrong way round"), std::wstring::npos);
    options_.createsTarget = true; // but no drive
    EXPECT_EQ(refusal(L"Q:\\none\\here"), "target-parent-missing");
}

TEST_F(MovePreflightTest, TargetsThatCannotTakeTheTreeAreRefused) {
    {
        ImportPatch patch("GetVolumeInformationW", &fakeVolumeInformation);
        realVolumeInformation = patch.original<decltype(&::GetVolumeInformationW)>();
        changedFlags = [](const std::wstring&, DWORD flags) {
            return flags & ~DWORD{FILE_PERSISTENT_ACLS};
        };
        EXPECT_EQ(refusal(L"~\\out\\new"), "target-without-permissions");
        changedFlags = [](const std::wstring&, DWORD flags) {
            return flags | FILE_READ_ONLY_VOLUME;
        };
        EXPECT_EQ(refusal(L"~\\out\\new"), "target-read-only");
    }
    {
        const ImportPatch patch("GetDriveTypeW", &fakeDriveType);
        driveType = DRIVE_REMOTE;
        EXPECT_EQ(refusal(L"~\\out\\new"), "target-network");
        driveType = DRIVE_REMOVABLE;
        EXPECT_EQ(refusal(L"~\\out\\new"), "target-removable");
    }
    for (const auto& [function, code] :
         {std::pair("GetVolumeInformationW", "cannot-look"),
          {"LookupPrivilegeValueW", "missing-privileges"}}) { // as if the token did not know them
        FaultPoint fault(function);
        fault.failAt = 0;
        fault.failOnwards = true;
        fault.code = ERROR_NO_SUCH_PRIVILEGE;
        EXPECT_EQ(refusal(L"~\\out\\new"), code);
    }
    const ImportPatch patch("GetDiskFreeSpaceExW", &noSpace);
    EXPECT_EQ(refusal(L"~\\out\\new"), "") << "a rename takes no room";
    options_.copy = true;
    EXPECT_EQ(refusal(L"~\\out\\new"), "no-space");
}

TEST_F(MovePreflightTest, ACurrentDirectoryInTheSourceIsRefused) {
    wchar_t before[MAX_PATH];
    ASSERT_NE(::GetCurrentDirectoryW(MAX_PATH, before), 0U);
    ASSERT_TRUE(::SetCurrentDirectoryW(full(L"~\\data\\sub").c_str()));
    const std::string code = refusal(L"~\\out\\new");
    ASSERT_TRUE(::SetCurrentDirectoryW(before));
    EXPECT_EQ(code, "current-directory");
}

TEST_F(MovePreflightTest, ATargetThatHoldsItemsIsToldAndCollisionsAreFound) {
    directory_.writeFile(L"out\\full\\sub\\other.txt");
    const MovePreflight::Result merged = examine(L"~\\out\\full");
    EXPECT_FALSE(merged.isRefused());
    EXPECT_TRUE(merged.willCopy);
    EXPECT_TRUE(merged.targetHoldsItems());
    EXPECT_TRUE(warns("target-not-empty", L"~\\out\\full"));
    if (underWine()) {
        TreeBuilder(directory_ / L"linked").link(L"link", "../data");
        EXPECT_TRUE(warns("target-not-empty", L"~\\linked"));
    }
    directory_.writeFile(L"out\\full\\sub\\b.txt");
    EXPECT_EQ(refusal(L"~\\out\\full"), "collisions");
    options_.keepGoing = true;
    EXPECT_TRUE(warns("collisions", L"~\\out\\full"));
}

TEST_F(MovePreflightTest, WhatTheTargetCannotKeepIsTold) {
    const std::wstring other = testDrive(L"ZOP_TEST_TMPFS_DRIVE");
    if (other.empty()) {
        GTEST_SKIP() << "needs a second drive";
    }
    ASSERT_TRUE(::CreateHardLinkW((directory_ / L"data\\twin.txt").c_str(),
                                  (directory_ / L"data\\a.txt").c_str(), nullptr));
    ImportPatch patch("GetVolumeInformationW", &fakeVolumeInformation);
    realVolumeInformation = patch.original<decltype(&::GetVolumeInformationW)>();
    for (const bool differ : {false, true}) {
        changedFlags = [&](const std::wstring& root, DWORD flags) {
            const bool has = !differ || root.find(other) == root.npos;
            return has ? flags | FILE_SUPPORTS_HARD_LINKS
                       : flags & ~DWORD{FILE_SUPPORTS_HARD_LINKS};
        };
        EXPECT_EQ(warns("lost-on-target", other + L"new"), differ);
    }
}

TEST_F(MovePreflightTest, SurprisesOfTheMoveAreToldBefore) {
    options_.copy = true;
    EXPECT_TRUE(warns("keeps-source", L"~\\data2"));
    EXPECT_FALSE(warns("keeps-source", L"~\\new"));
    options_.streams = StreamType::Data | StreamType::AlternateData;
    EXPECT_TRUE(warns("streams-left-out", L"~\\new"));
    options_.streams = StreamType::SecurityData;
    EXPECT_EQ(refusal(L"~\\new"), "no-data");
    options_.streams = StreamType::All;
    EXPECT_TRUE(warns("long-paths", L"~\\out\\" + std::wstring(240, L'n')));
    directory_.makeDirectory(L"$Backup1A2B");
    EXPECT_TRUE(warns("earlier-move", L"~\\new"));
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
          L"D:\\System Volume Information\\x", L"D:\\$RECYCLE.BIN", L"c:\\WINDOWS\\x",
          L"C:\\Program Files", L"C:\\users", L"C:\\ProgramData"}) {
        EXPECT_FALSE(systemPlace(path).empty()) << toUtf8(path);
    }
}
