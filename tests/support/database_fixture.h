// A test with the private database server that scripts/sandbox.sh --database starts.
#pragma once

#include "runtime/database/mysql_database.h"
#include "runtime/text.h"
#include "tests/support/registry_override.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <string>

class DatabaseFixture : public ::testing::Test {
protected:
    using Parameters = VMySQLDatabase::Parameters;

    void SetUp() override {
        if (std::getenv("ZOP_TEST_DB_PORT") == nullptr) {
            GTEST_SKIP() << "no database server: run by scripts/sandbox.sh --database";
        }
        database = std::make_unique<VMySQLDatabase>(parameters());
    }

    static Parameters parameters() {
        const auto environment = [](const char* name) {
            const char* value = std::getenv(name);
            return value == nullptr ? std::wstring() : toWide(value);
        };
        return {.host = environment("ZOP_TEST_DB_HOST"),
                .port = static_cast<std::uint16_t>(std::stoi(environment("ZOP_TEST_DB_PORT"))),
                .user = environment("ZOP_TEST_DB_USER"),
                .password = environment("ZOP_TEST_DB_PASSWORD"),
                .database = L"zop_test"};
    }

    // Names the server in the panel's configuration, which is a test's own.
    static void configure(const RegistryOverride&) {
        const Parameters server = parameters();
        RegistryOverride::setString(L"MySQLHost", server.host);
        RegistryOverride::setDword(L"MySQLPort", server.port);
        RegistryOverride::setString(L"MySQLLogin", server.user);
        RegistryOverride::setString(L"MySQLPassword", server.password);
        RegistryOverride::setString(L"MySQLDatabase", server.database);
    }

    // A table of this test, dropped by the next that makes one of the name.
    void makeTable(const std::wstring& name, const std::wstring& columns) {
        database->execute(L"drop table if exists " + name);
        database->execute(L"create table " + name + L" (" + columns + L") engine = InnoDB");
    }

    // The only value of a query, as UTF-8.
    std::string one(const std::wstring& sql, const VDatabase::Values& values = {}) {
        return oneOf(*database, sql, values);
    }
    static std::string oneOf(VDatabase& from, const std::wstring& sql,
                             const VDatabase::Values& values = {}) {
        const auto rows = from.query(sql, values);
        return rows->next() ? toUtf8(rows->text(rows->columns()[0]).value_or(L"NULL")) : "none";
    }

    // The rows of a record set, cells apart by blanks.
    static std::string rowsOf(const std::unique_ptr<VRecordSet>& rows) {
        std::wstring result;
        while (rows->next()) {
            for (const std::wstring& column : rows->columns()) {
                result += rows->text(column).value_or(L"NULL") + L" ";
            }
        }
        return toUtf8(result);
    }

    std::unique_ptr<VMySQLDatabase> database;
};

// fn must throw exactly a StatementException with this number; returns its message.
template <class Function>
std::string statementError(std::uint32_t number, Function&& fn) {
    try {
        fn();
    } catch (const VDatabase::StatementException& e) {
        EXPECT_EQ(number, e.errorNumber()) << toUtf8(e.what());
        return toUtf8(e.message());
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}
