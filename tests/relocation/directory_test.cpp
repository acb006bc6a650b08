// The walks of RunTime::Directory: order of events, totals, cancellation, links, what stays.
#include "relocation/directory.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <functional>
#include <thread>

namespace {

using RunTime::Directory;

class DirectoryTest : public MoveFixture {
protected:
    std::wstring tree() const { return temp_ / L"tree"; }
    std::wstring victim() const { return temp_ / L"victim"; }

    void makeTree() {
        temp_.writeFile(L"victim\\inner.txt", "precious");
        temp_.writeFile(L"tree\\a\\inner\\y.txt", "12345", FILE_ATTRIBUTE_READONLY);
        temp_.writeFile(L"tree\\a\\x.txt", "123");
        temp_.makeDirectory(L"tree\\b");
        temp_.writeFile(L"tree\\1.txt", "12");
        unixSymlink(unixPath(victim()), tree() + L"\\link");
        unixSymlink(unixPath(victim()) + "/inner.txt", tree() + L"\\link.txt");
        ntfs_.makeLink(tree() + L"\\mount", victim(), IO_REPARSE_TAG_MOUNT_POINT, true);
        ::SetFileAttributesW((tree() + L"\\b").c_str(), FILE_ATTRIBUTE_READONLY);
    }

    // Each event as "name cost", files with a "*"; totals as "count/cost".
    std::vector<Hook> record(Directory& walker) {
        std::vector<Hook> hooks;
        hooks.push_back(
            walker.progressEvent_Total.hook([this](std::int32_t count, std::int64_t cost, bool&) {
                events_.push_back(std::to_wstring(count) + L"/" + std::to_wstring(cost));
            }));
        hooks.push_back(walker.progressEvent_Name.hook(
            [this](const std::wstring& name, bool isFile, std::int64_t cost, bool&) {
                events_.push_back(name.substr(tree().size()) + (isFile ? L"* " : L" ") +
                                  std::to_wstring(cost));
            }));
        return hooks;
    }

    using Lines = std::vector<std::wstring>;
    Lines events_;
};

TEST_F(DirectoryTest, RemovalGoesParentFirstAndLinksGoAsLinks) {
    makeTree();
    const TreeImage before = imageOf(victim());
    {
        Directory walker(tree());
        Lines lists[3];
        for (const int mode : {1, 2, 3}) {
            std::vector<RunTime::FileInformation> entries;
            walker.list(entries, mode);
            for (const auto& entry : entries) {
                lists[mode - 1].push_back(entry.name);
            }
            std::sort(lists[mode - 1].begin(), lists[mode - 1].end());
        }
        EXPECT_EQ(lists[0], (Lines{L"a", L"b", L"link", L"mount"}));
        EXPECT_EQ(lists[1], (Lines{L"1.txt", L"a", L"b", L"link", L"link.txt", L"mount"}));
        EXPECT_EQ(lists[2], (Lines{L"1.txt", L"link.txt"}));
        const auto hooks = record(walker);
        std::int64_t cost = 100;
        walker.remove(1, true, true, &cost);
        EXPECT_EQ(cost, 110);
    }
    EXPECT_EQ(events_, (Lines{L"6/2", L" 100", L"\\a 100", L"\\a\\inner 100",
                              L"\\a\\inner\\y.txt* 100", L"\\a\\x.txt* 105", L"\\b 108",
                              L"\\link 108", L"\\mount 108", L"\\1.txt* 108", L"\\link.txt* 110"}));
    EXPECT_FALSE(temp_.has(L"tree"));
    EXPECT_TRUE(sameTree(before, imageOf(victim())));

    // Neither totals nor names; links at the top; a missing path.
    events_.clear();
    makeTree();
    const TreeImage again = imageOf(victim());
    for (const wchar_t* name : {L"tree\\link", L"tree", L"tree", L"no\\such\\path"}) {
        Directory walker(temp_ / name);
        const auto hooks = record(walker);
        walker.remove(1, false, false, nullptr);
        EXPECT_FALSE(temp_.has(name));
    }
    EXPECT_TRUE(events_.empty());
    EXPECT_TRUE(Directory(temp_ / L"no\\such\\path").directories().empty());
    EXPECT_TRUE(Directory(temp_ / L"no\\such\\path").files().empty());
    EXPECT_TRUE(sameTree(again, imageOf(victim())));
}

TEST_F(DirectoryTest, CancelAtTheTotalOrTheFirstNameChangesNothing) {
    makeTree();
    const TreeImage before = imageOf(tree());
    const auto request = [self = ::GetCurrentThreadId()] {
        std::thread([self] { ThreadCancelation::request(self); }).join();
    };
    enum class At { Total, Name, Before, Within }; // the last two by a request of another thread
    for (const At at : {At::Total, At::Name, At::Before, At::Within}) {
        SCOPED_TRACE(static_cast<int>(at));
        Directory walker(tree());
        const Hook total = walker.progressEvent_Total.hook(
            [&](std::int32_t, std::int64_t, bool& cancel) { cancel = at == At::Total; });
        const Hook name = walker.progressEvent_Name.hook(
            [&](const std::wstring& path, bool, std::int64_t, bool& cancel) {
                cancel = at == At::Name;
                if (at == At::Within && path.ends_with(L"\\a")) { // before anything is removed
                    request();
                }
            });
        if (at == At::Before) {
            request();
        }
        EXPECT_THROW(walker.remove(1, true, true, nullptr), CanceledException);
        EXPECT_TRUE(sameTree(before, imageOf(tree())));
    }
}

TEST_F(DirectoryTest, WhatCannotBeRemovedStaysWithItsParents) {
    for (const bool ignored : {true, false}) {
        makeTree();
        const RunTime::AutoHandle inUse = RunTime::openExisting(
            tree() + L"\\a\\x.txt", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
        Directory walker(tree(), true);
        Lines messages;
        const Hook hook = walker.errorEvent.hook([&](const std::wstring& message, bool& ignore) {
            messages.push_back(message);
            ignore = ignored;
        });
        DWORD code = 0;
        try {
            walker.remove(3, true, true, nullptr);
        } catch (const vosexception& error) {
            code = error.get_errorCode();
        }
        EXPECT_EQ(messages.size(), 1u);
        EXPECT_EQ(code, ignored ? 0 : DWORD(ERROR_SHARING_VIOLATION));
        if (ignored) {
            EXPECT_EQ(temp_.list(L"tree"), (Lines{L"a\\", L"a\\x.txt"}));
            EXPECT_EQ(walker.get_leftBehind(), (Lines{tree() + L"\\a\\x.txt"}));
        } else {
            EXPECT_TRUE(temp_.has(L"tree\\b"));
        }
        unixRemoveTree(unixPath(victim()));
        unixRemoveTree(unixPath(tree()));
    }
}

TEST_F(DirectoryTest, KeptItemsStayAndSoDoesTheTopThatIsAsked) {
    makeTree();
    Directory walker(tree(), true);
    walker.set_keep([](const std::wstring& path, const RunTime::FileInformation& entry) {
        return path.ends_with(L"\\inner") || entry.name == L"link.txt";
    });
    walker.remove(1, true, true, nullptr);
    EXPECT_EQ(temp_.list(L"tree"), (Lines{L"a\\", L"a\\inner\\", L"a\\inner\\y.txt", L"link.txt"}));
    EXPECT_EQ(walker.get_leftBehind().size(), 2u);
    Directory again(tree(), true);
    again.set_keepTop(true);
    again.remove(1, true, true, nullptr);
    EXPECT_EQ(temp_.list(),
              (Lines{L"panel\\", L"store\\", L"tree\\", L"victim\\", L"victim\\inner.txt"}));
}

TEST_F(DirectoryTest, OwnersOfTheWholeTreeAreSetAndOfNothingElse) {
    makeTree();
    for (const wchar_t* name :
         {L"tree", L"tree\\a", L"tree\\a\\x.txt", L"victim", L"victim\\inner.txt"}) {
        ntfs_.setSecurity(temp_ / name, L"O:BUG:SYD:");
    }
    const TreeImage before = imageOf(victim());
    Directory::setOwner(tree(), false);
    EXPECT_FALSE(ntfs_.security(tree()).starts_with(L"O:BUG"));
    EXPECT_TRUE(ntfs_.security(tree() + L"\\a").starts_with(L"O:BUG"));
    Directory::setOwner(tree(), true);
    EXPECT_FALSE(ntfs_.security(tree() + L"\\a").starts_with(L"O:BUG"));
    EXPECT_FALSE(ntfs_.security(tree() + L"\\a\\x.txt").starts_with(L"O:BUG"));
    EXPECT_TRUE(sameTree(before, imageOf(victim())));
}

// What an owner of the tree may try: a directory becomes a link to a place that is not his.
TEST_F(DirectoryTest, SwappedDirectoryIsNeverFollowed) {
    struct Case {
        const char* name;
        std::wstring swapped;
        std::wstring opened; // at the n-th open of this
        int n;
        bool held; // by the walk then: the swap is refused
        std::function<void(NtfsFake&)> act;
    };
    const std::wstring a = tree() + L"\\a", file = a + L"\\x.txt";
    const std::wstring targetA = target() + L"\\a";
    const auto removal = [&](NtfsFake&) { Directory(tree()).remove(1, true, true, nullptr); };
    const auto owning = [&](NtfsFake&) { Directory::setOwner(tree(), true); };
    const auto copying = [&](NtfsFake&) { backupcopy().copy(tree(), target()); };
    for (const Case& attack :
         {Case{"removal, before the open", a, a, 1, false, removal},
          Case{"removal, inside", a, a + L"\\inner", 1, true, removal},
          Case{"owner, before the open", a, a, 1, false, owning},
          Case{"owner, before it is set", a, a, 2, true, owning},
          Case{"owner, before the listing", a, a, 3, true, owning},
          Case{"owner, inside", a, file, 1, true, owning},
          Case{"copy, before the source is opened", a, a, 1, false, copying},
          Case{"copy, inside the source", a, file, 1, true, copying},
          Case{"copy, a file of the source", file, file, 1, false, copying},
          Case{"copy, before the target is opened", targetA, targetA, 1, false, copying},
          Case{"copy, inside the target", targetA, targetA + L"\\x.txt", 1, true, copying}}) {
        for (const bool filled : {false, true}) {
            SCOPED_TRACE(attack.name);
            SCOPED_TRACE(filled);
            if (!filled && attack.opened.starts_with(targetA + L"\\")) {
                continue; // a moment needs the directory
            }
            makeTree();
            temp_.writeFile(L"victim\\x.txt", "precious too"); // a name of the tree
            temp_.makeDirectory(filled ? L"store\\data\\a" : L"store\\data");
            ntfs_.setSecurity(victim(), L"O:BUG:SYD:(A;;FA;;;BA)");
            const TreeImage before = imageOf(victim());
            bool tried = false, swapped = false;
            ntfs_.onOpen(attack.opened, attack.n, [&] {
                tried = true;
                swapped = ntfs_.swapForLink(
                    attack.swapped, unixPath(victim()) + (attack.swapped == file ? "/x.txt" : ""));
            });
            std::wstring error;
            try {
                attack.act(ntfs_);
            } catch (const vexception& thrown) {
                error = thrown.what();
            }
            EXPECT_TRUE(tried);
            EXPECT_EQ(swapped, !attack.held);
            EXPECT_EQ(error.empty(), attack.held || attack.act.target_type() == typeid(owning))
                << toUtf8(error);
            EXPECT_TRUE(sameTree(before, imageOf(victim())));
            EXPECT_EQ(ntfs_.openHandles(temp_.path()), 0);
            for (const wchar_t* name : {L"victim", L"tree", L"store"}) {
                unixRemoveTree(unixPath(temp_ / name));
            }
            temp_.makeDirectory(L"store");
        }
    }
}

TEST_F(DirectoryTest, SwappedDirectoryIsNeverFollowedByRollbackOrMerge) {
    temp_.writeFile(L"panel\\data\\sub\\b.txt", "beta");
    temp_.writeFile(L"panel\\data\\sub\\c.txt", "gamma");
    temp_.writeFile(L"victim\\b.txt", "precious");
    temp_.writeFile(L"victim\\c.txt", "precious too");
    const TreeImage before = imageOf(victim());
    const std::wstring sub = target() + L"\\sub";
    for (const bool inside : {false, true}) { // between two files, or before the first
        temp_.writeFile(L"store\\data\\sub\\older.txt", "older");
        backupmove mover;
        mover.move(source(), target(), false);
        bool tried = false, swapped = false;
        int names = 0;
        const Hook hook =
            mover.progressEvent_Name.hook([&](const std::wstring&, bool, std::int64_t, bool&) {
                if (++names == (inside ? 2 : 1)) {
                    tried = true;
                    swapped = ntfs_.swapForLink(sub, unixPath(victim()));
                }
            });
        const IgnoredErrors errors(mover);
        mover.rollback();
        EXPECT_TRUE(tried);
        EXPECT_EQ(swapped, !inside);
        EXPECT_EQ(errors.messages.size(), inside ? 0u : 2u);
        EXPECT_TRUE(sameTree(before, imageOf(victim())));
        unixRemoveTree(unixPath(target()));
    }
    // Commit: what was set aside is merged into the new place.
    temp_.writeFile(L"store\\data\\sub\\deep.txt", "");
    backupmove mover;
    EXPECT_TRUE(mover.move(source(), target(), false));
    bool swapped = false;
    ntfs_.onOpen(sub, 1, [&] { swapped = ntfs_.swapForLink(sub, unixPath(victim())); });
    mover.commit();
    EXPECT_TRUE(swapped);
    EXPECT_TRUE(sameTree(before, imageOf(victim())));
}

// Without the fake: Wine's links show no tag.
TEST(DirectoryOnPlainFilesTest, LinkThatCannotBeReadIsAnErrorOfThatItem) {
    const TempDirectory temp;
    temp.writeFile(L"victim\\inner.txt", "precious");
    temp.writeFile(L"tree\\file.txt");
    unixSymlink(unixPath(temp / L"victim"), temp / L"tree\\link");
    Directory walker(temp / L"tree");
    const IgnoredErrors errors(walker);
    walker.remove(1, true, true, nullptr);
    ASSERT_EQ(errors.messages.size(), 1u);
    EXPECT_NE(errors.messages[0].find(L"Unable to read link (" + temp.nice() + L"\\tree\\link)"),
              std::wstring::npos);
    EXPECT_TRUE(temp.has(L"victim\\inner.txt"));
    EXPECT_EQ(unixEntries(unixPath(temp / L"tree")), std::vector<std::string>{"link"});
}

// Wine looks every name of a path up, so the copy gets a shorter chain.
TEST(DirectoryOnPlainFilesTest, DeepChainsAreWalkedWithoutTheStack) {
    const TempDirectory temp;
    const auto chain = [&](const wchar_t* name, int levels) {
        std::string path = unixPath(temp.makeDirectory(name));
        for (int level = 0; level < levels; ++level) {
            path += "/d";
            unixCall(unixcall::Mkdir, path.c_str(), unixcall::number(0755));
        }
        unixcall::Stat64 item;
        EXPECT_TRUE(unixStat(path, item));
        return path.substr(unixPath(temp / name).size());
    };
    chain(L"deepest", 500);
    Directory(temp / L"deepest").remove(1, true, true, nullptr);
    const std::string below = chain(L"tree", 150);
    backupmove mover;
    mover.move(temp / L"tree", temp / L"copy", true);
    unixcall::Stat64 item;
    EXPECT_TRUE(unixStat(unixPath(temp / L"copy") + below, item));
    mover.commit();
    Directory::setOwner(temp / L"copy", true);
    EXPECT_EQ(temp.list().size(), 151u);
}

} // namespace
