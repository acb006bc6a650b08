#include "tests/security/hosting/hosting_fixture.h"

#include "runtime/files/path.h"
#include "runtime/text.h"
#include "security/acl.h"
#include "tests/support/fault_sweep.h"

#include <algorithm>
#include <random>
#include <ranges>
#include <tuple>

namespace HostingSecurity {

namespace {

using DiskSecurity::PolicyEntry;

// Inheritance once more, in the simplest way: an entry is a row, a list is a bag of rows.
using Row = std::tuple<bool, int, DWORD, std::wstring>; // denies, flags, mask, account
using Bag = std::multiset<Row>;

constexpr int id = INHERITED_ACE;

Bag handedDown(const Bag& above, bool directory, const std::wstring& owner) {
    Bag rows;
    for (const auto& [denies, flags, mask, account] : above) {
        const bool counts = (flags & (directory ? CONTAINER_INHERIT_ACE : OBJECT_INHERIT_ACE)) != 0;
        const bool goesOn = directory && (flags & 3) != 0;
        const bool creator = account == L"S-1-3-0";
        if (counts && (!goesOn || creator)) {
            rows.emplace(denies, id, mask, creator ? owner : account);
        }
        if (goesOn) {
            const int only = counts && !creator ? 0 : INHERIT_ONLY_ACE;
            rows.emplace(denies, (flags & 3) | only | id, mask, account);
        }
    }
    return rows;
}

bool fits(std::wstring pattern, const std::wstring& path) {
    const std::vector<std::wstring> names = {L"a", L"b", L"c"}; // of subdomains
    for (const std::wstring& name : names) {
        std::wstring tried = pattern;
        const std::size_t star = tried.find(L'*');
        if (star != tried.npos) {
            tried.replace(star, 1, name);
        }
        if (tried == path) {
            return true;
        }
    }
    return false;
}

struct Wanted {
    bool isProtected = false;
    Bag rows;
};

Wanted wantedOf(const std::vector<PolicyEntry>& entries, const std::wstring& path, const Bag& above,
                bool directory, const std::wstring& owner) {
    Wanted wanted;
    for (const PolicyEntry& entry : entries) {
        const std::wstring whole = entry.path.substr(6) + entry.subPath;
        if (!fits(whole.empty() ? whole : whole.substr(1), path)) {
            continue;
        }
        wanted.isProtected |= (entry.entryFlags & 2) != 0;
        if (entry.account.sid && (directory || entry.aceFlags < INHERIT_ONLY_ACE)) {
            wanted.rows.emplace((entry.entryFlags & 1) != 0, directory ? entry.aceFlags : 0,
                                entry.accessMask, entry.account.sid.string());
        }
    }
    if (!wanted.isProtected) {
        wanted.rows.merge(handedDown(above, directory, owner));
    }
    return wanted;
}

std::wstring daclOf(const std::wstring& sddl) {
    const std::size_t begin = sddl.find(L"D:");
    return sddl.substr(begin, sddl.find(L"S:", begin + 2) - begin);
}

// A list by its text, and whether its order is one that Windows' tools take for right.
bool holds(const std::wstring& sddl, const Wanted& wanted) {
    const std::wstring dacl = daclOf(sddl);
    if (dacl.find(L"NO_ACCESS") != dacl.npos) {
        return false;
    }
    const RunTime::Acl list = RunTime::Acl::fromSddl(dacl);
    Bag rows;
    for (const RunTime::Ace ace : list) {
        RunTime::Sid account;
        account.copy(ace.sid());
        rows.emplace(ace.effect() == RunTime::AceEffect::Denies, ace.flags(), ace.mask(),
                     account.string());
    }
    return rows == wanted.rows && !firstOutOfOrder(list) &&
           (dacl.substr(0, dacl.find(L'(')).find(L'P') != dacl.npos) == wanted.isProtected;
}

const std::wstring owners[] = {L"S-1-5-21-1-2-3-1001", L"S-1-5-32-544"};

class SecurityManagerTest : public HostingFixture {
protected:
    // Directories and files below the root at random, some of those that the template names.
    void grow(std::size_t count, std::mt19937& random) {
        std::vector<std::wstring> directories = {L""};
        for (const wchar_t* name :
             {L"wwwroot", L"wwwroot\\App_Data", L"logs", L"private", L"conf", L"subdomains",
              L"subdomains\\a", L"subdomains\\a\\wwwroot", L"subdomains\\b", L"tmp"}) {
            ::CreateDirectoryW(at(name).c_str(), nullptr);
            directories.emplace_back(name);
        }
        items = std::map<std::wstring, bool>();
        for (const std::wstring& name : directories) {
            items[name] = true;
        }
        while (items.size() < count) {
            const std::wstring& above = directories[random() % directories.size()];
            const bool directory = random() % 8 == 0;
            const std::wstring name = (above.empty() ? L"" : above + L"\\") +
                                      (directory ? L"d" : L"f") + std::to_wstring(items.size());
            if (directory) {
                ::CreateDirectoryW(at(name).c_str(), nullptr);
                directories.push_back(name);
            } else {
                place.writeFile(L"vhosts\\d1\\" + name, "x");
            }
            items[name] = directory;
        }
    }

    void damage(std::mt19937& random, unsigned oneIn) {
        const std::wstring lists[] = {
            L"NO_ACCESS_CONTROL",
            L"D:",
            L"D:(A;OICI;FA;;;WD)",
            L"D:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)",
            L"D:AI(A;ID;FA;;;SY)(A;ID;FA;;;BA)(A;OICIID;0x1301bf;;;S-1-5-21-1-2-3-1001)",
            L"D:AI(D;;FA;;;S-1-5-21-1-2-3-1001)(A;OICIID;FA;;;SY)(A;OICIID;FA;;;BA)",
            L"D:(A;OICIIO;GA;;;CO)(A;;FR;;;S-1-5-21-9-9-9-5000)",
        };
        for (const auto& [name, directory] : items) {
            if (random() % oneIn == 0) {
                const std::wstring list = lists[random() % std::size(lists)];
                ntfs.setSecurity(at(name), L"O:" + owners[random() % 2] + L"G:SY" +
                                               (list.front() == L'D' ? list : L"D:" + list) +
                                               L"S:(AU;SA;FA;;;WD)");
            }
        }
    }

    // Items that are not as an independent reading of the template wants them.
    std::set<std::wstring> wrongItems(const std::vector<PolicyEntry>& entries) {
        std::set<std::wstring> wrong;
        std::map<std::wstring, Bag> bags; // of directories; they come before what is in them
        for (const auto& [name, directory] : items) {
            const std::wstring sddl = ntfs.security(at(name));
            const std::wstring owner = RunTime::Sid(sddl.substr(2, sddl.find(L"G:") - 2)).string();
            const Wanted wanted =
                wantedOf(entries, name, bags[RunTime::parentPath(name)], directory, owner);
            if (!holds(sddl, wanted)) {
                wrong.insert(nice(at(name)));
            }
            if (directory) {
                bags[name] = wanted.rows;
            }
        }
        return wrong;
    }

    std::map<std::wstring, bool> items; // below the root; whether it is a directory
};

std::set<std::wstring> keysOf(const std::map<std::wstring, std::wstring>& map) {
    const auto keys = std::views::keys(map);
    return {keys.begin(), keys.end()};
}

} // namespace

TEST_F(SecurityManagerTest, ARandomlyDamagedTreeIsRepairedToTheTemplateAndBack) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    grow(5000, random);
    ASSERT_EQ(items.size(), 5000u);
    // Entries for the creator besides, which depend on who owns an item.
    std::string xml = "<t>" + entryXml({{"Account", "CreatorOwner"},
                                        {"Path", "[Root]\\wwwroot"},
                                        {"AceFlags", "SubfoldersAndFilesOnly"}});
    {
        manager()->saveToFile(place / L"own.xml");
        std::string own = place.readFile(L"own.xml");
        const std::size_t end = own.find("</HostingSecurity>");
        xml = own.insert(end, xml.substr(3));
    }
    const auto subject = manager(xml);
    const std::vector<PolicyEntry> entries = subject->_expandTemplate();
    Recorder first;
    subject->commit(first, CommitMode::Repair, true, true);
    EXPECT_EQ(first.items.size(), items.size());
    EXPECT_TRUE(first.errors.empty());
    EXPECT_EQ(wrongItems(entries), std::set<std::wstring>());

    damage(random, 3);
    const std::string damaged = ntfs.fingerprint(root);
    const std::set<std::wstring> wrong = wrongItems(entries);
    Recorder report;
    subject->commit(report, CommitMode::Report, true, false);
    EXPECT_EQ(keysOf(report.differences), wrong);
    EXPECT_EQ(report.items.size(), wrong.size());
    EXPECT_EQ(ntfs.fingerprint(root), damaged);
    EXPECT_EQ(subject->getUndoFile(), L"");

    Recorder repair;
    const auto calls = countCalls([&] { subject->commit(repair, CommitMode::Repair, true, true); });
    EXPECT_EQ(keysOf(repair.differences), wrong);
    EXPECT_EQ(calls.at("SetKernelObjectSecurity"), static_cast<long>(wrong.size()));
    EXPECT_EQ(wrongItems(entries), std::set<std::wstring>());
    const std::wstring undoFile = subject->getUndoFile();
    ASSERT_NE(undoFile, L"");

    Recorder again;
    const auto quiet = countCalls([&] { subject->commit(again, CommitMode::Repair, true, false); });
    EXPECT_FALSE(quiet.contains("SetKernelObjectSecurity"));
    EXPECT_FALSE(quiet.contains("WriteFile"));
    EXPECT_TRUE(again.items.empty());

    const std::string repaired = ntfs.fingerprint(root);
    Recorder undone;
    const UndoCounts counts = undo(undoFile, undone);
    EXPECT_EQ(counts.restored, wrong.size());
    EXPECT_EQ(counts.passedOver, 0u);
    EXPECT_EQ(ntfs.fingerprint(root), damaged);
    EXPECT_EQ(undo(undoFile, undone).unchanged, wrong.size());
    EXPECT_NE(ntfs.fingerprint(root), repaired);
}

} // namespace HostingSecurity
