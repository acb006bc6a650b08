#include "relocation/vhosts/tarvo_iis_sites.h"

#include "relocation/vhosts/site_list.h"
#include "runtime/com.h"
#include "runtime/process/product_utility.h"
#include "tests/relocation/vhosts/panel_fixture.h"

namespace {

using Lines = std::vector<std::string>;

class TarvoIIsSitesTest : public PanelFixture {
protected:
    void addDomain(const wchar_t* name, const wchar_t* hosting) {
        database->execute(L"insert into domains (name, htype) values (?, ?)", {name, hosting});
    }

    // The two calls that follow one site.
    static Lines updateOf(const std::string& site, const std::string& from, const std::string& to) {
        const auto call = [&](const char* utility, std::size_t skipFrom, std::size_t skipTo) {
            return utility + ("|--update-site-paths|--site-name=" + site) +
                   "|--old-path=" + from.substr(skipFrom) + "|--new-path=" + to.substr(skipTo);
        };
        const auto prefix = [](const std::string& path) {
            return path.starts_with("\\\\?\\") ? 4U : 0U;
        };
        return {call("webhostctl.exe", 0, 0), call("relink_tool.exe", prefix(from), prefix(to))};
    }

    static void append(Lines& lines, const Lines& more) {
        lines.insert(lines.end(), more.begin(), more.end());
    }
};

std::string sitesOf(const std::wstring& document) {
    std::string result;
    for (const IisSite& site : parseSiteList(document)) {
        result += toUtf8(site.name + L"=" + site.path + L";");
    }
    return result;
}

} // namespace

TEST(SiteListTest, OnlyPlainDocumentsAreRead) {
    const RunTime::ComScope com;
    EXPECT_EQ(sitesOf(L"<?xml version='1.0' encoding='windows-1251'?>\r\n<sites>"
                      L"<site name='a &amp; &quot;b&quot;' path='D:\\&#x436;\\\x65E5'/>"
                      L"<other name='x' path='y'/><site path='D:\\'><site name='in' path='in'/>"
                      L"</site><site name=''/></sites>"),
              "a & \"b\"=D:\\\xD0\xB6\\\xE6\x97\xA5;=D:\\;=;");
    EXPECT_EQ(sitesOf(L"<webs><site name='a' path='b'/></webs>"), "");
    const wchar_t* refused[] = {
        L"",
        L"no sites",
        L"<sites><site name='a' path='b'></sites>",
        L"<sites><site name='a' path='b'/>",
        L"<sites/><sites/>",
        L"<!DOCTYPE sites [<!ENTITY e 'x'>]><sites><site name='&e;' path='b'/></sites>",
        L"<!DOCTYPE sites SYSTEM 'file:///C:/windows/win.ini'><sites/>",
        L"<sites><site name='&e;' path='b'/></sites>",
        L"<sites><site name='a\x0001' path='b'/></sites>",
        L"<sites><site name='a\xD800' path='b'/></sites>",
    };
    for (const wchar_t* document : refused) {
        try {
            sitesOf(document);
            ADD_FAILURE() << "read: " << toUtf8(document);
        } catch (const vexception& e) {
            EXPECT_TRUE(e.message().starts_with(L"Unable to read the list of IIS sites (line "))
                << toUtf8(e.message());
        }
    }
    std::wstring many = L"<sites>";
    for (int i = 0; i < 5000; ++i) {
        many += L"<site name='" + std::to_wstring(i) + L"' path='D:\\vhosts\\" +
                std::to_wstring(i) + L"'/>";
    }
    EXPECT_EQ(parseSiteList(many + L"</sites>").at(4999).path, L"D:\\vhosts\\4999");
}

TEST_F(TarvoIIsSitesTest, SitesOfDomainsAndThoseInTheDirectoryFollowAndAreRestored) {
    addDomain(L"A.example", L"vrt_hst");
    addDomain(L"\x411\x430\x43D\x43A.example", L"VRT_HST");
    addDomain(L"elsewhere.example", L"std_fwd");
    addDomain(L"forwarded.example", L"None");
    addDomain(L"without-site.example", L"vrt_hst");
    panel.answer(L"webhostctl.exe",
                 "<sites><site name='a.EXAMPLE' path='D:\\vhosts\\a\\httpdocs'/>"
                 "<site name='\xD0\xB1\xD0\x90\xD0\x9D\xD0\x9A.example' path='D:\\vhosts\\b'/>"
                 "<site name='elsewhere.example' path='E:\\sites\\x'/>"
                 "<site name='forwarded.example' path='D:\\vhosts\\forwarded'/>"
                 "<site name='Webmail &quot;50 %&quot;' path='d:/VHosts/webmail'/>"
                 "<site name='default\\' path='\\\\?\\D:\\vhosts'/>"
                 "<site name='beside' path='D:\\vhosts2\\x'/><site name='above' path='D:\\'/>"
                 "<site name='out' path='D:\\vhosts\\..\\x'/>"
                 "<site name='no path'/><site path='D:\\vhosts\\no-name'/></sites>");
    const std::string bank = "\xD0\xB1\xD0\xB0\xD0\xBD\xD0\xBA.example";
    const std::pair<std::string, std::string> expected[] = {
        {"a.example", "D:\\vhosts\\a\\httpdocs"},
        {"default\\", "\\\\?\\D:\\vhosts"},
        {"elsewhere.example", "E:\\sites\\x"},
        {"webmail \"50 %\"", "\\\\?\\D:\\vhosts"},
        {bank, "D:\\vhosts\\b"},
    };
    TarvoIIsSites sites;
    StepWatch watch(sites);
    EXPECT_FALSE(sites.change(L"\\\\?\\D:\\vhosts", L"\\\\?\\E:\\new hosts\\"));
    EXPECT_TRUE(sites.isPending());
    Lines calls{"webhostctl.exe|--get-sites-root-path"};
    Lines events{"5"};
    for (const auto& [name, path] : expected) {
        append(calls, updateOf(name, "\\\\?\\D:\\vhosts", "\\\\?\\E:\\new hosts\\"));
        events.push_back("Configure IIS site: " + name);
        EXPECT_EQ(toUtf8(sites.get_sites().at(toWide(name))), path);
    }
    EXPECT_EQ(panel.calls(), calls);
    EXPECT_EQ(watch.events, events);

    panel.forget();
    watch.events.clear();
    watch.cancelAt = 1;
    EXPECT_FALSE(sites.rollback());
    calls.clear();
    events = {"5"};
    for (const auto& [name, path] : expected) {
        append(calls, updateOf(name, "\\\\?\\E:\\new hosts\\", path));
        events.push_back("Restore: " + name);
    }
    EXPECT_EQ(panel.calls(), calls);
    EXPECT_EQ(watch.events, events);
    EXPECT_FALSE(sites.isPending());
}

TEST_F(TarvoIIsSitesTest, WithoutSitesNothingIsRunAndNothingIsRestored) {
    panel.answer(L"webhostctl.exe", "<sites/>");
    TarvoIIsSites sites;
    StepWatch watch(sites);
    EXPECT_FALSE(sites.rollback());
    EXPECT_FALSE(sites.change(L"D:\\vhosts", L"E:\\vhosts"));
    EXPECT_FALSE(sites.rollback());
    EXPECT_EQ(watch.events, (Lines{"0", "0", "0"}));
    EXPECT_EQ(panel.calls(), Lines{"webhostctl.exe|--get-sites-root-path"});
}

TEST_F(TarvoIIsSitesTest, AListenerStopsTheChangeAtAnyEvent) {
    panel.answer(L"webhostctl.exe", "<sites><site name='a' path='D:\\vhosts\\a'/>"
                                    "<site name='b' path='D:\\vhosts\\b'/></sites>");
    for (std::size_t at = 1; at <= 3; ++at) {
        panel.forget();
        TarvoIIsSites sites;
        StepWatch watch(sites);
        watch.cancelAt = at;
        try {
            sites.change(L"D:\\vhosts", L"E:\\vhosts");
            ADD_FAILURE() << "not cancelled at event " << at;
        } catch (const CanceledException& e) {
            EXPECT_EQ(e.message(), L"Canceled!");
            EXPECT_EQ(e.frames().front().function, "TarvoIIsSites::change");
        }
        EXPECT_EQ(panel.calls().size(), at == 3 ? 3U : 1U);
        EXPECT_TRUE(sites.isPending());
        sites.commit();
        EXPECT_FALSE(sites.isPending());
        EXPECT_TRUE(sites.get_sites().empty());
    }
}

// Whichever call of a utility fails, forward or back, one more rollback points every site back.
TEST_F(TarvoIIsSitesTest, AFailingUtilityLeavesWhatRollbackNeeds) {
    panel.answer(L"webhostctl.exe", "<sites><site name='a' path='D:\\vhosts\\a'/>"
                                    "<site name='b' path='D:\\vhosts\\b'/></sites>");
    const std::wstring refused[] = {L"webhostctl.exe has refused", L"relink_tool.exe has refused"};
    for (const int n : {1, 2, 5, 6, 9}) { // 1: the list; 2 to 5: forward; 6 to 9: back
        SCOPED_TRACE("failing call " + std::to_string(n));
        panel.forget();
        panel.refuse(n);
        TarvoIIsSites sites;
        bool failed = false;
        try {
            sites.change(L"D:\\vhosts", L"E:\\vhosts");
            sites.rollback();
        } catch (const RunTime::UtilityException& e) {
            failed = true;
            EXPECT_EQ(e.message(), refused[n == 1 ? 0 : n % 2]);
        }
        EXPECT_TRUE(failed);
        EXPECT_EQ(sites.isPending(), n > 1);
        const std::size_t left = n == 1 ? 0 : n < 8 ? 2 : 1;
        EXPECT_EQ(sites.get_sites().size(), left);
        panel.refuse(0);
        panel.forget();
        sites.rollback();
        Lines calls;
        for (const char* site : {"a", "b"}) {
            if (left == 2 || (left == 1 && *site == 'b')) {
                append(calls, updateOf(site, "E:\\vhosts", "D:\\vhosts"));
            }
        }
        EXPECT_EQ(panel.calls(), calls);
    }
    // The panel's database does not answer: no site is known, none is changed.
    database->execute(L"rename table domains to domains_away");
    TarvoIIsSites sites;
    EXPECT_THROW(sites.change(L"D:\\vhosts", L"E:\\vhosts"), VDatabase::StatementException);
    database->execute(L"rename table domains_away to domains");
    EXPECT_TRUE(sites.get_sites().empty());
    EXPECT_FALSE(sites.isPending());
}
