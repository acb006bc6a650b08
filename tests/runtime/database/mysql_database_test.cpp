// Statements, values and rows against a real server.
#include "runtime/database/mysql_database.h"

#include "tests/support/database_fixture.h"

#include <limits>
#include <psapi.h>
#include <random>

namespace {

class MySQLDatabaseTest : public DatabaseFixture {};

// What has broken escaping somewhere before, and random mixtures of it.
std::vector<std::wstring> hostileTexts() {
    std::vector<std::wstring> texts = {L"",
                                       L"' or 1=1 -- ",
                                       L"'; drop table texts; #",
                                       L"C:\\vhosts\\",
                                       L"%s ? _% NULL ",
                                       L"\u202Eabc\u05D0\u0627 a\u0301",
                                       std::wstring(L"a\0b\0", 4),
                                       std::wstring(100'000, L'\'')};
    std::wstring controls;
    for (wchar_t c = 1; c < 0xA0; ++c) {
        controls += c;
    }
    texts.push_back(controls);
    const std::wstring pieces[] = {L"\\", L"'", L"\"", L"`", L"?", L"\u00BF\xFFFD", L"\U0001F600"};
    std::mt19937 random(1);
    for (int i = 0; i < 100; ++i) {
        std::wstring text;
        for (auto n = random() % 12; n > 0; --n) {
            text += pieces[random() % std::size(pieces)];
        }
        texts.push_back(text);
    }
    return texts;
}

SIZE_T memoryInUse() {
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof counters;
    EXPECT_TRUE(::GetProcessMemoryInfo(::GetCurrentProcess(),
                                       reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                                       sizeof counters));
    return counters.PrivateUsage;
}

} // namespace

TEST_F(MySQLDatabaseTest, AnyTextComesBackAsItWas) {
    makeTable(L"texts", L"id int, t longtext collate utf8mb4_bin");
    for (const wchar_t* mode : {L"", L"NO_BACKSLASH_ESCAPES,ANSI_QUOTES"}) {
        database->execute(L"set session sql_mode = ?", {mode});
        database->execute(L"delete from texts");
        const std::vector<std::wstring> texts = hostileTexts();
        for (std::size_t i = 0; i < texts.size(); ++i) {
            SCOPED_TRACE("text " + std::to_string(i));
            ASSERT_EQ(database->execute(L"insert into texts (t, id) values (?, ?)", {texts[i], i}),
                      1U);
            ASSERT_EQ(one(L"select t from texts where id = ? and t = ?", {i, texts[i]}),
                      toUtf8(texts[i]));
            ASSERT_EQ(one(L"select '" + database->escape(texts[i]) + L"'"), toUtf8(texts[i]));
        }
        EXPECT_EQ(one(L"select count(*) from texts"), std::to_string(texts.size()));
    }
}

TEST_F(MySQLDatabaseTest, NullNumbersAndColumnsAreWhatTheyAre) {
    const auto rows =
        database->query(L"select ? as a, ? as B, ? as c, ? as d, ? as a, 'it''s' as `\u00E9`",
                        {nullptr, L"", std::numeric_limits<std::int64_t>::min(),
                         std::numeric_limits<std::uint64_t>::max(), 7});
    EXPECT_THROW(rows->text(L"a"), vexception) << "there is no row yet";
    ASSERT_TRUE(rows->next());
    EXPECT_EQ(rows->text(L"A"), std::nullopt);
    EXPECT_THROW(rows->value(L"a"), vexception);
    EXPECT_EQ(rows->value(L"b"), L"");
    EXPECT_EQ(rows->value(L"c"), L"-9223372036854775808");
    EXPECT_EQ(rows->value(L"d"), L"18446744073709551615");
    EXPECT_THROW(rows->text(L"e"), vexception);
    EXPECT_EQ(rows->value(L"\u00C9"), L"it's");
    EXPECT_FALSE(rows->next());
    EXPECT_THROW(rows->text(L"b"), vexception);
    const auto bytes = database->query(L"select x'ff' as b");
    ASSERT_TRUE(bytes->next());
    EXPECT_THROW(bytes->text(L"b"), vexception);
}

TEST_F(MySQLDatabaseTest, ValuesThatCouldLandOutsideTheirQuotesAreRefused) {
    const std::wstring value = L"x";
    const std::pair<const wchar_t*, VDatabase::Values> cases[] = {
        {L"select ?", {value, value}},   {L"select ?, ?", {value}},  {L"select 'a''?'", {value}},
        {L"select `?`", {value}},        {L"select \"?\"", {value}}, {L"select '\\', ?", {value}},
        {L"select ? -- don't", {value}}, {L"select ? # '", {value}}, {L"select ? /* ' */", {value}},
        {L"select 1", {value}},          {L"select ?", {L"\xD800"}}, {L"select '\xDBFF'", {}}};
    for (const auto& [sql, values] : cases) {
        EXPECT_THROW(database->query(sql, values), ArgumentException) << toUtf8(sql);
    }
    EXPECT_THROW(database->escape(L"\xD83D"), ArgumentException);
    statementError(1064, [this] { database->execute(L"do 1; do 2"); });
}

TEST_F(MySQLDatabaseTest, ErrorsHaveTheServersTextAndNoValues) {
    const std::string missing = statementError(1146, [this] {
        database->execute(L"update missing set password = ? where login = ?", {L"s3cret", L"u"});
    });
    EXPECT_EQ(missing, "Unable to execute (update missing set password = ? where login = ?): Table "
                       "'zop_test.missing' doesn't exist (Error number 1146)");
    const std::string quoted = statementError(1146, [this] {
        database->query(L"select 1 from missing where password = 's3cret' and a = 1");
    });
    EXPECT_NE(quoted.find("where password = ...)"), std::string::npos) << quoted;

    makeTable(L"narrow", L"t varchar(3), l varchar(9) character set latin1");
    statementError(1406, [this] { database->execute(L"insert into narrow (t) values ('abcd')"); });
    statementError(
        1366, [this] { database->execute(L"insert into narrow (l) values (?)", {L"\U0001F600"}); });
}

TEST_F(MySQLDatabaseTest, StatementsTellWhatTheyFoundAndMade) {
    makeTable(L"made", L"id int auto_increment primary key, t int");
    EXPECT_EQ(database->execute(L"insert into made (t) values (1), (1), (2)"), 3U);
    EXPECT_EQ(database->lastInsertId(), 1U);
    EXPECT_EQ(database->execute(L"update made set t = ? where t = 1", {1}), 2U)
        << "found, though nothing changed";
    EXPECT_EQ(database->execute(L"delete from made where t = 5"), 0U);
    {
        VDatabase::Transaction transaction(*database);
        database->execute(L"insert into made (id, t) values (2000000000, 3)");
        database->execute(L"insert into made (t) values (4)");
        transaction.commit();
    }
    EXPECT_EQ(database->lastInsertId(), 2'000'000'001U) << "kept over the commit";
}

TEST_F(MySQLDatabaseTest, RowsOfAnySizeCostNoMemory) {
    const auto rows =
        database->query(L"select seq, repeat('x', 200) as t from seq_1_to_100000 order by seq");
    ASSERT_TRUE(rows->next());
    const SIZE_T before = memoryInUse();
    std::size_t count = 1;
    SIZE_T most = before;
    while (rows->next()) {
        ++count;
        if (count % 1000 == 0) {
            EXPECT_EQ(rows->value(L"seq"), std::to_wstring(count));
            most = std::max(most, memoryInUse());
        }
    }
    EXPECT_EQ(count, 100'000U);
    EXPECT_LT(most - before, 1'000'000U) << "of 20 MB";
}

TEST_F(MySQLDatabaseTest, StatementsMayRunWhileRowsAreRead) {
    makeTable(L"roots", L"id int, root text");
    database->execute(L"insert into roots select seq, concat('old', seq) from seq_1_to_500");
    const auto rows = database->query(L"select id, root from roots order by id");
    int count = 0;
    while (rows->next()) {
        ++count;
        EXPECT_EQ(rows->value(L"root"), L"old" + std::to_wstring(count));
        EXPECT_EQ(database->execute(L"update roots set root = ? where id = ?",
                                    {L"new" + rows->value(L"root"), rows->value(L"id")}),
                  1U);
    }
    EXPECT_EQ(count, 500);
    EXPECT_EQ(one(L"select count(*) from roots where root like 'newold%'"), "500");

    database->query(L"select seq from seq_1_to_100000")->next(); // given up at once
    const auto left = database->query(L"select seq from seq_1_to_50000");
    database.reset();
    for (count = 0; left->next(); ++count) {
    }
    EXPECT_EQ(count, 50'000) << "the rows live longer than the database";
}

TEST_F(MySQLDatabaseTest, AProcedureIsReadToItsEnd) {
    database->execute(L"drop procedure if exists p");
    database->execute(L"create procedure p() begin select 1; select 2; select * from gone; end");
    statementError(1146, [this] { database->execute(L"call p()"); });
    const auto rows = database->query(L"call p()");
    EXPECT_TRUE(rows->next());
    statementError(1146, [&] { rows->next(); });
    EXPECT_EQ(one(L"select 3"), "3");
    statementError(0, [this] { database->query(L"do 1"); });
}
