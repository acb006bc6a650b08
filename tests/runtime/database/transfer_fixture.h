// Databases of a test's own, to be exported and imported.
#pragma once

#include "runtime/database/database_export.h"
#include "runtime/database/database_import.h"
#include "runtime/database/mysql_record_set.h"
#include "runtime/database/sql_text.h"
#include "tests/support/database_fixture.h"
#include "tests/support/temp_directory.h"

class TransferFixture : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (database) {
            source = makeDatabase(L"zop_test_source");
            target = makeDatabase(L"zop_test_target");
        }
    }

    // An empty one; the connection uses it.
    std::unique_ptr<VMySQLDatabase> makeDatabase(const std::wstring& name) {
        database->execute(L"set foreign_key_checks = 0"); // its tables refer to one another
        database->execute(L"create or replace database " + name + L" character set utf8mb4");
        return std::make_unique<VMySQLDatabase>(at(name));
    }
    static Parameters at(const std::wstring& name) {
        Parameters result = parameters();
        result.database = name;
        return result;
    }

    static void run(VMySQLDatabase& on, std::initializer_list<const wchar_t*> statements) {
        for (const wchar_t* statement : statements) {
            on.execute(statement);
        }
    }

    // Tables that refer to one another in a circle and to themselves, by constraints with names of
    // their own and with those that the server gives.
    static void makeFamily(VMySQLDatabase& on) {
        run(on, {L"create table parent (id int unsigned auto_increment primary key, name "
                 L"varchar(50) not null unique, favourite int unsigned) auto_increment = 50",
                 L"create table child (id int unsigned auto_increment primary key, parent_id int "
                 L"unsigned not null, twin_of int unsigned, foreign key (parent_id) references "
                 L"parent (id) on delete cascade, constraint twin foreign key (twin_of) "
                 L"references child (id) on delete set null)",
                 L"alter table parent add constraint favourite foreign key (favourite) references "
                 L"child (id) on delete set null",
                 L"insert into parent (id, name) values (1, 'a'), (2, 'b')",
                 L"insert into child values (10, 1, null), (11, 1, 10), (12, 2, 11)",
                 L"update parent set favourite = 12 where id = 1"});
    }

    // All that an export is to keep, whatever the tables are called beside that. Bytes as digits.
    static std::string imageOf(VMySQLDatabase& of) {
        std::string image;
        of.execute(L"set time_zone = '+00:00'");
        std::vector<std::wstring> tables;
        const auto names = of.query(L"show tables");
        while (names->next()) {
            tables.push_back(names->value(names->columns()[0]));
        }
        for (const std::wstring& name : tables) {
            const std::wstring quoted = database::quotedName(name);
            const auto made = of.queryRows(L"show create table " + quoted);
            made->next();
            image += std::string(*made->bytes(1)) + "\n";
            const auto columns = of.query(L"select column_name from information_schema.columns "
                                          L"where table_schema = database() and table_name = ? "
                                          L"order by ordinal_position",
                                          {name});
            std::wstring cells = L"select concat_ws(','";
            while (columns->next()) {
                cells += L", coalesce(hex(cast(" +
                         database::quotedName(columns->value(L"column_name")) +
                         L" as binary)), '-')";
            }
            const auto rows = of.queryRows(cells + L") from " + quoted + L" order by 1");
            while (rows->next()) {
                image += std::string(*rows->bytes(0)) + "\n";
            }
        }
        return image;
    }

    static std::string errorOf(const std::function<void()>& call) {
        try {
            call();
        } catch (const vexception& e) {
            return toUtf8(e.message());
        }
        return {};
    }

    static VDatabaseImport::Result import(const std::wstring& file) {
        return VDatabaseImport(at(L"zop_test_target"), file).run();
    }

    TempDirectory directory;
    const std::wstring file = directory / L"panel.sql";
    std::unique_ptr<VMySQLDatabase> source;
    std::unique_ptr<VMySQLDatabase> target;
};
