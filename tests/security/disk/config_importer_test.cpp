#include "security/disk/config_importer.h"

#include "security/disk/policy_names.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/policy_xml.h"
#include "tests/support/temp_directory.h"

namespace DiskSecurity {

namespace {

class ConfigImporterTest : public ::testing::Test {
protected:
    std::shared_ptr<FakeLookup> lookup = std::make_shared<FakeLookup>();
    ConfigImporter importer{lookup};

    PolicyEntry importOne(const Attributes& changes) {
        const std::vector<PolicyEntry> entries =
            importer.importBytes(policyXml(entryXml(changes)), L"C:\\p.xml");
        EXPECT_EQ(1u, entries.size());
        return entries.empty() ? PolicyEntry() : entries.front();
    }

    // The message, a colon and the functions of the frames.
    std::string failure(const std::string& xml) {
        try {
            importer.importBytes(xml, L"C:\\p.xml");
        } catch (const vexception& e) {
            std::string text = toUtf8(e.message()) + ":";
            for (const vexception::CallStackInfo& frame : e.frames()) {
                text += " " + frame.function.substr(frame.function.rfind(':') + 1) + "(" +
                        toUtf8(frame.text) + ")";
            }
            return text;
        }
        return "nothing was thrown";
    }
};

TEST_F(ConfigImporterTest, EntryHasAllThatItsAttributesSay) {
    lookup->sids[L"HOME\\alice"] = L"S-1-5-21-1-2-3-1001";
    const PolicyEntry entry = importOne({{"AccounType", "0x2"},
                                         {"Account", "alice"},
                                         {"Domain", "HOME"},
                                         {"Path", "[HTTPD_VHOSTS_D]\\&#x416; &amp; b"},
                                         {"SubPath", "c\\d"},
                                         {"AccessMask", "Modify"},
                                         {"AceFlags", "SubfoldersAndFilesOnly"},
                                         {"EntryFlags", "0x10"},
                                         {"Tag", "one"},
                                         {"Tag2", "&quot;two&quot;"}});
    EXPECT_EQ(std::make_tuple(2u, L"alice", L"HOME", L"S-1-5-21-1-2-3-1001",
                              L"[HTTPD_VHOSTS_D]\\\u0416 & b", L"c\\d", 0x001301BFu, 11, 16u,
                              L"one", L"\"two\""),
              fieldsOf(entry));
}

TEST_F(ConfigImporterTest, SidStandsInForANameThatIsNotToldOrNotKnown) {
    lookup->sids[L"\\bob"] = L"S-1-5-21-1-2-3-1002";
    const auto sidOf = [&](const char* account, const char* sid) {
        return importOne({{"AccounType", "1"}, {"Account", account}, {"SidStr", sid}})
            .account.sid.string();
    };
    EXPECT_EQ(L"S-1-5-21-1-2-3-1002", sidOf("bob", "S-1-5-21-9-9-9-9")); // the name rules
    EXPECT_EQ(L"S-1-5-21-9-9-9-9", sidOf("eve", "S-1-5-21-9-9-9-9"));
    EXPECT_EQ(L"S-1-5-21-9-9-9-9", sidOf("", "S-1-5-21-9-9-9-9"));
    lookup->calls = 0;
    std::string entries;
    for (const char* account : {"bob", "eve", "bob", "eve"}) {
        entries += entryXml({{"AccounType", "1"}, {"Account", account}, {"SidStr", "S-1-5-18"}});
    }
    EXPECT_EQ(4u, importer.importBytes(policyXml(entries), L"p.xml").size());
    EXPECT_EQ(2, lookup->calls) << "an account, a missing one too, is looked up once a file";
}

// The system's own lookup, over accounts that every system has.
TEST_F(ConfigImporterTest, SystemFindsItsAccountsByName) {
    const RunTime::Sid administrators(L"S-1-5-32-544");
    EXPECT_EQ(administrators,
              SystemAccountLookup().lookup(administrators.accountName(), administrators.domain()));
    SystemAccountLookup users({}, true);
    EXPECT_THROW(users.lookup(administrators.accountName(), administrators.domain()),
                 VNoneMappedException);
    for (const wchar_t* name : {L"", L"no such account here", L"a\\b\\c"}) {
        expectError<VNoneMappedException>(
            ERROR_NONE_MAPPED, L"Unable to look up the account (" + std::wstring(name) + L")",
            [&] { SystemAccountLookup().lookup(name, L""); });
    }
}

TEST_F(ConfigImporterTest, FailureNamesTheWayFromTheAttributeToTheFile) {
    const std::string tail = " load(Unable to load entry from XML)"
                             " startElement(Unable to load XML node)"
                             " startElement(Unable to call startElement())"
                             " importFile(\"C:\\p.xml\", line 3, column 3)";
    const auto with = [&](const char* name, const char* value) {
        return failure("<a>\n  " + entryXml() + "\n  " + entryXml({{name, value}}) + "</a>");
    };
    EXPECT_EQ("Unknown access mask: modify, known names are:\nNoAccess\nRead\nReadAndExecute\n"
              "ReadAndDelete\nReadWrite\nModify\nFullAccess\nFileRemovable\nFileNonRemovable\n"
              "FtpSubaccountsNonRemovable\nSpecialModify: loadAccessMask()" +
                  tail,
              with("AccessMask", "modify"));
    EXPECT_EQ("Unknown ace flags: , known names are:\nThisObjectOnly\nThisFolderAndFiles\n"
              "ThisFolderAndSubfolders\nThisFolderSubfoldersAndFiles\nFilesOnly\nSubfoldersOnly\n"
              "SubfoldersAndFilesOnly: loadAceFlags()" +
                  tail,
              with("AceFlags", ""));
    std::string accounts = "Unknown account name: Nobody, known names are:";
    for (const AccountName& row : accountNames()) {
        accounts += "\n" + toUtf8(row.name);
    }
    EXPECT_EQ(accounts + ": wellKnownSid() loadAccount()" + tail, with("Account", "Nobody"));
    EXPECT_EQ("Unable to convert from '12a' to integer type.: toInteger()" + tail,
              with("EntryFlags", "12a"));
    EXPECT_EQ("Unable to convert from '' to integer type.: toInteger() loadAccount()" + tail,
              with("AccounType", ""));
    EXPECT_EQ(toUtf8(systemMessageOf(ERROR_NONE_MAPPED, L"fake")) + ": lookup() loadAccount()" +
                  tail,
              with("AccounType", "1"));
    for (const char* name : {"AccounType", "Path", "AccessMask", "AceFlags"}) {
        EXPECT_EQ(0u,
                  with(name, "(none)").find("The attribute " + std::string(name) + " is missing"));
    }
    EXPECT_EQ(0u, with("Subpath", "x").find("Unknown attribute: Subpath, known names are:\nAcco"));
}

TEST_F(ConfigImporterTest, OtherElementsAndAttributesOfOthersArePassedOver) {
    const std::string xml = "<p:any xmlns:p='urn:p' x='1'>text &amp; <![CDATA[<Entry/>]]>"
                            "<!-- <Entry/> --><?pi <Entry/>?><entry/><Group><p:Path/>" +
                            entryXml({{"p:note", "n"}, {"xmlns:q", "urn:q"}}) + "</Group></p:any>";
    EXPECT_EQ(1u, importer.importBytes(xml, L"p.xml").size());
}

TEST_F(ConfigImporterTest, FileIsReadWhereverItLiesAndNothingIsKeptOfAFailure) {
    const TempDirectory directory;
    std::wstring deep;
    for (int i = 0; i < 30; ++i) {
        deep += L"a rather long name\\";
    }
    const std::wstring path = directory.writeFile(deep + L"p.xml", policyXml(entryXml()));
    ASSERT_GT(path.size(), 500u);
    EXPECT_EQ(1u, importer.importFile(path).size());
    directory.writeFile(L"broken.xml", entryXml() + "<");
    EXPECT_THROW(importer.importFile(directory / L"broken.xml"), vosexception);
    std::set<std::string> failing;
    for (long n = 1, fired = 1; fired != 0; ++n) { // whichever call fails
        std::size_t count = 0;
        const FaultOutcome outcome = runWithFault(n, ERROR_SHARING_VIOLATION, [&] {
            count = ConfigImporter(lookup).importFile(path).size();
        });
        fired = outcome.fired ? 1 : 0;
        EXPECT_NE(outcome.error.empty(), count == 0) << outcome.text();
        failing.insert(outcome.error.empty() ? "" : outcome.function);
    }
    EXPECT_TRUE(failing.contains("ReadFile, call 1")) << failing.size();
    EXPECT_EQ(1u, importer.importFile(path).size());
    const std::wstring missing = directory.nice() + L"\\missing.xml";
    EXPECT_THROW(importer.importFile(missing), VFileNotFoundException);
    expectError<vexception>(L"A directory is no policy file (" + directory.nice() + L")",
                            [&] { importer.importFile(directory.path()); });
}

TEST_F(ConfigImporterTest, CheckReportsEveryErrorWithItsPlace) {
    const std::string xml = "<DiskSecurity>\r\n" + entryXml() + "\r\n\t" +
                            entryXml({{"AccessMask", "Modfy"},
                                      {"AceFlags", "none"},
                                      {"Account", "Nobody"},
                                      {"Path", "[WINDOWS]"},
                                      {"Subpath", ""},
                                      {"EntryFlags", "-1"}}) +
                            "\r\n<\xC3\x84/>" + entryXml({{"Path", "C:\\a\\..\\b"}}) +
                            "</DiskSecurity>";
    const ConfigImporter::Report report = importer.checkBytes(xml);
    EXPECT_EQ(1u, report.entries.size());
    std::string found;
    for (const PolicyProblem& problem : report.problems) {
        found += std::to_string(static_cast<int>(problem.kind)) + " " +
                 std::to_string(problem.position.line) + ":" +
                 std::to_string(problem.position.column) + " " + toUtf8(problem.value) + "\n";
    }
    EXPECT_EQ("3 3:2 \n4 3:2 Nobody\n5 3:2 [WINDOWS]\n6 3:2 Modfy\n7 3:2 none\n8 3:2 -1\n"
              "5 4:5 C:\\a\\..\\b\n",
              found);
    // Of a text that is not XML there is one error, and what came before it.
    const ConfigImporter::Report broken =
        importer.checkBytes("<a>" + entryXml({{"AccessMask", "x"}}) + entryXml() + "</b>");
    ASSERT_EQ(2u, broken.problems.size());
    EXPECT_EQ(ProblemKind::AccessMask, broken.problems[0].kind);
    EXPECT_EQ(ProblemKind::Xml, broken.problems[1].kind);
    EXPECT_EQ(1, broken.problems[1].position.line);
    EXPECT_EQ(1u, broken.entries.size());
    EXPECT_EQ(ProblemKind::File, importer.checkFile(L"C:\\no such.xml").problems.at(0).kind);
}

} // namespace

} // namespace DiskSecurity
