#include "relocation/vhosts/asp_net_reconfigure.h"
#include "relocation/vhosts/php_settings_reconfigure.h"
#include "relocation/vhosts/www_root_reconfigure.h"
#include "runtime/files/path.h"
#include "tests/relocation/vhosts/panel_fixture.h"
#include "tests/support/expect_error.h"

namespace {

class ReconfigureTest : public PanelFixture {
protected:
    void addHostings(const std::vector<std::wstring>& roots) {
        for (const std::wstring& root : roots) {
            const std::wstring id = std::to_wstring(++lastId_);
            database->execute(L"insert into domains values (?, ?, 'vrt_hst')", {id, id});
            database->execute(L"insert into hosting values (?, 1, ?, NULL)", {id, root});
        }
    }

    // Of these hostings.
    std::vector<std::wstring> roots() {
        std::vector<std::wstring> result;
        const auto rows =
            database->query(L"select www_root from hosting where dom_id > 100 order by dom_id");
        while (rows->next()) {
            result.push_back(rows->value(L"www_root"));
        }
        return result;
    }

    int lastId_ = 100;
};

struct Watch : StepWatch {
    explicit Watch(Reconfigure& source)
        : StepWatch(source), error(source.errorEvent.hook([this](const std::wstring& text, bool&) {
              events.push_back(toUtf8(text));
          })) {}
    Hook error;
};

} // namespace

TEST_F(ReconfigureTest, RootsInTheDirectoryFollowItAndComeBackAsTheyWere) {
    const std::wstring from = directory_.nice() + L"\\virtual hosts";
    directory_.makeDirectory(L"virtual hosts\\a long name");
    std::wstring slashes = from;
    std::replace(slashes.begin(), slashes.end(), L'\\', L'/');
    std::wstring upper = from;
    ::CharUpperW(upper.data());
    const std::wstring to = L"E:\\new 'place'";
    const std::pair<std::wstring, std::wstring> cases[] = {
        {from + L"\\a\\httpdocs", to + L"\\a\\httpdocs"},
        {slashes + L"/b\\httpdocs/", to + L"\\b\\httpdocs\\"},
        {upper + L"\\\x416\\\xD83D\xDE00", to + L"\\\x416\\\xD83D\xDE00"},
        {L"\\\\?\\" + from + L"\\it's", to + L"\\it's"},
        {from, to},
        {from + L"\\", to},
        {RunTime::shortPath(from) + L"\\gone", to + L"\\gone"},
        {RunTime::shortPath(from + L"\\a long name"), to + L"\\a long name"},
        {from + L"2\\a", from + L"2\\a"},
        {L"D:/elsewhere", L"D:/elsewhere"},
        {from + L"\\..\\out", from + L"\\..\\out"},
        {to + L"\\was there before", to + L"\\was there before"},
        {L"relative", L"relative"},
        {L"", L""},
    };
    std::vector<std::wstring> before;
    std::vector<std::wstring> after;
    for (const auto& [root, moved] : cases) {
        before.push_back(root);
        after.push_back(moved);
    }
    addHostings(before);
    WwwRootReconfigure forward;
    Watch watch(forward);
    for (watch.cancelAt = 1; watch.cancelAt <= 2; ++watch.cancelAt) {
        watch.events.clear();
        EXPECT_THROW(forward.reconfigure(from, to, true), CanceledException);
    }
    EXPECT_EQ(roots(), before);
    watch.events.clear();
    watch.cancelAt = 0;
    EXPECT_FALSE(forward.reconfigure(L"\\\\?\\" + from + L"\\", L"\\\\?\\" + to + L"\\", true));
    EXPECT_EQ(this->roots(), after);
    EXPECT_EQ(watch.events, (Lines{"1", "Reconfigure Www Roots"}));

    // A hosting that was made in the new place has to go with the rest.
    addHostings({to + L"\\made since"});
    before.push_back(from + L"\\made since");
    EXPECT_FALSE(forward.reconfigure(forward.get_toPath(), forward.get_fromPath(), false));
    EXPECT_EQ(this->roots(), before);
    EXPECT_EQ(forward.get_failure(), L"");

    // Roots that are back already stay, also where the new place is above the old one.
    const std::wstring above = RunTime::parentPath(from);
    forward.reconfigure(from, above, true);
    for (int attempt = 0; attempt < 2; ++attempt) {
        forward.reconfigure(above, from, false);
        EXPECT_EQ(this->roots(), before);
    }

    // An object that has not seen the way forward goes by the paths alone.
    EXPECT_FALSE(WwwRootReconfigure().reconfigure(from, L"F:\\", true));
    EXPECT_EQ(roots().at(0) + roots().at(4), L"F:\\a\\httpdocsF:\\");
    EXPECT_FALSE(WwwRootReconfigure().reconfigure(L"F:\\", from, false));
    EXPECT_EQ(roots().at(0) + roots().at(4), before[0] + from);
}

TEST_F(ReconfigureTest, RootsWithShortNamesFollowADirectoryThatWasRenamed) {
    const std::wstring from = directory_.nice() + L"\\virtual hosts";
    const std::wstring to = directory_.nice() + L"\\new place";
    directory_.makeDirectory(L"virtual hosts\\a long name");
    const std::wstring shortForm = RunTime::shortPath(from);
    const std::wstring below = RunTime::shortPath(from + L"\\a long name").substr(shortForm.size());
    const std::vector<std::wstring> before{shortForm + below, shortForm + L"/gone", shortForm,
                                           shortForm + L"\\..\\out", shortForm + L"x\\a"};
    addHostings(before);
    WwwRootReconfigure roots;
    roots.remember(from);
    ASSERT_TRUE(::MoveFileW(from.c_str(), to.c_str()));
    roots.reconfigure(from, to, true);
    EXPECT_EQ(this->roots(), (std::vector<std::wstring>{to + L"\\a long name", to + L"\\gone", to,
                                                        before[3], before[4]}));
    roots.reconfigure(to, from, false);
    EXPECT_EQ(this->roots(), before);
}

TEST_F(ReconfigureTest, AFailureInTheMiddleLeavesAllRootsAsTheyWere) {
    const std::vector<std::wstring> before{L"D:\\vhosts\\a", L"D:\\vhosts\\b", L"D:\\vhosts\\c",
                                           L"E:\\new\\x"};
    addHostings(before);
    database->execute(L"create trigger refuse before update on hosting for each row "
                      L"if old.dom_id = 103 then signal sqlstate '45000' set message_text = 'no'; "
                      L"end if");
    WwwRootReconfigure roots;
    Watch watch(roots);
    EXPECT_FALSE(roots.reconfigure(L"D:\\vhosts", L"E:\\new", true));
    EXPECT_EQ(this->roots(), before);
    ASSERT_EQ(watch.events.size(), 3U);
    EXPECT_TRUE(watch.events[2].starts_with("Failed to reconfigure www root: ") &&
                watch.events[2].ends_with(": no (Error number 1644)"))
        << watch.events[2];
    EXPECT_EQ(toUtf8(roots.get_failure()), watch.events[2]);
    // What was not written need not be undone, nor may what was there before be taken along.
    EXPECT_FALSE(roots.reconfigure(L"E:\\new", L"D:\\vhosts", false));
    EXPECT_EQ(this->roots(), before);

    database->execute(L"drop trigger refuse");
    // Nor is anything known when the database does not answer at all.
    RegistryOverride::setDword(L"MySQLPort", 1);
    EXPECT_FALSE(roots.reconfigure(L"D:\\vhosts", L"E:\\new", true));
    RegistryOverride::setDword(L"MySQLPort", parameters().port);
    EXPECT_FALSE(roots.reconfigure(L"E:\\new", L"D:\\vhosts", false));
    EXPECT_EQ(this->roots(), before);
}

TEST_F(ReconfigureTest, TheUtilityReconfiguresAspNetAndPhp) {
    const std::string before = panel_.statements();
    const std::string from = toUtf8(from_);
    const std::string to = toUtf8(to_);
    const std::string aspNetCall = "relink_tool.exe --reconfigure-aspnet-settings --old-path=";
    const std::string phpCall = "relink_tool.exe --reconfigure-php-settings --old-path=";
    AspNetReconfigure aspNet;
    PHPSettingsReconfigure php(L"", L"");
    Watch watch(aspNet);
    aspNet.reconfigure(L"", L"", false); // a step that has never run
    php.rollback();
    EXPECT_EQ(takeCalls(), Lines{});
    watch.events.clear();

    RegistryOverride::setString(L"HTTPD_VHOSTS_D", to_);
    EXPECT_FALSE(aspNet.reconfigure(L"\\\\?\\" + from_, L"\\\\?\\" + to_, true));
    php.reconfigure(L"\\\\?\\" + from_, L"\\\\?\\" + to_);
    EXPECT_EQ(takeCalls(), (Lines{aspNetCall + from, phpCall + from}));
    EXPECT_NE(panel_.statements().find("open_basedir | " + to), std::string::npos);
    RegistryOverride::setString(L"HTTPD_VHOSTS_D", from_);
    EXPECT_FALSE(aspNet.reconfigure(aspNet.get_toPath(), aspNet.get_fromPath(), false));
    php.rollback();
    EXPECT_EQ(takeCalls(), (Lines{aspNetCall + to, phpCall + to}));
    EXPECT_EQ(panel_.statements(), before);
    const std::string step = "Reconfigure ASP.NET settings";
    EXPECT_EQ(watch.events, (Lines{"1", step, "1", step}));

    const std::wstring refused = L"it has refused";
    for (const bool forward : {true, false}) {
        watch.events.clear();
        failCall(1, L"", false);
        EXPECT_FALSE(aspNet.reconfigure(from_, to_, forward));
        EXPECT_EQ(aspNet.get_failure(), L"Failed to reconfigure ASP.NET settings: " + refused);
        EXPECT_EQ(watch.events,
                  forward ? (Lines{"1", step, toUtf8(aspNet.get_failure())}) : (Lines{"1", step}));
    }
    failCall(1, L"", false);
    expectError<vexception>(L"Unable to reconfigure PHP settings: " + refused,
                            [&] { php.reconfigure(from_, to_); });
    failCall(1, L"", false);
    expectError<vexception>(L"Unable to rollback PHP settings reconfiguration: " + refused,
                            [&] { php.rollback(); });
}
