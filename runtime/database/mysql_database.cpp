#include "runtime/database/mysql_database.h"

#include "runtime/database/mysql_connection.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "runtime/wipe.h"

#include <algorithm>

namespace {

// Reads a value of the configuration; one that is missing leaves the preset as it is.
template <class Value>
void lookup(const wchar_t* name, Value& value) {
    const LSTATUS status =
        registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, name, value, RegistryView::View32);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        _throwError(
            (L"Unable to read the configuration value (" + std::wstring(name) + L")").c_str(),
            static_cast<DWORD>(status), {L"", "VMySQLDatabase::configuredParameters", __LINE__});
    }
}

} // namespace

std::chrono::seconds VMySQLDatabase::configuredTimeout() {
    constexpr DWORD preset = 15;
    constexpr DWORD longest = 3600; // the client library counts milliseconds in 31 bits
    DWORD seconds = preset;
    registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::mySqlConnectionTimeout,
                     seconds, RegistryView::View32);
    return std::chrono::seconds(seconds == 0 ? preset : std::min(seconds, longest));
}

VMySQLDatabase::Parameters VMySQLDatabase::configuredParameters() {
    Parameters parameters;
    std::wstring password;
    const RunTime::WipeOnExit wipePassword(password);
    DWORD port = parameters.port;
    parameters.user = L"admin";
    parameters.database = L"panel";
    lookup(config::name::mySqlHost, parameters.host);
    lookup(config::name::mySqlPort, port);
    lookup(config::name::mySqlLogin, parameters.user);
    lookup(config::name::mySqlPassword, password);
    lookup(config::name::mySqlDatabase, parameters.database);
    if (port == 0 || port > 65'535) {
        throw ArgumentException(L"The configuration value (MySQLPort) is no port of a server",
                                {L"", "VMySQLDatabase::configuredParameters", __LINE__});
    }
    parameters.port = static_cast<std::uint16_t>(port);
    parameters.password = password;
    return parameters;
}

VMySQLDatabase::VMySQLDatabase(Parameters parameters)
    : connection_(std::make_shared<database::MySQLConnection>(std::move(parameters))) {
    connection_->open();
}

// A record set may hold the connection on. A transaction that nobody can end any more must not live
// as long.
VMySQLDatabase::~VMySQLDatabase() {
    if (level_ == 0 && !locked_) {
        return;
    }
    try {
        if (connection_->reader != nullptr) {
            connection_->reader->readAhead();
        }
        connection_->close();
    } catch (const std::bad_alloc&) { // the record set needs it still
    }
}

const VMySQLDatabase::Parameters& VMySQLDatabase::parameters() const noexcept {
    return connection_->parameters();
}

std::unique_ptr<VRecordSet> VMySQLDatabase::query(const std::wstring& sql, const Values& values) {
    return queryRows(sql, values);
}

std::unique_ptr<VMySQLRecordSet> VMySQLDatabase::queryRows(const std::wstring& sql,
                                                           const Values& values) {
    run(sql, values);
    return std::make_unique<VMySQLRecordSet>(connection_, database::shownStatement(sql));
}

std::uint64_t VMySQLDatabase::execute(const std::wstring& sql, const Values& values) {
    run(sql, values);
    lastInsertId_ = ::mysql_insert_id(connection_->get());
    return takeResults(database::shownStatement(sql));
}

std::uint64_t VMySQLDatabase::executeBytes(std::string_view statement, const std::wstring& shown) {
    ready();
    send(statement, shown);
    return takeResults(shown);
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
    if (!connection_->parameters().reconnect) {
        throw StatementException(L"The connection to the database was lost", 0,
                                 {L"", "VMySQLDatabase::ready", __LINE__});
    }
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
    send({statement.data(), statement.size()}, database::shownStatement(sql));
}

void VMySQLDatabase::send(std::string_view statement, const std::wstring& shown) {
    if (connection_->send(statement)) {
        return;
    }
    StatementException failure =
        connection_->failure(shown, {L"", "VMySQLDatabase::run", __LINE__});
    if (level_ > 0 && connection_->isOpen()) {
        // An error does not tell whether the server has ended the transaction by it.
        if (!connection_->send("DO 0") || !connection_->inTransaction()) {
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
    takeResults(database::shownStatement(sql));
}

// To the end, rows that nobody asked for included: a procedure may fail behind them.
std::uint64_t VMySQLDatabase::takeResults(const std::wstring& shown) {
    if (::mysql_field_count(connection_->get()) != 0) {
        VMySQLRecordSet rows(connection_, shown);
        while (rows.next()) {
        }
        return 0;
    }
    const std::uint64_t found = ::mysql_affected_rows(connection_->get());
    if (!connection_->dropFurtherResults()) {
        throw connection_->failure(shown, {L"", "VMySQLDatabase::execute", __LINE__});
    }
    return found;
}
