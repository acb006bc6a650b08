#include "security/hosting/hosting_root.h"

#include "tests/support/expect_error.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/recycle_bin.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

namespace HostingSecurity {

namespace {

class HostingRootTest : public ::testing::Test {
protected:
    HostingRootTest() {
        temp.makeDirectory(L"vhosts\\d1\\web users");
        temp.makeDirectory(L"vhosts2\\d1");
        RegistryOverride::setString(L"HTTPD_VHOSTS_D", temp.nice() + L"/vhosts\\");
    }

    std::wstring nice(const wchar_t* below) const { return temp.nice() + L"\\" + below; }

    NtfsFake ntfs;
    RecycleBin bin;
    RegistryOverride registry;
    TempDirectory temp;
};

} // namespace

TEST_F(HostingRootTest, NothingIsTouchedThatIsNotBelowTheVirtualHosts) {
    temp.writeFile(L"vhosts2\\file");
    temp.writeFile(L"vhosts\\d1\\file");
    const std::vector<std::wstring> before = temp.list();
    for (const wchar_t* outside :
         {L"vhosts", L"vhosts\\", L"vhosts\\.", L"vhosts\\d1\\..", L"vhosts2\\file",
          L"vhosts2\\new", L"vhosts\\..\\vhosts2\\file", L"vhosts\\d1\\file:stream", L"", L"..\\..",
          L"vhosts\\d1\\..\\..\\vhosts2\\file"}) {
        EXPECT_THROW(checkHostRoot(nice(outside)), RootCorrelationException) << toUtf8(outside);
        EXPECT_THROW(checkHostRoot(L"\\\\?\\" + nice(outside)), vexception) << toUtf8(outside);
    }
    EXPECT_EQ(temp.list(), before);
    RegistryOverride::remove(L"HTTPD_VHOSTS_D");
    EXPECT_THROW(checkHostRoot(nice(L"vhosts\\d1\\file")), vexception);
    EXPECT_EQ(temp.list(), before);
    EXPECT_TRUE(bin.taken().empty());
}

TEST_F(HostingRootTest, ARootIsMadeAndAFileInItsPlaceRemoved) {
    for (const wchar_t* root : {L"vhosts\\new", L"vhosts\\d1\\web users\\w1", L"vhosts\\D1"}) {
        checkHostRoot(nice(root));
        EXPECT_TRUE(temp.has(root)) << toUtf8(root);
    }
    temp.writeFile(L"vhosts\\file");
    temp.writeFile(L"vhosts\\file.d", "kept");
    checkHostRoot(nice(L"VHOSTS/file\\"));
    EXPECT_EQ(bin.taken(), std::vector{nice(L"vhosts\\file")});
    EXPECT_EQ(temp.list(L"vhosts\\file"), std::vector<std::wstring>());
    EXPECT_EQ(temp.readFile(L"vhosts\\file.d"), "kept");

    // Where the bin takes nothing, and for what it would take for another file.
    bin.works() = false;
    temp.writeFile(L"vhosts\\locked", "data", FILE_ATTRIBUTE_READONLY);
    checkHostRoot(nice(L"vhosts\\locked"));
    bin.works() = true;
    temp.writeFile(L"vhosts\\file.");
    checkHostRoot(temp / L"vhosts\\file.");
    EXPECT_EQ(bin.taken().size(), 1U);
    for (const wchar_t* root : {L"vhosts\\locked", L"vhosts\\file."}) {
        EXPECT_NE(::GetFileAttributesW((temp / root).c_str()) & FILE_ATTRIBUTE_DIRECTORY, 0U)
            << toUtf8(root);
    }
}

TEST_F(HostingRootTest, LinksAreNeverFollowed) {
    temp.writeFile(L"vhosts2\\secret", "secret");
    const auto link = [this](const wchar_t* at, const wchar_t* to, DWORD tag, bool directory) {
        ntfs.makeLink(nice(at), nice(to), tag, directory);
    };
    link(L"vhosts\\file", L"vhosts2\\secret", IO_REPARSE_TAG_SYMLINK, false);
    link(L"vhosts\\junction", L"vhosts2", IO_REPARSE_TAG_MOUNT_POINT, true);
    link(L"vhosts\\symlink", L"vhosts2\\gone", IO_REPARSE_TAG_SYMLINK, true);
    const std::vector<std::wstring> outside = temp.list(L"vhosts2");

    checkHostRoot(nice(L"vhosts\\file"));
    EXPECT_EQ(temp.list(L"vhosts\\file"), std::vector<std::wstring>());
    EXPECT_TRUE(bin.taken().empty()) << "the shell was given a link";
    for (const wchar_t* root : {L"vhosts\\junction", L"vhosts\\symlink"}) {
        expectError<vexception>(L"The root (" + nice(root) +
                                    L") is a link to a directory: remove the link, or give that "
                                    L"directory",
                                [&] { checkHostRoot(nice(root)); });
        EXPECT_TRUE(temp.has(root));
    }
    for (const wchar_t* root : {L"vhosts\\junction\\secret", L"vhosts\\junction\\d1\\new"}) {
        EXPECT_THROW(checkHostRoot(nice(root)), RootCorrelationException) << toUtf8(root);
    }
    // To another's hosting: a web user named as a directory there would be given its content.
    temp.makeDirectory(L"vhosts\\d2\\wwwroot");
    link(L"vhosts\\d1\\webusers", L"vhosts\\d2", IO_REPARSE_TAG_MOUNT_POINT, true);
    for (const auto& look : {+[](const std::wstring& at) { checkHostRoot(at); },
                             +[](const std::wstring& at) { HostingRoot::find(at); }}) {
        EXPECT_THROW(look(nice(L"vhosts\\d1\\webusers\\wwwroot")), RootCorrelationException);
    }
    // What leads to the virtual hosts is the administrator's, links and all.
    link(L"alias", L"vhosts", IO_REPARSE_TAG_MOUNT_POINT, true);
    EXPECT_EQ(HostingRoot::find(nice(L"alias\\d2\\wwwroot")).domainName(), L"d2");
    EXPECT_EQ(HostingRoot::findPlace(nice(L"alias\\d3")).domainName(), L"d3");
    RegistryOverride::setString(L"HTTPD_VHOSTS_D", nice(L"alias"));
    EXPECT_EQ(HostingRoot::find(nice(L"vhosts\\d2")).path, temp / L"vhosts\\d2");

    EXPECT_EQ(temp.list(L"vhosts2"), outside);
    EXPECT_EQ(temp.readFile(L"vhosts2\\secret"), "secret");
    EXPECT_THROW(checkHostRoot(nice(L"vhosts\\none\\w1")), vosexception);

    // The owner of the domain puts a link above the root once it has been looked at.
    temp.writeFile(L"vhosts\\d1\\web users\\w1");
    bool refused = false;
    bin.meanwhile() = [&] {
        refused = !ntfs.swapForLink(nice(L"vhosts\\d1\\web users"), "/tmp") &&
                  !ntfs.swapForLink(nice(L"vhosts\\d1"), "/tmp");
    };
    checkHostRoot(nice(L"vhosts\\d1\\web users\\w1"));
    EXPECT_TRUE(refused);
}

} // namespace HostingSecurity
