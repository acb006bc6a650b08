// What a policy file must not be able to do: read other files, hang, fill memory, hide from the
// checks in another encoding, or end the process.
#include "security/disk/config_importer.h"

#include "runtime/files/path.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/mutator.h"
#include "tests/support/policy_xml.h"
#include "tests/support/temp_directory.h"

namespace DiskSecurity {

namespace {

std::string utf16(std::string_view text, bool bigEndian, bool mark) {
    std::string bytes;
    for (const wchar_t c : (mark ? L"\xFEFF" : L"") + toWide(text)) {
        const char low = static_cast<char>(c & 0xFF);
        const char high = static_cast<char>(c >> 8);
        bytes += bigEndian ? high : low;
        bytes += bigEndian ? low : high;
    }
    return bytes;
}

std::string many(int count, std::string_view text) {
    std::string result;
    for (int i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

class HostilePolicyTest : public ::testing::Test {
protected:
    ConfigImporter importer{std::make_shared<FakeLookup>()};

    // The kind of the only error; -1 for none, and a failure for more than one.
    int onlyProblem(const std::string& bytes, const char* what = "") {
        const ConfigImporter::Report report = importer.checkBytes(bytes);
        EXPECT_LE(report.problems.size(), 1u) << what;
        return report.problems.empty() ? -1 : static_cast<int>(report.problems.front().kind);
    }
};

TEST_F(HostilePolicyTest, EveryEncodingIsReadAsTheSameText) {
    const std::string head = "<?xml version='1.0' encoding='";
    const std::string xml = policyXml(entryXml({{"Tag", "\xC3\xA4\xD0\x96\xF0\x9F\x98\x80"}}));
    const std::string latin = policyXml(entryXml({{"Tag", "\xE4"}}));
    const std::string cyrillic = policyXml(entryXml({{"Tag", "\xC6"}}));
    const std::pair<std::string, const wchar_t*> cases[] = {
        {xml, L"äЖ😀"},
        {"\xEF\xBB\xBF" + xml, L"äЖ😀"},
        {head + "utf-8'?>" + xml, L"äЖ😀"},
        {"\xEF\xBB\xBF" + head + "UTF-8' standalone='yes'?>" + xml, L"äЖ😀"},
        {utf16(xml, false, true), L"äЖ😀"},
        {utf16(xml, true, true), L"äЖ😀"},
        {utf16(head + "utf-16'?>" + xml, false, true), L"äЖ😀"},
        {utf16(head + "utf-16'?>" + xml, true, false), L"äЖ😀"},
        {head + "iso-8859-1'?>" + latin, L"ä"},
        {head + "Windows-1251'?>" + cyrillic, L"Ж"},
    };
    for (const auto& [bytes, tag] : cases) {
        const std::vector<PolicyEntry> entries = importer.importBytes(bytes, L"p.xml");
        ASSERT_EQ(1u, entries.size());
        EXPECT_EQ(toUtf8(tag), toUtf8(entries[0].tag));
    }
    for (const std::string& bytes : {
             latin,                                              // not UTF-8
             "\xEF\xBB\xBF" + latin,                             //
             head + "utf-7'?>" + xml,                            // can hide a "<"
             head + "ibm037'?>" + xml,                           // so can EBCDIC
             head + "utf-16'?>" + xml,                           // it is not
             utf16(xml, false, true).substr(0, 41),              // half a character at the end
             std::string("\xFF\xFE<\0a\0 \0\x3D\xD8/\0>\0", 14), // half of one in the middle
             std::string("\xFF\xFE\0\0<\0\0\0a\0\0\0/\0\0\0>\0\0\0", 20),  // UTF-32
             std::string("<a/>\0<!DOCTYPE a>", 17),                        // ends early for some
             std::string("<a b='\x01'/>"),                                 //
             "\xEF\xBB\xBF\xEF\xBB\xBF" + head + "utf-7'?>" + xml,         // two marks
             utf16("\xEF\xBB\xBF" + head + "utf-7'?>" + xml, false, true), //
         }) {
        EXPECT_EQ(static_cast<int>(ProblemKind::Text), onlyProblem(bytes)) << bytes;
    }
}

TEST_F(HostilePolicyTest, NoDocumentTypeGetsThroughAndNoOtherFileIsRead) {
    const TempDirectory directory;
    const std::string secret = toUtf8(RunTime::nicePath(directory.writeFile(L"secret", "s3cret")));
    std::string bomb = "<!DOCTYPE a [<!ENTITY e0 'x'>";
    for (int i = 1; i < 40; ++i) {
        const std::string last = "&e" + std::to_string(i - 1) + ";";
        bomb += "<!ENTITY e" + std::to_string(i) + " '" + many(10, last) + "'>";
    }
    bomb += "]>" + policyXml("&e39;" + entryXml({{"Tag", "&e39;"}}));
    const std::string attacks[] = {
        "<!DOCTYPE a [<!ENTITY x SYSTEM 'file:///" + secret + "'>]>" + policyXml("&x;"),
        "<!DOCTYPE a SYSTEM 'file:///" + secret + "'>" + policyXml(""),
        "<!DOCTYPE a [<!ENTITY % p SYSTEM '" + secret + "'> %p;]>" + policyXml(""),
        bomb,
        "<?xml version='1.0'?><!-- <a> --><?p <a>?>\n<!DOCTYPE a><a/>",
        "<?xml version='1.0' encoding='utf-8'?>\n\n<!DOCTYPE a []><a/>",
        "<!doctype a><a/>",
        policyXml("<!DOCTYPE a>"),
        policyXml("") + "<!DOCTYPE a>",
        "<!ENTITY x 'y'>" + policyXml(""),
    };
    const FaultPoint opens("CreateFileW");
    for (const std::string& attack : attacks) {
        for (const std::string& bytes :
             {attack, "\xEF\xBB\xBF" + attack, utf16(attack, false, true),
              utf16(attack, true, true), utf16(attack, false, false)}) {
            const ConfigImporter::Report report = importer.checkBytes(bytes);
            ASSERT_EQ(1u, report.problems.size()) << attack;
            EXPECT_EQ(ProblemKind::Text, report.problems[0].kind) << attack;
            EXPECT_TRUE(report.entries.empty());
            EXPECT_THROW(importer.importBytes(bytes, L"p.xml"), vexception);
        }
    }
    EXPECT_EQ(0, opens.calls);
    // Words in places where they mean nothing are no attack.
    EXPECT_EQ(-1, onlyProblem(policyXml("<!-- <!DOCTYPE a> --><![CDATA[<!DOCTYPE a>]]>" +
                                        entryXml({{"Tag", "&lt;!DOCTYPE a>"}}))));
}

// Each would take a parser, or us, time or memory beyond the file's size.
TEST_F(HostilePolicyTest, EveryMeasureHasALimit) {
    const auto nested = [](int depth) { return many(depth, "<a>") + many(depth, "</a>"); };
    const auto long_ = [](int size) { return std::string(static_cast<std::size_t>(size), 'x'); };
    std::string attributes = "<a";
    for (int i = 0; i < 20'000; ++i) {
        attributes += " a" + std::to_string(i) + "=''";
    }
    const struct {
        const char* what;
        std::string xml;
        int kind; // of the problem; -1: within the limit
    } cases[] = {
        {"depth in bounds", nested(maxElementDepth), -1},
        {"depth", nested(maxElementDepth + 1), static_cast<int>(ProblemKind::Xml)},
        {"great depth", nested(200'000), static_cast<int>(ProblemKind::Xml)},
        {"elements in bounds", "<a>" + many(maxElements - 1, "<a/>") + "</a>", -1},
        {"elements", "<a>" + many(maxElements, "<a/>") + "</a>", 1},
        {"value in bounds", policyXml(entryXml({{"Tag", long_(32'767)}})), -1},
        {"value", policyXml(entryXml({{"Tag", long_(32'768)}})), 3},
        {"long value", policyXml(entryXml({{"Tag", long_(10'000'000)}})), 1},
        {"tag without end", "<a b='" + long_(10'000'000), 1},
        {"attributes", attributes + "/>", 1},
        {"text", policyXml(many(40'000, "\xC3\xA4")), 1},
        {"section", policyXml("<![CDATA[" + long_(70'000) + "]]>"), 1},
        {"references", policyXml(many(40'000, "&lt;")), 1},
        {"file", policyXml(std::string(maxFileBytes, '\n')), 1},
        {"comments", policyXml(many(100'000, "<!---->")), -1},
        {"line ends", policyXml("<a b='" + many(60'000, "\r") + "'/>" + many(60'000, "\r")), -1},
        {"entries on one line", policyXml(many(5'000, entryXml())), -1},
    };
    for (const auto& row : cases) {
        const ULONGLONG start = ::GetTickCount64();
        EXPECT_EQ(row.kind, onlyProblem(row.xml, row.what)) << row.what;
        EXPECT_LT(::GetTickCount64() - start, 20'000u) << row.what;
    }
    const TempDirectory directory;
    directory.writeFile(L"large.xml", std::string(maxFileBytes + 1, ' '));
    EXPECT_EQ(ProblemKind::File, importer.checkFile(directory / L"large.xml").problems.at(0).kind);
    EXPECT_EQ(
        ConfigImporter::maxProblems,
        importer.checkBytes(policyXml(many(3'000, entryXml({{"Path", "x"}})))).problems.size());
}

// Long lines are broken for the parser; places are told as the file has them.
TEST_F(HostilePolicyTest, PlacesAreTheFilesOwnWhereLinesAreLong) {
    const std::string good = many(5'000, entryXml());
    const std::string bad = entryXml({{"AccessMask", "x"}});
    const ConfigImporter::Report report =
        importer.checkBytes("<a>\n" + good + bad + good + "\n " + bad + "</a>");
    ASSERT_EQ(2u, report.problems.size());
    EXPECT_EQ(2, report.problems[0].position.line);
    EXPECT_EQ(static_cast<int>(good.size()) + 1, report.problems[0].position.column);
    EXPECT_EQ(3, report.problems[1].position.line);
    EXPECT_EQ(2, report.problems[1].position.column);
    const ConfigImporter::Report broken =
        importer.checkBytes("<a>\n" + good + "&x;" + many(5'000, "\n") + "</a>");
    ASSERT_EQ(1u, broken.problems.size());
    EXPECT_EQ(2, broken.problems[0].position.line);
}

// Whatever the bytes, there is an answer: an import and a check agree, and nothing grows.
TEST_F(HostilePolicyTest, DamagedFilesAreAnswered) {
    FuzzCorpus corpus;
    for (const std::string& text :
         {policyXml(entryXml()),
          "<?xml version='1.0' encoding='utf-8'?><a>" +
              entryXml({{"AccounType", "1"}, {"SidStr", "S-1-5-18"}}) +
              "<!-- c --><![CDATA[d]]>&#x41;&amp;</a>",
          utf16(policyXml(entryXml({{"Path", "[Windows]\\x"}})), false, true),
          std::string("<a xmlns:p='u'><p:Entry p:a='1'/><?pi x?><Entry/></a>"),
          "<?xml version='1.0' encoding='windows-1251'?>" + policyXml(entryXml())}) {
        corpus.emplace_back(text.begin(), text.end());
    }
    fuzz(corpus, [&](std::span<const std::uint8_t> input) {
        const std::string_view bytes(reinterpret_cast<const char*>(input.data()), input.size());
        const ConfigImporter::Report report = importer.checkBytes(bytes);
        std::size_t imported = 0;
        bool failed = false;
        try {
            imported = importer.importBytes(bytes, L"p.xml").size();
        } catch (const vexception&) {
            failed = true;
        }
        EXPECT_EQ(failed, !report.problems.empty());
        EXPECT_EQ(failed ? 0 : report.entries.size(), imported);
    });
}

} // namespace

} // namespace DiskSecurity
