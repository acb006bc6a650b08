// The public database classes, used by a program with a C++ runtime of its own.
#include "api/zop_database_exception.h"
#include "api/zop_mysql_database.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>

namespace {

using zopobsolete::Exception;
using zopobsolete::ZOPDatabaseException;
using zopobsolete::ZOPDatabaseParameters;
using zopobsolete::ZOPMySQLDatabase;
using zopobsolete::ZOPMySQLRecordSet;

class PublicDatabaseTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::getenv("ZOP_TEST_DB_PORT") == nullptr) {
            GTEST_SKIP() << "no database server: run by scripts/sandbox.sh --database";
        }
        const auto environment = [](const char* name) {
            const std::string value = std::getenv(name);
            return std::wstring(value.begin(), value.end());
        };
        parameters.setHost(environment("ZOP_TEST_DB_HOST"));
        parameters.setPort(static_cast<std::uint16_t>(std::atoi(std::getenv("ZOP_TEST_DB_PORT"))));
        parameters.setLogin(environment("ZOP_TEST_DB_USER"));
        parameters.setPassword(environment("ZOP_TEST_DB_PASSWORD"));
        parameters.setDatabase(L"zop_test");
        database.emplace(parameters);
        database->execute(L"create or replace table public_t (id int auto_increment primary key, "
                          L"t text, b blob) engine = InnoDB");
    }

    std::wstring count() {
        ZOPMySQLRecordSet rows = database->query(L"select count(*) from public_t");
        return rows.next() ? rows.text(0).value_or(L"NULL") : L"none";
    }

    ZOPDatabaseParameters parameters;
    std::optional<ZOPMySQLDatabase> database;
};

// The text of the public exception that the call ends with.
template <class Function>
std::wstring errorOf(Function&& call) {
    try {
        call();
    } catch (const ZOPDatabaseException& e) {
        EXPECT_NE(dynamic_cast<const Exception*>(&e), nullptr);
        return e.message();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

bool contains(const std::wstring& text, const wchar_t* part) {
    return text.find(part) != std::wstring::npos;
}

} // namespace

TEST_F(PublicDatabaseTest, ValuesGoInAndComeOutAsTheyAreByNameAndByPlace) {
    const std::wstring text = L"\U0001F600 'x' \\ \u0416";
    EXPECT_EQ(database->execute(L"insert into public_t values (?, ?, x'ff')", {7, text}), 1u);
    database->execute(L"insert into public_t (t) values (?), ('')", {nullptr});
    EXPECT_EQ(database->lastInsertId(), 8u);
    EXPECT_EQ(database->escape(L"a'b"), L"a\\'b");

    ZOPMySQLRecordSet rows = database->query(L"select id, t as id, b, t from public_t order by 1");
    EXPECT_EQ(rows.columns(), (std::vector<std::wstring>{L"id", L"id", L"b", L"t"}));
    EXPECT_TRUE(contains(errorOf([&] { rows.text(0); }), L"there is no row"));
    EXPECT_EQ(count(), L"3"); // the rows above are read ahead, and go on
    database->Dispose();
    database->Dispose();
    ASSERT_TRUE(rows.next());
    EXPECT_EQ(rows.text(L"ID"), L"7");
    EXPECT_EQ(rows.text(1), text);
    EXPECT_TRUE(contains(errorOf([&] { rows.text(2); }), L"bytes that are no text"));
    EXPECT_TRUE(contains(errorOf([&] { rows.text(4); }), L"there is no such column"));
    ASSERT_TRUE(rows.next());
    EXPECT_EQ(rows.text(L"t"), std::nullopt);
    ASSERT_TRUE(rows.next());
    EXPECT_EQ(rows.text(L"t"), L"");
    EXPECT_FALSE(rows.next());
    rows.Dispose();
    EXPECT_TRUE(contains(errorOf([&] { rows.next(); }), L"disposed of"));
    const std::wstring error = errorOf([&] { database->query(L"select 1"); });
    EXPECT_TRUE(error.starts_with(L"The database has been disposed of\n"));
    EXPECT_TRUE(error.ends_with(L"(zopobsolete::ZOPMySQLDatabase::query line 155)"));
}

TEST_F(PublicDatabaseTest, TransactionsAndLocksEndWithTheObject) {
    database->beginTrans();
    database->beginTrans();
    EXPECT_EQ(database->transLevel(), 2);
    database->execute(L"insert into public_t (id) values (1)");
    database->rollbackTrans();
    EXPECT_TRUE(contains(errorOf([&] { database->commitTrans(); }), L"was rolled back"));
    EXPECT_EQ(count(), L"0");
    {
        std::optional<ZOPMySQLRecordSet> rows;
        {
            ZOPMySQLDatabase other(parameters);
            other.beginTrans();
            other.execute(L"insert into public_t (id) values (2), (3)");
            rows = other.query(L"select id from public_t order by id");
            EXPECT_TRUE(rows->next());
        }
        EXPECT_EQ(rows->text(0), L"2");
        EXPECT_TRUE(rows->next()); // the rows are there, and the transaction is not
        database->execute(L"insert into public_t (id) values (2)");
    }
    database->lockTables({{L"public_t", true}});
    EXPECT_EQ(count(), L"1");
    EXPECT_TRUE(contains(errorOf([&] { database->query(L"select 1 from domains"); }), L"1100"));
    database->unlockTables();
}

TEST_F(PublicDatabaseTest, ADatabaseGoesIntoAFileAndComesBack) {
    database->execute(L"set foreign_key_checks = 0");
    database->execute(L"create or replace database zop_test_public character set utf8mb4");
    parameters.setDatabase(L"zop_test_public");
    database.emplace(parameters);
    database->execute(L"create table t (a text)");
    database->execute(L"insert into t values ('\u0416')");
    const std::wstring file = std::filesystem::temp_directory_path() / L"zop public.sql";
    bool cancel = true;
    int turns = 0;
    const Hook hook =
        database->progressEvent.hook([&](const DatabaseProgress& progress, bool& stop) {
            EXPECT_LE(progress.table.size(), 1u);
            ++turns;
            stop = cancel;
        });
    EXPECT_FALSE(database->exportTo(file));
    EXPECT_FALSE(std::filesystem::exists(file));
    cancel = false;
    EXPECT_TRUE(database->exportTo(file));
    database->execute(L"drop table t");
    cancel = true;
    EXPECT_FALSE(database->importFrom(file));
    EXPECT_TRUE(contains(errorOf([&] { database->query(L"select a from t"); }), L"1146"));
    cancel = false;
    EXPECT_TRUE(database->importFrom(file));
    ZOPMySQLRecordSet rows = database->query(L"select a from t");
    EXPECT_TRUE(rows.next());
    EXPECT_EQ(rows.text(L"a"), L"\u0416");
    EXPECT_GT(turns, 4);
    std::filesystem::remove(file);
    EXPECT_TRUE(contains(errorOf([&] { database->importFrom(file); }), L"Unable to open file"));
}

TEST_F(PublicDatabaseTest, ErrorsNameWhatFailedAndNeverThePassword) {
    EXPECT_TRUE(contains(errorOf([&] { database->execute(L"insert into nowhere values (1)"); }),
                         L"(Error number 1146)"));
    ZOPDatabaseParameters wrong = parameters;
    wrong.setPassword(L"not the one");
    wrong.setConnectTimeout(30);
    EXPECT_EQ(wrong.getConnectTimeout(), 30u);
    EXPECT_NE(parameters.getPassword(), wrong.getPassword());
    const std::wstring error = errorOf([&] { const ZOPMySQLDatabase refused(wrong); });
    EXPECT_TRUE(contains(error, L"(Error number 1045)"));
    EXPECT_FALSE(contains(error, L"not the one"));
    EXPECT_EQ(ZOPDatabaseParameters::fromConfiguration().getDatabase(), L"panel");
}
