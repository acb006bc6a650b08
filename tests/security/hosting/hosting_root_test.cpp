#include "security/hosting/hosting_root.h"

#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

#include <shellapi.h>

namespace HostingSecurity {

namespace {

// Stands in for the recycle bin, which would lie in the home directory of whoever runs the tests.
std::vector<std::wstring> recycled;
std::function<bool()> recycles; // before it takes anything, and whether it does
int WINAPI recycle(LPSHFILEOPSTRUCTW operation) {
    constexpr FILEOP_FLAGS flags = FOF_ALLOWUNDO | FOF_NO_CONNECTED_ELEMENTS;
    if (operation->wFunc != FO_DELETE || (operation->fFlags & flags) != flags || !recycles()) {
        return ERROR_CALL_NOT_IMPLEMENTED;
    }
    recycled.emplace_back(operation->pFrom);
    return ::DeleteFileW(operation->pFrom) ? 0 : ERROR_ACCESS_DENIED;
}

class HostingRootTest : public ::testing::Test {
protected:
    HostingRootTest() {
        temp.makeDirectory(L"vhosts\\d1\\web users");
        temp.writeFile(L"vhosts2\\file", "secret");
        RegistryOverride::setString(L"HTTPD_VHOSTS_D", temp.nice() + L"/vhosts\\");
        recycled.clear();
        recycles = [] { return true; };
    }

    std::wstring nice(const wchar_t* below) const { return temp.nice() + L"\\" + below; }

    NtfsFake ntfs;
    ImportPatch bin{"SHFileOperationW", &recycle};
    RegistryOverride registry;
    TempDirectory temp;
    bool refused = false; // to put a link in the place of a directory
};

} // namespace

TEST_F(HostingRootTest, NothingIsTouchedThatIsNotBelowTheVirtualHosts) {
    temp.writeFile(L"vhosts\\d1\\file");
    const std::vector<std::wstring> before = temp.list();
    for (const wchar_t* outside :
         {L"", L"vhosts\\", L"vhosts\\d1\\..", L"vhosts2\\file", L"vhosts2\\new", L"..\\..",
          L"vhosts\\..\\vhosts2\\file", L"vhosts\\d1\\file:stream"}) {
        EXPECT_THROW(checkHostRoot(nice(outside)), RootCorrelationException) << toUtf8(outside);
        EXPECT_THROW(checkHostRoot(L"\\\\?\\" + nice(outside)), vexception) << toUtf8(outside);
    }
    EXPECT_THROW(checkHostRoot(nice(L"vhosts\\none\\w1")), vosexception);
    RegistryOverride::remove(L"HTTPD_VHOSTS_D");
    EXPECT_THROW(checkHostRoot(nice(L"vhosts\\d1\\file")), vexception);
    EXPECT_EQ(temp.list(), before);
    EXPECT_TRUE(recycled.empty());
}

TEST_F(HostingRootTest, ARootIsMadeAndAFileInItsPlaceRemoved) {
    temp.writeFile(L"vhosts\\file");
    temp.writeFile(L"vhosts\\file.", "data", FILE_ATTRIBUTE_READONLY);
    checkHostRoot(nice(L"VHOSTS/file\\"));
    checkHostRoot(temp / L"vhosts\\file."); // which the bin would take for the other
    EXPECT_EQ(recycled, std::vector{nice(L"vhosts\\file")});
    recycles = [] { return false; };
    temp.writeFile(L"vhosts\\d1\\web users\\w2");
    for (const wchar_t* root :
         {L"vhosts\\d1\\web users\\w2", L"vhosts\\d1\\web users\\w1", L"vhosts\\D1"}) {
        checkHostRoot(nice(root));
    }
    for (const wchar_t* root : {L"vhosts\\file", L"vhosts\\file.", L"vhosts\\d1\\web users\\w1",
                                L"vhosts\\d1\\web users\\w2", L"vhosts\\d1\\web users"}) {
        const DWORD attributes = ::GetFileAttributesW((temp / root).c_str());
        EXPECT_EQ(attributes & FILE_ATTRIBUTE_DIRECTORY, DWORD{FILE_ATTRIBUTE_DIRECTORY})
            << toUtf8(root);
    }
}

TEST_F(HostingRootTest, LinksAreNeverFollowed) {
    const auto link = [this](const wchar_t* at, const wchar_t* to, DWORD tag, bool directory) {
        ntfs.makeLink(nice(at), nice(to), tag, directory);
    };
    link(L"vhosts\\file", L"vhosts2\\file", IO_REPARSE_TAG_SYMLINK, false);
    link(L"vhosts\\junction", L"vhosts2", IO_REPARSE_TAG_MOUNT_POINT, true);
    link(L"vhosts\\symlink", L"vhosts2\\gone", IO_REPARSE_TAG_SYMLINK, true);
    checkHostRoot(nice(L"vhosts\\file"));
    EXPECT_EQ(temp.list(L"vhosts\\file"), std::vector<std::wstring>());
    EXPECT_TRUE(recycled.empty()) << "the shell was given a link";
    for (const wchar_t* root : {L"vhosts\\junction", L"vhosts\\symlink"}) {
        expectError<vexception>(L"The root (" + nice(root) +
                                    L") is a link to a directory: remove the link, or give that "
                                    L"directory",
                                [&] { checkHostRoot(nice(root)); });
        EXPECT_TRUE(temp.has(root));
    }
    EXPECT_THROW(checkHostRoot(nice(L"vhosts\\junction\\new")), RootCorrelationException);
    EXPECT_EQ(temp.list(L"vhosts2"), std::vector<std::wstring>{L"file"});
    EXPECT_EQ(temp.readFile(L"vhosts2\\file"), "secret");

    // To another's hosting: a web user named as a directory there would be given its content.
    temp.makeDirectory(L"vhosts\\d2\\wwwroot");
    link(L"vhosts\\d1\\webusers", L"vhosts\\d2", IO_REPARSE_TAG_MOUNT_POINT, true);
    const std::wstring stolen = nice(L"vhosts\\d1\\webusers\\wwwroot");
    EXPECT_THROW(checkHostRoot(stolen), RootCorrelationException);
    EXPECT_THROW(HostingRoot::find(stolen), RootCorrelationException);
    // What leads to the virtual hosts is the administrator's, links and all.
    link(L"alias", L"vhosts", IO_REPARSE_TAG_MOUNT_POINT, true);
    EXPECT_EQ(HostingRoot::find(nice(L"alias\\d2\\wwwroot")).domainName(), L"d2");
    EXPECT_EQ(HostingRoot::findPlace(nice(L"alias\\d3")).domainName(), L"d3");

    // The owner of the domain puts a link above the root once it has been looked at.
    temp.writeFile(L"vhosts\\d1\\web users\\w1");
    recycles = [this] {
        return refused = !ntfs.swapForLink(nice(L"vhosts\\d1\\web users"), "/tmp") &&
                         !ntfs.swapForLink(nice(L"vhosts\\d1"), "/tmp");
    };
    checkHostRoot(nice(L"vhosts\\d1\\web users\\w1"));
    EXPECT_TRUE(refused);
}

} // namespace HostingSecurity
