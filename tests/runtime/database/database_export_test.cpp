// What an export holds: every type and value, exactly, and nothing in silence left out.
#include "runtime/database/database_export.h"

#include "runtime/thread_cancelation.h"
#include "tests/runtime/database/transfer_fixture.h"
#include "tests/support/import_patch.h"

#include <random>

namespace {

class DatabaseExportTest : public TransferFixture {
protected:
    ExportSummary exportSource() { return VDatabaseExport(at(L"zop_test_source")).run(file); }

    // Without its first lines, which name the database and the time.
    std::string bodyOf(std::wstring_view name) {
        const std::string content = directory.readFile(name);
        return content.substr(content.find("SET NAMES"),
                              content.rfind("-- Tables") - content.find("SET NAMES"));
    }
};

// Tables with a column of every type, and values at their ends.
constexpr const wchar_t* everyType[] = {
    L"create table `numb``e'r\ns` (`a``\n'` tinyint, b bigint unsigned, c decimal(65,30), d float, "
    L"e double, f bit(13), g year, h boolean default 1, i float(7,3), j int as (h + 1) stored, k "
    L"int as (concat('x', `b`)) virtual invisible, l bit(3) default b'101', m text as (concat(h, "
    L"char(10))) virtual)",
    L"insert into `numb``e'r\ns` (`a``\n'`, b, c, d, e, f, g, i) values (-128, "
    L"18446744073709551615, -12345678901234567890123456789012345.123456789012345678901234567891, "
    L"3.4028e38, 1.7976931348623157e308, b'1000000000001', 1901, 1234.567), (0, 0, 0, "
    L"1.17549435e-38, 5e-324, 0, 0, -0.001), (1, 7, 0.1, 0.1, 0.1, 10, 2155, 0), (2, 8, 16777217, "
    L"16777216, 1e22, 39, 2026, 1), (null, null, null, null, null, null, null, null)",
    L"create table times (a date, b datetime(6), c timestamp(6) null default current_timestamp(6) "
    L"on update current_timestamp(6), d time(6), e timestamp null)",
    L"set sql_mode = 'ALLOW_INVALID_DATES', time_zone = '+05:00'",
    L"insert into times values ('0000-00-00', '9999-12-31 23:59:59.999999', '2038-01-19 "
    L"08:14:07.999999', '-838:59:59.999999', '1970-01-01 05:00:01'), ('2026-02-31', '0000-00-00', "
    L"'0000-00-00', '00:00:00', null)",
    L"set sql_mode = 'STRICT_ALL_TABLES', time_zone = '+00:00'",
    L"create table kinds (e enum('x', 'it''s', '', '\\\\') , s set('a', 'b', 'c'), j json, u uuid "
    L"default uuid(), n inet6, g geometry, p point not null, spatial key (p), k "
    L"enum('\u00e4','\u0416') comment 'a ''comment''; with `all` \\\\ \\n \u0416') comment 'x;'",
    L"insert into kinds values ('it''s', 'a,c', '{\"a\": \"\\\\\\\\ \U0001F600\"}', default, "
    L"'::1', st_geomfromtext('POLYGON((0 0,1 0,1 1,0 0))', 4326), point(1, 2), '\u0416'), ('', '', "
    L"null, null, null, null, point(-1e-300, 1e300), null), ('\\\\', 'a,b,c', '[]', null, '1:2::', "
    L"null, point(0, 0), '\u00e4')",
    L"create table charsets (a varchar(300) character set latin1, b varchar(300) character set "
    L"sjis, c text character set utf16, d char(200) character set ucs2, e enum('\u00e9', 'b') "
    L"character set latin1, f varchar(300) character set utf8mb3) engine = MyISAM",
    L"insert into charsets values ('\u20ac\u00e9', '\u8868\u3042\\\\', '\U0001F600', '\u0416', "
    L"'\u00e9', '\u0416'), (unhex('818D8F909D'), '', '', '', null, '')",
    L"create table parts (a int primary key, b int check (b > 0 or b is null)) partition by range "
    L"(a) (partition p0 values less than (10) comment = 'p', partition p1 values less than "
    L"maxvalue)",
    L"insert into parts values (1, 2), (100, null)",
    L"create table bytes (id int primary key auto_increment, t longtext, b longblob, v "
    L"varbinary(2000), x binary(7)) auto_increment = 18000",
    L"set sql_mode = 'NO_AUTO_VALUE_ON_ZERO'",
    L"insert into bytes values (0, '', '', '', '')",
    L"create table empty (a int)"};

} // namespace

TEST_F(DatabaseExportTest, EveryTypeAndValueComesBackExactly) {
    for (const wchar_t* statement : everyType) {
        source->execute(statement);
    }
    makeFamily(*source);
    std::mt19937 random(7); // NOLINT(cert-msc51-cpp): the same values in every run
    for (int row = 1; row < 300; ++row) {
        std::wstring text;
        const std::size_t length = row == 1 ? 700'000 : row == 2 ? 262'144 : random() % 200;
        for (std::size_t i = 0; i < length; ++i) {
            constexpr std::wstring_view letters(L"a';`\"\\\0\n\r\t\x1a%_-#/*\u00e9\u4e00\u202e",
                                                20);
            const auto letter = random() % (letters.size() + 1);
            text += letter < letters.size() ? std::wstring(1, letters[letter]) : L"\U0001F980";
        }
        std::string bytes(random() % 200, '\0');
        std::string digits;
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
            digits += "0123456789ABCDEF"[(byte >> 4) & 15];
            digits += "0123456789ABCDEF"[byte & 15];
        }
        const std::wstring hex = toWide(digits);
        source->execute(L"insert into bytes values (?, ?, unhex(?), unhex(?), unhex(left(?, 14)))",
                        {row * 3, text, hex, hex, hex});
    }

    const ExportSummary summary = exportSource();
    EXPECT_EQ(summary.tables, 9u);
    EXPECT_EQ(summary.rows, 5u + 2 + 3 + 2 + 2 + 300 + 5);
    EXPECT_EQ(summary.database, L"zop_test_source");
    EXPECT_EQ(summary.bytes, directory.readFile(L"panel.sql").size());
    EXPECT_EQ(directory.list(), std::vector<std::wstring>{L"panel.sql"});

    target->execute(L"create table numbers (old int)");
    const VDatabaseImport::Result result = import(file);
    EXPECT_EQ(result.rows, summary.rows);
    EXPECT_TRUE(result.leftBehind.empty()) << toUtf8(result.leftBehind[0]);
    EXPECT_EQ(imageOf(*target), imageOf(*source));
    VDatabaseExport(at(L"zop_test_target")).run(directory / L"again.sql");
    EXPECT_EQ(bodyOf(L"again.sql"), bodyOf(L"panel.sql"));
}

TEST_F(DatabaseExportTest, AllRowsAreOfOneMoment) {
    makeFamily(*source);
    VDatabaseExport exporter(at(L"zop_test_source"));
    int calls = 0;
    const Hook meddler = exporter.progressEvent.hook([&](const DatabaseProgress&, bool&) {
        if (calls++ == 0) { // nothing has been read yet but the definitions
            source->execute(L"delete from parent where id = 1");
            source->execute(L"insert into parent (name) values ('later')");
        }
    });
    const std::string before = imageOf(*source);
    exporter.run(file);
    import(file);
    EXPECT_EQ(imageOf(*target), before);
    EXPECT_GT(calls, 2);
}

TEST_F(DatabaseExportTest, AFileIsThereWholeOrNotAtAll) {
    makeFamily(*source);
    directory.writeFile(L"panel.sql", "old");
    const auto isOld = [this] {
        return directory.readFile(L"panel.sql") == "old" && directory.list().size() == 1;
    };
    // Cancelled at every turn, by a handler and by a request to the thread.
    for (const bool byRequest : {false, true}) {
        bool asked = true;
        for (int n = 0; asked; ++n) {
            SCOPED_TRACE(n);
            const ThreadCancelation::CancelationPoint cancellable;
            VDatabaseExport exporter(at(L"zop_test_source"));
            int turn = 0;
            asked = false;
            const Hook canceller =
                exporter.progressEvent.hook([&](const DatabaseProgress&, bool& cancel) {
                    if (turn++ == n) {
                        asked = true;
                        cancel = !byRequest;
                        if (byRequest) {
                            ThreadCancelation::request(::GetCurrentThreadId());
                        }
                    }
                });
            const std::string error = errorOf([&] { exporter.run(file); });
            EXPECT_EQ(error, asked ? "Canceled!" : "");
            EXPECT_EQ(isOld(), asked);
        }
        directory.writeFile(L"panel.sql", "old");
    }
    for (const char* function :
         {"CreateFileW", "WriteFile", "ReadFile", "SetFilePointerEx", "FlushFileBuffers",
          "MoveFileExW", "ConvertStringSecurityDescriptorToSecurityDescriptorW"}) {
        FaultPoint fault(function);
        fault.code = ERROR_DISK_FULL;
        fault.result = function == std::string("CreateFileW")
                           ? reinterpret_cast<std::uintptr_t>(INVALID_HANDLE_VALUE)
                           : 0;
        for (long n = 0; n == 0 || fault.fired(); ++n) {
            SCOPED_TRACE(std::string(function) + " " + std::to_string(n));
            ASSERT_TRUE(isOld());
            fault.calls = 0;
            fault.failAt = n;
            const std::string error = errorOf([this] { exportSource(); });
            EXPECT_EQ(error.empty(), !fault.fired()) << error;
        }
        fault.failAt = -1;
        EXPECT_FALSE(isOld());
        directory.writeFile(L"panel.sql", "old");
    }
}

TEST_F(DatabaseExportTest, WhatAnExportDoesNotHoldIsRefusedByName) {
    const auto expectRefusal = [this](const wchar_t* make, const wchar_t* drop, const char* text) {
        source->execute(make);
        const std::string error = errorOf([this] { exportSource(); });
        EXPECT_NE(error.find(text), std::string::npos) << error;
        source->execute(drop);
    };
    source->execute(L"create table t (a int)");
    expectRefusal(L"create view v as select 1", L"drop view v", "view (v)");
    expectRefusal(L"create trigger g before insert on t for each row set @x = 1", L"drop trigger g",
                  "trigger (g)");
    expectRefusal(L"create procedure p() select 1", L"drop procedure p", "procedure (p)");
    expectRefusal(L"create sequence s", L"drop sequence s", "sequence (s)");
    expectRefusal(L"create table h (a int) with system versioning", L"drop table h",
                  "system versioned (h)");
    expectRefusal(L"create table e (a int not null) engine = CSV", L"drop table e", "table (e)");
    source->execute(L"create table zop$import$new$1 (a int not null) engine = CSV");
    source->execute(L"set sql_mode = ''");
    source->execute(L"create table e (a enum('x', 'y'))");
    expectRefusal(L"insert into e values ('no such')", L"drop table e", "column (a)");
    source->execute(L"create table e (a enum('x', '\U0001F600'))");
    expectRefusal(L"insert into e values ('\U0001F600')", L"drop table e", "column (a)");
    EXPECT_EQ(directory.list().size(), 0u);
    EXPECT_EQ(exportSource().tables, 1u) << "what an import left is not the panel's";
}
