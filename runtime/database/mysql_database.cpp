#include "runtime/database/mysql_database.h"

#include "runtime/database/mysql_connection.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"

#include <algorithm>

std::chrono::seconds VMySQLDatabase::configuredTimeout() {
    constexpr DWORD preset = 15;
    constexpr DWORD longest = 3600; // the client library counts milliseconds in 31 bits
    DWORD seconds = preset;
    registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::mySqlConnectionTimeout,
                     seconds, RegistryView::View32);
    return std::chrono::seconds(seconds == 0 ? preset : std::min(seconds, longest));
}

VMySQLDatabase::VMySQLDatabase(Parameters parameters)
    : connection_(std::make_shared<database::MySQLConnection>(std::move(parameters))) {
    connection_->open();
}

VMySQLDatabase::~VMySQLDatabase() = default;

std::unique_ptr<VRecordSet> VMySQLDatabase::query(const std::wstring& sql, const Values& values) {
    run(sql, values);
    return std::make_unique<VMySQLRecordSet>(connection_, database::shownStatement(sql));
}

std::uint64_t VMySQLDatabase::execute(const std::wstring& sql, const Values& values) {
    run(sql, values);
    lastInsertId_ = ::mysql_insert_id(connection_->get());
    return takeResults(sql);
}

std::wstring VMySQLDatabase::escape(std::wstring_view text) {
    ready();
    const database::Bytes bytes = database::toSqlBytes(text);
    database::Bytes escaped;
    connection_->escape(escaped, {bytes.data(), bytes.size()});
    return toWide({escaped.data(), escaped.size()});
}

void VMySQLDatabase::beginTrans() {
    if (locked_) {
        throw vexception(L"Unable to begin a transaction while tables are locked",
                         {L"", "VMySQLDatabase::beginTrans", __LINE__});
    }
    if (level_ == 0) {
        command(L"START TRANSACTION");
        doomed_ = false;
    }
    ++level_;
}

void VMySQLDatabase::commitTrans() {
    const vexception::CallStackInfo frame{L"", "VMySQLDatabase::commitTrans", __LINE__};
    if (level_ == 0) {
        throw vexception(L"There is no transaction to commit", frame);
    }
    if (level_ > 1) {
        --level_;
        return;
    }
    if (doomed_) {
        rollbackTrans();
        throw vexception(L"Unable to commit the transaction: a part of it was rolled back", frame);
    }
    try {
        command(L"COMMIT");
    } catch (...) {
        rollbackTrans();
        throw;
    }
    level_ = 0;
}

void VMySQLDatabase::rollbackTrans() {
    if (level_ == 0) {
        throw vexception(L"There is no transaction to roll back",
                         {L"", "VMySQLDatabase::rollbackTrans", __LINE__});
    }
    if (--level_ > 0) {
        doomed_ = true;
        return;
    }
    doomed_ = false;
    undo(L"ROLLBACK");
}

void VMySQLDatabase::lockTables(const std::vector<LockedTable>& tables) {
    if (level_ > 0 || locked_) {
        throw vexception(L"Unable to lock tables inside a transaction or another lock",
                         {L"", "VMySQLDatabase::lockTables", __LINE__});
    }
    std::wstring sql;
    for (const LockedTable& table : tables) {
        sql += (sql.empty() ? L"LOCK TABLES " : L", ") + database::quotedName(table.name) +
               (table.lock == Lock::Write ? L" WRITE" : L" READ");
    }
    command(sql);
    locked_ = true;
}

void VMySQLDatabase::unlockTables() {
    if (!locked_) {
        throw vexception(L"There is no table lock",
                         {L"", "VMySQLDatabase::unlockTables", __LINE__});
    }
    locked_ = false;
    undo(L"UNLOCK TABLES");
}

// Whether the connection is there, after making it free for a statement.
bool VMySQLDatabase::isConnected() {
    if (connection_->reader != nullptr) {
        connection_->reader->readAhead();
    }
    return connection_->isAlive();
}

// Opens the connection again where nothing is lost by that.
void VMySQLDatabase::ready() {
    const bool alive = isConnected();
    if (alive && (level_ == 0 || connection_->inTransaction())) {
        return;
    }
    // What would follow a transaction that the server has ended would take effect at once.
    connection_->close();
    if (level_ > 0 || locked_) {
        const wchar_t* reason =
            locked_ ? L"The connection to the database was lost, and the table lock with it"
            : alive ? L"The server has ended the transaction"
                    : L"The connection to the database was lost, and the transaction with it";
        throw StatementException(reason, 0, {L"", "VMySQLDatabase::ready", __LINE__});
    }
    connection_->open();
}

// Leaves the results to the caller.
void VMySQLDatabase::run(const std::wstring& sql, const Values& values) {
    ready();
    const database::Bytes statement =
        database::bindValues(sql, values, [this](database::Bytes& to, std::string_view text) {
            connection_->escape(to, text);
        });
    if (connection_->send(statement)) {
        return;
    }
    StatementException failure =
        connection_->failure(database::shownStatement(sql), {L"", "VMySQLDatabase::run", __LINE__});
    if (level_ > 0 && connection_->isOpen()) {
        // An error does not tell whether the server has ended the transaction by it.
        constexpr std::string_view nothing = "DO 0";
        if (!connection_->send({nothing.begin(), nothing.end()}) || !connection_->inTransaction()) {
            connection_->close();
        }
    }
    throw failure;
}

// Where the statement cannot be carried out, the end of the connection makes the server do it.
void VMySQLDatabase::undo(const std::wstring& sql) {
    try {
        if (isConnected()) {
            command(sql);
            return;
        }
    } catch (const vexception& e) {
        LogManager::getInstance().vAddLog(LogType::Warning, e.what());
    }
    connection_->close();
}

// A statement of ours, which leaves the caller's last identifier alone.
void VMySQLDatabase::command(const std::wstring& sql) {
    run(sql, {});
    takeResults(sql);
}

// To the end, rows that nobody asked for included: a procedure may fail behind them.
std::uint64_t VMySQLDatabase::takeResults(const std::wstring& sql) {
    if (::mysql_field_count(connection_->get()) != 0) {
        VMySQLRecordSet rows(connection_, database::shownStatement(sql));
        while (rows.next()) {
        }
        return 0;
    }
    const std::uint64_t found = ::mysql_affected_rows(connection_->get());
    if (!connection_->dropFurtherResults()) {
        throw connection_->failure(database::shownStatement(sql),
                                   {L"", "VMySQLDatabase::execute", __LINE__});
    }
    return found;
}
