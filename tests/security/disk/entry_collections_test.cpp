#include "security/disk/entry_collections.h"

#include "security/disk/config_importer.h"
#include "security/disk/policy_names.h"
#include "tests/support/expect_error.h"
#include "tests/support/policy_xml.h"
#include "tests/support/registry_override.h"

#include <random>

namespace DiskSecurity {

namespace {

class EntryCollectionsTest : public ::testing::Test {
protected:
    ConfigImporter importer{std::make_shared<FakeLookup>()};
};

TEST_F(EntryCollectionsTest, ImportOfAnExportIsWhatWasExported) {
    std::mt19937 random(20);
    const auto below = [&](std::size_t limit) {
        return static_cast<std::size_t>(random()) % limit;
    };
    const std::wstring letters[] = {L"<",  L">",   L"&",    L"\"",     L"'",     L"\t",
                                    L"\n", L"\r",  L"\r\n", L" ",      L"a",     L"Ж",
                                    L"😀",  L"]]>", L"&lt;", L"\uFFFD", L"\u0085"};
    const auto text = [&] {
        std::wstring result;
        for (std::size_t n = below(12); n > 0; --n) {
            result += letters[below(std::size(letters))];
        }
        return result;
    };
    std::vector<PolicyEntry> entries(2'000);
    for (PolicyEntry& entry : entries) {
        entry.account.type = below(2) == 0 ? 0 : random() | 1u;
        if (entry.account.type == 0) {
            const AccountName& row = accountNames()[below(accountNames().size())];
            entry.account.name = row.name;
            entry.account.sid =
                row.sid ? RunTime::Sid(std::wstring(row.sid)) : RunTime::Sid(nullptr, row.rid);
        } else { // nobody knows the name: the SID stands in
            entry.account.name = text();
            entry.account.domain = text();
            entry.account.sid = RunTime::Sid(L"S-1-5-21-" + std::to_wstring(random()));
        }
        entry.path = below(2) == 0 ? L"[Windows]\\&a '" : L"C:\\&a '";
        entry.path += std::to_wstring(random());
        if (below(3) != 0) {
            entry.subPath = L"ü & 😀\\b";
            entry.subPath += std::to_wstring(random());
        }
        entry.accessMask = accessNames()[below(accessNames().size())].value;
        entry.aceFlags = aceFlagsNames()[below(aceFlagsNames().size())].value;
        entry.entryFlags = static_cast<std::uint32_t>(random());
        entry.tag = text();
        entry.tag2 = text();
    }
    const std::vector<PolicyEntry> imported =
        importer.importBytes(exportEntries(entries), L"p.xml");
    ASSERT_EQ(entries.size(), imported.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
        ASSERT_EQ(fieldsOf(entries[i]), fieldsOf(imported[i])) << "entry " << i;
    }
}

TEST_F(EntryCollectionsTest, WhatAFileCannotHoldIsNotExported) {
    const PolicyEntry good = importer.importBytes(policyXml(entryXml()), L"p.xml").at(0);
    const auto refused = [&](const wchar_t* message, auto change) {
        PolicyEntry entry = good;
        change(entry);
        expectError<ArgumentException>(message, [&] { exportEntries({&entry, 1}); });
    };
    refused(L"The access mask 0x00000002 has no name", [](PolicyEntry& e) { e.accessMask = 2; });
    refused(L"The ACE flags 16 have no name", [](PolicyEntry& e) { e.aceFlags = 16; });
    refused(L"XML has no character 0001", [](PolicyEntry& e) { e.tag = L"\x01"; });
    refused(L"Half a character cannot be written: \xD83D",
            [](PolicyEntry& e) { e.tag = L"\xD83D"; });
}

TEST_F(EntryCollectionsTest, EntriesAreGatheredPerPathAsTheFileSystemComparesIt) {
    const RegistryOverride registry;
    RegistryOverride::setString(L"HTTPD_VHOSTS_D", L"d:\\Vhosts");
    PathVariables variables;
    std::string xml;
    const char* const paths[][2] = {{"D:\\vhosts", "a"},
                                    {"[HTTPD_VHOSTS_D]", "A"},
                                    {"D:\\VHOSTS\\A\\", ""},
                                    {"D:\\vhosts", ""},
                                    {"D:\\", ""}};
    for (const auto& path : paths) {
        xml += entryXml({{"Path", path[0]}, {"SubPath", path[1]}, {"Tag", path[0]}});
    }
    std::string found;
    for (const auto& [path, entries] :
         collectEntries(importer.importBytes(policyXml(xml), L"p.xml"), variables)) {
        found += toUtf8(path) + ":";
        for (const PolicyEntry& entry : entries) {
            found.append(" ").append(toUtf8(entry.tag));
        }
        found += "\n";
    }
    EXPECT_EQ("D:\\: D:\\\nD:\\vhosts: D:\\vhosts\n"
              "D:\\vhosts\\a: D:\\vhosts [HTTPD_VHOSTS_D] D:\\VHOSTS\\A\\\n",
              found);
}

} // namespace

} // namespace DiskSecurity
