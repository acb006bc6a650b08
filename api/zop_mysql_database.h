// A MySQL or MariaDB database: statements, rows, transactions, table locks, export and import.
//
//     zopobsolete::ZOPMySQLDatabase panel;
//     panel.execute(L"update sys_users set home = ? where login = ?", {home, login});
//
// Values go into a statement through its placeholders and nowhere else: each ? stands for the next
// one, which is escaped for the connection and put between quotes. A connection that was lost while
// it was idle is opened again; inside a transaction or table lock every statement then fails.
//
// One thread at a time, for the object and its record sets together; several objects at once are
// fine. Every failure leaves as ZOPDatabaseException with the whole text.
#pragma once

#include "api/zop_database_parameters.h"
#include "api/zop_mysql_record_set.h"
#include "runtime/database/database_progress.h"
#include "runtime/event.h"
#include "runtime/export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

class VMySQLDatabase;

namespace zopobsolete {

class ZOP_API ZOPMySQLDatabase {
public:
    // NULL, a text or a whole number.
    using Value = std::variant<std::nullptr_t, std::wstring, std::int64_t, std::uint64_t>;
    using Values = std::vector<Value>;

    struct LockedTable {
        std::wstring name;
        bool write = false; // nobody else may use it; otherwise nobody may change it
    };

    // Connects to the panel's database, or to the one that the parameters name.
    ZOPMySQLDatabase();
    explicit ZOPMySQLDatabase(const ZOPDatabaseParameters& parameters);
    ~ZOPMySQLDatabase();
    ZOPMySQLDatabase(const ZOPMySQLDatabase&) = delete;
    ZOPMySQLDatabase& operator=(const ZOPMySQLDatabase&) = delete;

    // Runs a statement that gives rows. Another statement while rows are left at the server reads
    // those into memory first.
    ZOPMySQLRecordSet query(const std::wstring& sql, const Values& values = {});

    // Runs a statement that gives none, and returns the number of rows that it found.
    std::uint64_t execute(const std::wstring& sql, const Values& values = {});

    // The text as it may stand between single quotes in a statement to this server, now.
    std::wstring escape(const std::wstring& text);

    // The identifier that the last execute() made in an AUTO_INCREMENT column; 0: none.
    std::uint64_t lastInsertId();

    // Transactions nest: the outermost begins and ends, the others count. A rollback inside marks
    // the whole; the outermost commitTrans then rolls back and fails.
    void beginTrans();
    void commitTrans();
    void rollbackTrans();
    // How many transactions are open, one in the other.
    std::int32_t transLevel();

    // Lock tables for this connection, which then can use no others. Not inside a transaction.
    void lockTables(const std::vector<LockedTable>& tables);
    void unlockTables();

    // Writes all tables of the database into one file, which only System and Administrators may
    // read, and makes the database what such a file says: its tables are replaced all at once, and
    // those that the file does not have are removed. Both work on a connection of their own and
    // raise progressEvent. False when a handler cancelled, or the thread was asked to; then, and
    // after a failure, the file or the database is as it was.
    bool exportTo(const std::wstring& file);
    bool importFrom(const std::wstring& file);

    // progress, cancel
    Event<const DatabaseProgress&, bool&> progressEvent;

    // Releases the connection and rolls back a transaction that is open; later calls fail. Record
    // sets live on.
    void Dispose();

private:
    std::shared_ptr<VMySQLDatabase> native();

    std::shared_ptr<VMySQLDatabase> database_; // shared with the operation that runs
};

} // namespace zopobsolete
