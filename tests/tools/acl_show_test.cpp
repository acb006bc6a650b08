// zopctl acl show, on a file system that keeps descriptors as they are.
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"
#include "tests/tools/recording_console.h"
#include "tools/zopctl/acl_show_command.h"

#include <gmock/gmock.h>

namespace zopctl {

namespace {

class AclShowTest : public ::testing::Test {
protected:
    // What is printed for a file with this descriptor.
    std::string shown(const std::wstring& sddl) {
        ntfs_.setSecurity(file_, sddl);
        RecordingConsole console;
        EXPECT_EQ(runAclShow({file_}, console), ExitCode::Success) << console.errors;
        return console.output;
    }
    nlohmann::json object(const std::wstring& path) {
        RecordingConsole console;
        runAclShow({path, L"--json"}, console);
        return console.objects().front();
    }

    NtfsFake ntfs_;
    TempDirectory directory_;
    std::wstring file_ = directory_.writeFile(L"some file");
};

} // namespace

TEST_F(AclShowTest, SaysWhoMayDoWhat) {
    using ::testing::HasSubstr;
    const std::string usual =
        shown(L"O:BAG:SYD:PAI(D;;FW;;;BG)(A;;FA;;;SY)(A;ID;FR;;;S-1-5-21-1-2-3-4004)");
    EXPECT_THAT(usual, HasSubstr("some file (file)"));
    EXPECT_THAT(usual, HasSubstr("Owner:  BUILTIN\\Administrators (S-1-5-32-544)"));
    EXPECT_THAT(usual, HasSubstr("Access: 3 entries, in canonical order; protected"));
    EXPECT_THAT(usual, HasSubstr("   1  BUILTIN\\Guests: denied: write"));
    EXPECT_THAT(usual, HasSubstr("   3  S-1-5-21-1-2-3-4004: read; inherited"));
    EXPECT_THAT(usual, HasSubstr("(A;;FA;;;SY)"));
    EXPECT_THAT(shown(L"D:AI(A;;FA;;;SY)(D;;FW;;;BG)"),
                HasSubstr("NOT in canonical order: entry 2 should stand before one above it; "
                          "inherits from above (auto-inherited)"));
    EXPECT_THAT(shown(L"D:NO_ACCESS_CONTROL"), HasSubstr("(null): everybody has full access"));
    EXPECT_THAT(shown(L"D:P"), HasSubstr("empty: nobody has access"));
}

TEST_F(AclShowTest, TellsProgramsTheSameAndNeverFollowsALink) {
    ntfs_.setSecurity(file_, L"O:BAG:SYD:(A;;FA;;;SY)(A;;FR;;;WD)(D;;FW;;;WD)");
    const nlohmann::json shown = object(file_);
    EXPECT_EQ(shown["event"], "acl");
    EXPECT_EQ(shown["owner"]["sid"], "S-1-5-32-544");
    EXPECT_EQ(shown["nullAccessList"], false);
    EXPECT_EQ(shown["access"]["canonical"], false);
    EXPECT_EQ(shown["access"]["outOfOrder"], 3);
    EXPECT_EQ(shown["access"]["entries"][2]["mask"], FILE_GENERIC_WRITE);
    EXPECT_EQ(shown["access"]["entries"][2]["sddl"], "(D;;FW;;;WD)");
    ntfs_.setSecurity(file_, L"D:NO_ACCESS_CONTROL");
    EXPECT_EQ(object(file_)["nullAccessList"], true);
    EXPECT_EQ(object(file_)["access"], nullptr);

    const std::wstring link = directory_ / L"link";
    ntfs_.makeLink(link, file_, IO_REPARSE_TAG_SYMLINK, false);
    ntfs_.setSecurity(link, L"O:SYG:SYD:(A;;FA;;;BU)");
    EXPECT_EQ(object(link)["kind"], "link");
    EXPECT_EQ(object(link)["access"]["entries"][0]["sddl"], "(A;;FA;;;BU)");

    RecordingConsole console;
    EXPECT_EQ(runAclShow({directory_ / L"none", L"--json"}, console), ExitCode::Failed);
    EXPECT_EQ(console.objects().back()["status"], "failed");
    EXPECT_EQ(runAclShow({directory_ / L"none"}, console), ExitCode::Failed);
    EXPECT_THAT(console.errors, ::testing::HasSubstr("none)"));
}

} // namespace zopctl
