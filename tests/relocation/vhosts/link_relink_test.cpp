#include "relocation/vhosts/link_relink.h"

#include "relocation/tree_scan.h"
#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <gtest/gtest.h>
#include <map>

namespace {

class LinkRelinkTest : public ::testing::Test {
protected:
    LinkRelinkTest() {
        TreeBuilder(old()).file(L"site\\www\\a.txt", "a").directory(L"site\\links");
        const std::wstring root = directory_.nice() + L"\\vhosts";
        const std::wstring other = directory_.nice() + L"\\VHOSTS\\site\\www\\a.txt";
        ntfs_.makeLink(old() + L"\\site\\links\\junction", root + L"\\site\\www",
                       IO_REPARSE_TAG_MOUNT_POINT, true);
        ntfs_.makeLink(old() + L"\\site\\links\\file", other, IO_REPARSE_TAG_SYMLINK, false);
        ntfs_.makeLink(old() + L"\\site\\top", root, IO_REPARSE_TAG_SYMLINK, true);
        ntfs_.makeLink(old() + L"\\site\\links\\relative", L"..\\www", IO_REPARSE_TAG_SYMLINK,
                       true);
        ntfs_.makeLink(old() + L"\\site\\links\\neighbour", root + L"2\\site",
                       IO_REPARSE_TAG_SYMLINK, true);
    }

    std::wstring old() const { return directory_ / L"vhosts"; }
    std::wstring moved() const { return directory_ / L"new place"; }

    void find(LinkRelink& links) const {
        TreeScan scan;
        const Hook found = scan.linkEvent.hook([&](const std::wstring& path) { links.add(path); });
        scan.scan(old(), {});
    }

    static TreeImage image(const std::wstring& root) {
        ImageOptions options;
        options.directoryTimes = false; // the fake makes a link anew to change it
        return imageOf(root, options);
    }

    static LinkNames namesOf(const std::wstring& path) {
        const RunTime::AutoHandle link =
            RunTime::openExisting(path, FILE_READ_ATTRIBUTES, FILE_SHARE_READ);
        const std::optional<LinkNames> names = linkNames(readReparsePoint(link.get()));
        EXPECT_TRUE(names);
        return names.value_or(LinkNames{});
    }

    TempDirectory directory_;
    NtfsFake ntfs_;
};

} // namespace

TEST_F(LinkRelinkTest, AbsoluteLinksFollowTheTreeAndComeBackByteForByte) {
    LinkRelink links(old());
    find(links);
    EXPECT_EQ(links.get_links().size(), 3U) << "neither the relative one nor the neighbour's";
    RunTime::moveEx(old(), moved());
    const TreeImage before = image(moved());
    std::vector<LinkRelink::Changed> told;
    {
        const Hook telling = links.changingEvent.hook(
            [&told](const LinkRelink::Changed& link) { told.push_back(link); });
        links.change(moved());
    }
    EXPECT_EQ(links.get_changed(), 3);
    const std::wstring place = directory_.nice() + L"\\new place";
    const std::map<std::wstring, std::wstring> expected = {
        {L"\\site\\links\\junction", place + L"\\site\\www"},
        {L"\\site\\links\\file", place + L"\\site\\www\\a.txt"},
        {L"\\site\\top", place},
        {L"\\site\\links\\relative", L"..\\www"},
        {L"\\site\\links\\neighbour", directory_.nice() + L"\\vhosts2\\site"}};
    for (const auto& [path, target] : expected) {
        EXPECT_EQ(namesOf(moved() + path).target, target);
        EXPECT_EQ(namesOf(moved() + path).print, target);
    }
    // What differs is where they lead: no time, no kind.
    TreeImage after = image(moved());
    for (auto& [name, item] : after) {
        item.reparse = before.at(name).reparse;
    }
    EXPECT_TRUE(sameTree(before, after));
    links.rollback();
    EXPECT_EQ(links.get_changed(), 0);
    EXPECT_TRUE(sameTree(before, image(moved())));
    links.change(moved()); // and another process puts them back
    LinkRelink another(moved());
    another.resume(moved(), told);
    another.rollback();
    EXPECT_TRUE(sameTree(before, image(moved())));
}

TEST_F(LinkRelinkTest, WhicheverCallFailsRollbackPutsEveryLinkBack) {
    LinkRelink links(old());
    find(links);
    RunTime::moveEx(old(), moved());
    const TreeImage before = image(moved());
    bool fired = true;
    int failed = 0;
    for (long n = 1; fired; ++n) {
        const FaultOutcome outcome =
            runWithFault(n, ERROR_DISK_FULL, [&] { links.change(moved()); });
        SCOPED_TRACE(outcome.text());
        fired = outcome.fired;
        failed += outcome.error.empty() ? 0 : 1;
        links.rollback();
        ASSERT_TRUE(sameTree(before, image(moved())));
    }
    EXPECT_GT(failed, 5);
}

// The tree goes back whether or not its links could be put back before.
TEST_F(LinkRelinkTest, WhatARollbackHasLeftTheNextOnePutsBackInTheOldPlace) {
    LinkRelink links(old());
    find(links);
    const TreeImage before = image(old());
    int errors = 0;
    const Hook hook = links.errorEvent.hook([&](const std::wstring&, bool&) { ++errors; });
    bool fired = true;
    for (long n = 1; fired; ++n) {
        RunTime::moveEx(old(), moved());
        links.change(moved());
        const FaultOutcome outcome = runWithFault(n, ERROR_DISK_FULL, [&] { links.rollback(); });
        SCOPED_TRACE(outcome.text());
        fired = outcome.fired;
        RunTime::moveEx(moved(), old());
        links.rollback();
        ASSERT_TRUE(sameTree(before, image(old())));
    }
    EXPECT_GT(errors, 5);
}

TEST_F(LinkRelinkTest, NothingThatHasBecomeSomebodyElsesIsTouched) {
    LinkRelink links(old());
    find(links);
    RunTime::moveEx(old(), moved());
    // One link leads elsewhere by now, and a directory on the way to two is a link itself.
    const std::wstring top = moved() + L"\\site\\top";
    RunTime::removeDirectory(top);
    ntfs_.makeLink(top, directory_.nice(), IO_REPARSE_TAG_SYMLINK, true);
    ASSERT_TRUE(ntfs_.swapForLink(moved() + L"\\site\\links",
                                  unixPath(moved() + L"\\site\\links") + ".aside"));
    const std::string before = ntfs_.fingerprint(moved());
    int errors = 0;
    const Hook hook = links.errorEvent.hook([&](const std::wstring&, bool& ignore) {
        ++errors;
        ignore = true;
    });
    links.change(moved());
    EXPECT_EQ(errors, 2);
    EXPECT_EQ(links.get_changed(), 0);
    EXPECT_EQ(ntfs_.fingerprint(moved()), before);
}
