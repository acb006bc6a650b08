// The panel's queries on its tables (tests/panel/schema.sql).
#include "runtime/database/zop_database.h"

#include "tests/support/database_fixture.h"
#include "tests/support/registry_override.h"

namespace {

class ZOPDatabaseTest : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (!database) {
            return;
        }
        for (const wchar_t* table :
             {L"ftp_users", L"hosting", L"domains", L"sys_users", L"ServiceNodeEnvironment"}) {
            database->execute(std::wstring(L"delete from ") + table);
        }
        database->execute(L"insert into sys_users (id, login, password, home, quota) values "
                          L"(1, 'd1', 'p\\'1', 'C:\\\\vhosts\\\\d1', 18446744073709551615), "
                          L"(2, 'm\u00FCller', 'p2', 'C:\\\\vhosts\\\\m', 0)");
        database->execute(L"insert into domains values (1, 'a.example', 'vrt_hst'), "
                          L"(2, 'b.example', 'vrt_hst'), (3, 'c.example', 'none')");
        database->execute(L"insert into hosting values (1, 1, 'C:/vhosts/a', 'pool1'), "
                          L"(2, 1, 'C:/vhosts/b', NULL)");
        panel = std::make_unique<ZOPDatabase>(std::make_shared<VMySQLDatabase>(parameters()));
    }

    std::unique_ptr<ZOPDatabase> panel;
};

} // namespace

TEST_F(ZOPDatabaseTest, AccountsAreFoundByTheirNameAlone) {
    const ZOPDatabase::UserInfo info = panel->getUserInfo(L"d1");
    EXPECT_EQ(info.login + info.password + info.home, L"d1p'1C:\\vhosts\\d1");
    EXPECT_EQ(panel->getUserInfo(L"m\u00FCller").password, L"p2");
    for (const wchar_t* login : {L"muller", L"d1 ", L"", L"x' or '1'='1"}) {
        EXPECT_THROW(panel->getUserInfo(login), vexception) << toUtf8(login);
    }
    EXPECT_EQ(panel->getAppPoolUser(L"a.example"), L"pool1");
    for (const wchar_t* domain : {L"b.example", L"c.example", L"d.example"}) {
        EXPECT_THROW(panel->getAppPoolUser(domain), vexception) << toUtf8(domain);
    }
    database->execute(L"insert into ftp_users (dom_id, sys_user_id) values (1, NULL), (1, 2)");
    EXPECT_EQ(rowsOf(panel->enumFtpDomainSubFtpUsers()), "NULL m\u00FCller ");
}

TEST_F(ZOPDatabaseTest, PathsAreMovedRowByRowAndUndoneByARollback) {
    EXPECT_EQ(rowsOf(panel->enumDomains()),
              "1 a.example vrt_hst 2 b.example vrt_hst 3 c.example none ");
    const auto paths = [this] {
        return rowsOf(panel->enumUsers()) + rowsOf(panel->enumHostings());
    };
    const auto move = [this] {
        panel->setUserHome(L"m\u00FCller", L"D:\\new's\\");
        for (const auto rows = panel->enumHostings(); rows->next();) {
            panel->setWwwRoot(rows->value(L"dom_id"), L"D:\\" + rows->value(L"dom_id"));
        }
    };
    const std::string before = paths();
    {
        const VDatabase::Transaction transaction(panel->database());
        move();
    }
    EXPECT_EQ(paths(), before);
    move();
    EXPECT_EQ(paths(), "d1 C:\\vhosts\\d1 18446744073709551615 m\u00FCller D:\\new's\\ 0 "
                       "1 D:\\1 2 D:\\2 ");
}

TEST_F(ZOPDatabaseTest, OnlyTheMarksOfThisServersSynchronisationGo) {
    database->execute(L"insert into ServiceNodeEnvironment (serviceNodeId, section, name) values "
                      L"(1, 'configuration', 'synced'), (1, 'os', 'synced'), (2, 'os', 'synced'), "
                      L"(1, 'os', 'name'), (1, 'other', 'synced')");
    panel->forgetSynchronisation();
    EXPECT_EQ(rowsOf(database->query(L"select serviceNodeId, section, name from "
                                     L"ServiceNodeEnvironment order by 1, 2")),
              "1 os name 1 other synced 2 os synced ");
}

TEST_F(ZOPDatabaseTest, ThePanelsDatabaseIsTheOneThatTheConfigurationNames) {
    const RegistryOverride registry;
    const VMySQLDatabase::Parameters preset = VMySQLDatabase::configuredParameters();
    EXPECT_EQ(preset.host + preset.user + preset.password + preset.database,
              L"localhostadminpanel");
    EXPECT_EQ(preset.port, 3306);

    configure(registry);
    EXPECT_EQ(ZOPDatabase::connect().getUserInfo(L"d1").home, L"C:\\vhosts\\d1");
    for (const DWORD port : {0UL, 65536UL}) {
        RegistryOverride::setDword(L"MySQLPort", port);
        EXPECT_THROW(ZOPDatabase::connect(), ArgumentException);
    }
    RegistryOverride::setString(L"MySQLPort", L"3306");
    EXPECT_THROW(ZOPDatabase::connect(), vexception);
}
