// What hosted users may try, and what may go wrong, while their files are checked and repaired.
#include "tests/security/hosting/hosting_fixture.h"

#include "runtime/log_manager.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "security/hosting/undo_log.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/unix_call.h"

namespace HostingSecurity {

namespace {

constexpr wchar_t everybody[] = L"O:BAG:SYD:AI(A;OICI;FA;;;WD)";

class HostingSafetyTest : public HostingFixture {
protected:
    HostingSafetyTest() : secret(place.writeFile(L"outside\\secret")) {
        ntfs.setSecurity(secret, L"O:BAG:SYD:P(A;;FA;;;SY)");
        ntfs.setSecurity(place / L"outside", L"O:BAG:SYD:P(A;;FA;;;SY)");
    }
    void repair(Recorder& recorder, CommitMode mode = CommitMode::Repair, bool descend = true) {
        const auto subject = manager();
        try {
            subject->commit(recorder, mode, descend, false);
            undoFile = subject->getUndoFile();
        } catch (const vexception&) {
            undoFile = subject->getUndoFile();
            throw;
        }
    }
    std::wstring make(const std::wstring& relative) {
        return place.writeFile(L"vhosts\\d1\\" + relative);
    }

    std::wstring secret;
    std::wstring undoFile;
};

} // namespace

TEST_F(HostingSafetyTest, NoWayLeadsOutOfTheRoot) {
    make(L"wwwroot\\page");
    make(L"wwwroot\\dir\\page");
    const std::wstring junction = at(L"wwwroot\\junction"), link = at(L"wwwroot\\link"),
                       hard = at(L"wwwroot\\hard"), own = make(L"wwwroot\\own"),
                       unknown = make(L"wwwroot\\unknown"), dedup = make(L"wwwroot\\dedup");
    ntfs.makeLink(junction, place / L"outside", IO_REPARSE_TAG_MOUNT_POINT, true);
    ntfs.makeLink(link, secret, IO_REPARSE_TAG_SYMLINK, false);
    ASSERT_TRUE(::CreateHardLinkW(hard.c_str(), secret.c_str(), nullptr));
    ASSERT_TRUE(::CreateHardLinkW(at(L"wwwroot\\own2").c_str(), own.c_str(), nullptr));
    ntfs.setForeignTag(dedup, 0x80000013, "data"); // IO_REPARSE_TAG_DEDUP
    ntfs.setForeignTag(unknown, 0, "data");
    const std::string outside = ntfs.fingerprint(place / L"outside");
    // After the listing has shown a directory, a link is put in its place.
    ntfs.onOpen(at(L"wwwroot\\dir"), 1, [&] {
        EXPECT_TRUE(ntfs.swapForLink(at(L"wwwroot\\dir"), unixPath(place / L"outside")));
    });
    Recorder recorder;
    repair(recorder);
    EXPECT_EQ(ntfs.fingerprint(place / L"outside"), outside);
    const auto subject = manager();
    for (const std::wstring& path : {junction, link, dedup}) {
        EXPECT_FALSE(recorder.errors.contains(nice(path)));
        const std::wstring text = ntfs.security(path);
        EXPECT_EQ(text.substr(text.find(L"D:")), subject->getSecurityInformation(path));
    }
    for (const std::wstring& path : {hard, own, at(L"wwwroot\\own2"), at(L"wwwroot\\dir")}) {
        EXPECT_TRUE(recorder.errors.contains(nice(path))) << toUtf8(path);
    }
    EXPECT_NE(recorder.errors[nice(hard)].find(L"more names"), std::wstring::npos);
    // While a walk is inside, a directory cannot be replaced.
    ntfs.onOpen(at(L"wwwroot\\page"), 1, [&] {
        EXPECT_FALSE(ntfs.swapForLink(at(L"wwwroot"), unixPath(place / L"outside")));
    });
    repair(recorder);
    // A file with several names is no error while all is well with it.
    const std::wstring right = ntfs.security(at(L"wwwroot\\page"));
    ntfs.setSecurity(own, right);
    Recorder well;
    repair(well);
    EXPECT_FALSE(well.errors.contains(nice(own)));
    EXPECT_EQ(ntfs.openHandles(place.path()), 0);
}

TEST_F(HostingSafetyTest, OnlyRootsBelowTheVirtualHostsAreTaken) {
    place.makeDirectory(L"vhosts2\\d2");
    ASSERT_TRUE(unixSymlink(unixPath(place / L"vhosts2"), at(L"way")));
    ASSERT_TRUE(unixSymlink(unixPath(place / L"vhosts"), place / L"alias"));
    for (const std::wstring& path :
         {place / L"vhosts", place / L"vhosts2\\d2", place.path(), at(L"way"), at(L"way\\d2"),
          place.nice() + L"\\vhosts\\d1\\..\\..\\vhosts2\\d2"}) {
        EXPECT_THROW(SecurityManager{path}, RootCorrelationException) << toUtf8(path);
    }
    EXPECT_THROW(SecurityManager{at(L"gone")}, VFileNotFoundException);
    std::vector<std::wstring> lines;
    const auto listening = LogManager::getInstance().addListener(
        [&](LogType, const std::wstring& line) { lines.push_back(line); });
    RegistryOverride::setString(L"HTTPD_VHOSTS_D", place / L"alias");
    SecurityManager subject(place.nice() + L"\\alias\\d1\\");
    Recorder recorder;
    subject.commit(recorder, CommitMode::Report, true, false);
    EXPECT_EQ(lines,
              (std::vector{L"Root path is " + nice(root),
                           L"Commiting file system security changes for root path " + nice(root),
                           std::wstring(L"File system security changes applied successfully")}));
    EXPECT_EQ(subject.getDomainName(), L"d1");
    EXPECT_EQ(subject.getRootRelativePath(place / L"alias\\d1"), L"");
    EXPECT_EQ(subject.getRootRelativePath(make(L"logs\\a.log")), L"logs\\a.log");
    EXPECT_EQ(subject.getRootRelativePath(at(L"way")), L"way"); // the link, not where it leads
    EXPECT_THROW(subject.getRootRelativePath(at(L"way\\d2")), RootCorrelationException);
    EXPECT_THROW(subject.getRootRelativePath(secret), RootCorrelationException);
    EXPECT_EQ(SecurityManager(place.makeDirectory(L"vhosts\\d3\\webusers\\w1")).getDomainName(),
              L"d3");
}

TEST_F(HostingSafetyTest, FastLooksAtWhatTheTemplateNamesAndNothingElse) {
    const std::wstring named[] = {root, at(L"wwwroot"), at(L"subdomains\\a\\wwwroot"), at(L"tmp")};
    const std::wstring others[] = {make(L"wwwroot\\page"), make(L"subdomains\\a\\wwwroot\\page"),
                                   make(L"other\\page"),   at(L"subdomains\\a"),
                                   make(L"tmp\\x"),        make(L"webusers\\w1\\page")};
    for (const bool descend : {true, false}) {
        for (const auto* paths : {named, others}) {
            for (std::size_t i = 0; i < std::size(named); ++i) {
                ntfs.setSecurity(paths[i], everybody);
            }
        }
        Recorder recorder;
        repair(recorder, descend ? CommitMode::Fast : CommitMode::Repair, descend);
        EXPECT_TRUE(recorder.errors.empty());
        for (const std::wstring& path : named) {
            EXPECT_TRUE(recorder.differences.contains(nice(path))) << toUtf8(path);
            EXPECT_NE(recorder.differences[nice(path)].find(L"not expected: Everyone"),
                      std::wstring::npos);
            EXPECT_NE(ntfs.security(path), everybody);
        }
        for (std::size_t i = 0; i < std::size(named); ++i) {
            EXPECT_EQ(ntfs.security(others[i]), everybody) << toUtf8(others[i]);
        }
    }
    ntfs.setSecurity(others[5], everybody); // of another hosting
    Recorder all;
    repair(all);
    EXPECT_EQ(ntfs.security(others[5]), everybody);
    EXPECT_NE(ntfs.security(others[0]), everybody);
}

// A domain controller would be asked for each of them.
TEST_F(HostingSafetyTest, ListsFullOfStrangersAreToldInShort) {
    int stranger = 0;
    std::wstring last;
    for (int file = 0; file < 40; ++file) {
        std::wstring list = L"O:BAG:SYD:";
        for (int i = 0; i < 30; ++i) {
            list += L"(A;;FR;;;S-1-5-21-7-7-7-" + std::to_wstring(++stranger) + L")";
        }
        last = make(L"f" + std::to_wstring(file + 10));
        ntfs.setSecurity(last, list);
    }
    Recorder recorder;
    const auto calls = countCalls([&] { repair(recorder, CommitMode::Report); });
    EXPECT_LT(calls.at("LookupAccountSidW"), 1500);
    const std::wstring text = recorder.differences[nice(last)];
    EXPECT_NE(text.find(L"not expected: (A;;FR;;;S-1-5-21-7-7-7-"), text.npos) << toUtf8(text);
    EXPECT_NE(text.find(L"not expected: 10 more entries"), text.npos);
}

TEST_F(HostingSafetyTest, ACancelledUndoGoesOnWhereItStopped) {
    for (const wchar_t* name : {L"a", L"wwwroot\\b", L"wwwroot\\c"}) {
        ntfs.setSecurity(make(name), everybody);
    }
    const std::string before = ntfs.fingerprint(root);
    const auto subject = manager();
    Recorder recorder;
    subject->commit(recorder, CommitMode::Repair, true, false);
    class Canceller : public Recorder {
    public:
        void onItem(const std::wstring&) override {
            ThreadCancelation::request(::GetCurrentThreadId());
        }
    } canceller;
    EXPECT_THROW(undo(subject->getUndoFile(), canceller), CanceledException);
    EXPECT_NE(ntfs.fingerprint(root), before);
    EXPECT_GT(undo(subject->getUndoFile(), recorder).unchanged, 0u);
    EXPECT_EQ(ntfs.fingerprint(root), before);
}

TEST_F(HostingSafetyTest, DeepTreesAreWalked) {
    std::wstring name;
    for (int depth = 0; depth < 250; ++depth) {
        name += L"d\\";
    }
    const std::wstring file = make(name + L"page");
    ntfs.setSecurity(file, everybody);
    Recorder recorder;
    repair(recorder);
    EXPECT_NE(ntfs.security(file), everybody);
    EXPECT_TRUE(recorder.errors.empty());
}

TEST_F(HostingSafetyTest, WhateverCallFailsNoItemHasMoreThanBeforeOrByTheTemplate) {
    const std::wstring items[] = {root, at(L"wwwroot"), at(L"logs"), make(L"wwwroot\\page"),
                                  make(L"logs\\log")};
    const std::wstring before[] = {
        L"O:BAG:SYD:AI(A;OICIID;FA;;;SY)", L"O:BAG:SYD:NO_ACCESS_CONTROL",
        L"O:BAG:SYD:AI(A;OICI;FA;;;WD)",   L"O:BAG:SYD:P(A;;FA;;;SY)",
        L"O:BAG:SYD:AI(A;;FA;;;WD)",
    };
    const auto damage = [&] {
        for (std::size_t i = 0; i < std::size(items); ++i) {
            ntfs.setSecurity(items[i], before[i]);
        }
    };
    damage();
    Recorder first;
    repair(first);
    std::vector<std::wstring> after;
    for (const std::wstring& item : items) {
        after.push_back(ntfs.security(item));
    }
    long calls = 0;
    for (long n = 1, fired = 1; fired; ++n) {
        damage();
        Recorder recorder;
        undoFile.clear();
        const FaultOutcome outcome = runWithFault(n, ERROR_IO_DEVICE, [&] { repair(recorder); });
        SCOPED_TRACE(outcome.text());
        fired = outcome.fired;
        bool whole = true;
        for (std::size_t i = 0; i < std::size(items); ++i) {
            const std::wstring now = ntfs.security(items[i]);
            ASSERT_TRUE(now == before[i] || now == after[i])
                << toUtf8(items[i] + L" " + now + L" " + after[i]);
            whole &= now == after[i];
        }
        // What stayed wrong has been told, one way or the other.
        EXPECT_TRUE(whole || !outcome.error.empty() || !recorder.errors.empty());
        ASSERT_EQ(ntfs.openHandles(place.path()), 0);
        // What was replaced had been kept.
        if (!undoFile.empty()) {
            try {
                undo(undoFile, recorder, true);
            } catch (const UndoFileException&) { // it was not even begun
            }
        }
        for (std::size_t i = 0; i < std::size(items); ++i) {
            ASSERT_EQ(ntfs.security(items[i]), before[i]);
        }
        repair(recorder);
        for (std::size_t i = 0; i < std::size(items); ++i) {
            ASSERT_EQ(ntfs.security(items[i]), after[i]);
        }
        calls = n;
    }
    EXPECT_GT(calls, 60);
}

TEST_F(HostingSafetyTest, RootsAreRenamedBelowTheVirtualHostsOnly) {
    make(L"page");
    place.makeDirectory(L"vhosts\\d2");
    EXPECT_THROW(renameHostingByFullPath(root, place / L"vhosts\\d2"), vosexception);
    EXPECT_THROW(renameHostingByFullPath(root, place / L"d9"), RootCorrelationException);
    EXPECT_THROW(renameHostingByFullPath(place / L"outside", at(L"x")), RootCorrelationException);
    renameHostingByFullPath(root, place.nice() + L"\\vhosts\\d3\\");
    EXPECT_TRUE(place.has(L"vhosts\\d3\\page"));
    EXPECT_FALSE(place.has(L"vhosts\\d1"));
    const std::array<const wchar_t*, 3> combined[] = {
        {L"C:\\a\\", L"b/c\\", L"C:\\a\\b\\c"},
        {L"C:/a", L"\\b\\\\c", L"C:\\a\\b\\c"},
        {L"C:\\a", L"D:/b//c", L"D:\\b\\c"},
        {L"\\\\s\\x", L"b", L"\\\\s\\x\\b"},
        {L"C:\\a\\", L"", L"C:\\a"},
        {L"", L"b", L"b"},
        {L"C:\\", L"b", L"C:\\b"},
    };
    for (const auto& [directory, path, whole] : combined) {
        EXPECT_EQ(smartCombinePaths(directory, path), whole);
    }
}

} // namespace HostingSecurity
