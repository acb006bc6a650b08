// The panel's database on a MySQL or MariaDB server, through the MariaDB client library, over TCP.
//
//     VMySQLDatabase database({.user = L"admin", .password = password, .database = L"panel"});
//
// Whatever the server is set to, texts travel as utf8mb4, so that any script arrives; a text that
// a column cannot hold is an error and is not cut (strict mode); statements outside a transaction
// take effect at once.
//
// Rows are read as the caller asks for them, so a result of any size costs no memory. Another
// statement while rows are left reads those into memory first, and both go on. The server gives
// up on a reader that pauses for long (60 s unless set otherwise).
//
// A connection that was lost while it was idle is opened again by the next statement; inside a
// transaction or table lock that statement fails. One that is lost while a statement runs makes
// it fail: whether it was carried out is not known, so it is never repeated.
#pragma once

#include "runtime/database/database.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

class VMySQLRecordSet;

namespace database {
class MySQLConnection;
} // namespace database

class VMySQLDatabase final : public VDatabase {
public:
    struct Parameters {
        std::wstring host = L"localhost";
        std::uint16_t port = 3306;
        std::wstring user;
        std::wstring password;
        std::wstring database; // empty: none is chosen
        // For all of opening a connection to one address; 0: configuredTimeout().
        std::chrono::seconds connectTimeout{0};
        // Whether a connection that was lost while it was idle is opened again. Not where the work
        // rests on what the session holds.
        bool reconnect = true;
    };

    // The configuration value "MySQLConnectionTimeout", in seconds; 15 where it is missing or 0,
    // at most an hour. Throws vexception when the value has another type.
    static std::chrono::seconds configuredTimeout();

    // The panel's database, as the configuration values "MySQLHost", "MySQLPort", "MySQLLogin",
    // "MySQLPassword" and "MySQLDatabase" name it; localhost, 3306, "admin", none and "panel" where
    // they are missing. The caller wipes the password. Throws vexception for a value that cannot
    // be read, ArgumentException for a port that is none.
    static Parameters configuredParameters();

    // Connects. The password is kept, to open the connection again, and wiped at the end. Throws
    // ConnectException; ArgumentException for a text that no server could be given.
    explicit VMySQLDatabase(Parameters parameters);
    ~VMySQLDatabase() override;

    // What it was made with; the password is in it.
    const Parameters& parameters() const noexcept;

    std::unique_ptr<VRecordSet> query(const std::wstring& sql, const Values& values = {}) override;
    // The same, for those who read columns by their place, or bytes.
    std::unique_ptr<VMySQLRecordSet> queryRows(const std::wstring& sql, const Values& values = {});
    std::uint64_t execute(const std::wstring& sql, const Values& values = {}) override;
    // Sends a statement that is UTF-8 already, without a copy. shown: what errors show of it.
    std::uint64_t executeBytes(std::string_view statement, const std::wstring& shown);
    std::wstring escape(std::wstring_view text) override;
    std::uint64_t lastInsertId() const noexcept override { return lastInsertId_; }

    void beginTrans() override;
    void commitTrans() override;
    void rollbackTrans() override;
    int transLevel() const noexcept override { return level_; }
    void lockTables(const std::vector<LockedTable>& tables) override;
    void unlockTables() override;

private:
    bool isConnected();
    void ready();
    void send(std::string_view statement, const std::wstring& shown);
    void run(const std::wstring& sql, const Values& values);
    void undo(const std::wstring& sql);
    void command(const std::wstring& sql);
    std::uint64_t takeResults(const std::wstring& shown);

    // Shared with the record sets, which may live longer.
    std::shared_ptr<database::MySQLConnection> connection_;
    std::uint64_t lastInsertId_ = 0;
    int level_ = 0;
    bool doomed_ = false; // a rollback inside
    bool locked_ = false;
};
