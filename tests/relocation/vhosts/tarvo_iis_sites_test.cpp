#include "relocation/vhosts/tarvo_iis_sites.h"

#include "relocation/vhosts/site_list.h"
#include "runtime/com.h"
#include "runtime/files/path.h"
#include "runtime/process/product_utility.h"
#include "tests/panel/in_process.h"
#include "tests/relocation/vhosts/panel_fixture.h"

#include <thread>

namespace {

class TarvoIIsSitesTest : public PanelFixture {
protected:
    void addSite(const wchar_t* name, const std::wstring& root) const {
        std::vector<panel::Setting> settings = panel_.store().settings();
        settings.push_back({L"iis", name, L"root", root});
        panel_.store().write(settings);
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
}

TEST(SiteListTest, AnObjectOfAnotherThreadLeavesTheUseOfComToUs) {
    const RunTime::ComScope com;
    std::unique_ptr<TarvoIIsSites> sites;
    std::thread([&] { sites = std::make_unique<TarvoIIsSites>(); }).join();
    sites.reset();
    EXPECT_EQ(sitesOf(L"<sites/>"), "");
}

TEST_F(TarvoIIsSitesTest, SitesOfDomainsAndThoseInTheDirectoryFollowAndComeBack) {
    std::wstring slashes = from_;
    std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
    addSite(L"Typed \"50 %\"\\", slashes + L"/typed");
    addSite(L"beside", from_ + L"2\\x");
    addSite(L"above", directory_.nice());
    addSite(L"out", from_ + L"\\..\\x");
    addSite(L"no path", L"");
    addSite(L"", from_ + L"\\no name");
    const std::string before = panel_.statements();
    const std::wstring oldRoot = RunTime::longPath(from_);
    const std::wstring newRoot = RunTime::longPath(to_);
    const std::pair<std::wstring, std::wstring> expected[] = {
        // A domain's site has its own path, any other the directory's.
        {L"b\xFC"
         L"cher2.example",
         panel_.elsewhere() + L"\\b\xFC"
                              L"cher2.example\\www"},
        {L"shop1.example", from_ + L"\\Shop1.example\\www"},
        {L"sites preview", oldRoot},
        {L"typed \"50 %\"\\", oldRoot},
        {L"webmail", oldRoot},
        {L"\x43F\x440\x438\x43C\x435\x440"
         L"4.example",
         from_ + L"\\\x43F\x440\x438\x43C\x435\x440"
                 L"4.example\\www"},
    };
    TarvoIIsSites sites;
    StepWatch watch(sites);
    EXPECT_FALSE(sites.change(oldRoot, newRoot));
    EXPECT_TRUE(sites.isPending());
    Lines calls{"webhostctl.exe --get-sites-root-path"};
    Lines undoCalls;
    Lines events{"6"};
    Lines undoEvents{"6"};
    for (const auto& [name, path] : expected) {
        EXPECT_EQ(toUtf8(sites.get_sites().at(name)), toUtf8(path));
        const auto add = [&, site = name](Lines& to, const std::wstring& old,
                                          const std::wstring& now) {
            const std::wstring words = L" --update-site-paths --site-name=" + site;
            to.push_back(
                toUtf8(L"webhostctl.exe" + words + L" --old-path=" + old + L" --new-path=" + now));
            to.push_back(toUtf8(L"relink_tool.exe" + words + L" --old-path=" +
                                RunTime::nicePath(old) + L" --new-path=" + RunTime::nicePath(now)));
        };
        add(calls, oldRoot, newRoot);
        add(undoCalls, newRoot, path);
        events.push_back("Configure IIS site: " + toUtf8(name));
        undoEvents.push_back("Restore: " + toUtf8(name));
    }
    EXPECT_EQ(sites.get_sites().size(), std::size(expected));
    EXPECT_EQ(takeCalls(), calls);
    EXPECT_EQ(watch.events, events);
    watch.events.clear();
    watch.cancelAt = 1; // which a rollback does not heed
    EXPECT_FALSE(sites.rollback());
    EXPECT_EQ(takeCalls(), undoCalls);
    EXPECT_EQ(watch.events, undoEvents);
    EXPECT_EQ(panel_.statements(), before);

    EXPECT_FALSE(sites.isPending());
    watch.events.clear();
    EXPECT_FALSE(sites.rollback());
    EXPECT_EQ(watch.events, Lines{"0"});
    EXPECT_EQ(takeCalls(), Lines{});
}

// Whatever ends a change, and whatever ends the first rollback, everything comes back.
TEST_F(TarvoIIsSitesTest, AFailureOrAListenerLeavesWhatRollbackNeeds) {
    const std::string before = panel_.statements();
    const panel::InProcess quick;
    struct Case {
        int call;          // of updates that fails, forward and then back
        std::size_t event; // that cancels
        std::size_t left;  // sites for the last rollback
    };
    for (const Case& c : {Case{1, 0, 5}, {4, 0, 4}, {10, 0, 1}, {0, 1, 5}, {0, 4, 5}}) {
        SCOPED_TRACE(std::to_string(c.call) + " " + std::to_string(c.event));
        TarvoIIsSites sites;
        StepWatch watch(sites);
        watch.cancelAt = c.event;
        failCall(c.call, L"--update-site-paths", true);
        try {
            sites.change(from_, to_);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const CanceledException& e) {
            EXPECT_EQ(e.message(), L"Canceled!");
            EXPECT_EQ(e.frames().front().function, "TarvoIIsSites::change");
            EXPECT_EQ(takeCalls().size(), c.event == 1 ? 1U : 5U);
        } catch (const RunTime::UtilityException& e) {
            EXPECT_EQ(e.message(), L"it has refused");
            EXPECT_EQ(takeCalls().size(), 1 + static_cast<std::size_t>(c.call));
        }
        failCall(c.call, L"--update-site-paths", false);
        if (c.call != 0) {
            EXPECT_THROW(sites.rollback(), RunTime::UtilityException);
        }
        EXPECT_EQ(sites.get_sites().size(), c.left);
        failCall(0, L"", false);
        EXPECT_FALSE(sites.rollback());
        EXPECT_EQ(takeCalls().size(), 2 * c.left);
        EXPECT_EQ(panel_.statements(), before);
    }
    // Without the list or the panel's database no site is known, and none is changed.
    TarvoIIsSites sites;
    failCall(1, L"--get-sites", false);
    EXPECT_THROW(sites.change(from_, to_), RunTime::UtilityException);
    RegistryOverride::setDword(L"MySQLPort", 1);
    EXPECT_THROW(sites.change(from_, to_), VDatabase::ConnectException);
    EXPECT_TRUE(sites.get_sites().empty());
    EXPECT_FALSE(sites.isPending());
}
