#include "runtime/database/import_tables.h"

#include "runtime/database/export_format.h"
#include "runtime/database/mysql_record_set.h"
#include "runtime/database/sql_text.h"
#include "runtime/database/sql_tokens.h"
#include "runtime/files/path.h"
#include "runtime/log_manager.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "runtime/wipe.h"

#include <algorithm>
#include <mysqld_error.h>

namespace database {

namespace {

const std::string prefix = toUtf8(export_format::importPrefix);
const std::string newPrefix = prefix + "new$";
const std::string oldPrefix = prefix + "old$";
const std::string listName = prefix + "list"; // which old table had which name

// The swap waits for transactions of others that use the tables, but not a day.
constexpr int secondsOfSwap = 60;

// A server may take a moment to notice that the program of an earlier import has ended.
constexpr int secondsOfFarewell = 10;

std::string newName(std::size_t number) {
    return newPrefix + std::to_string(number + 1);
}

std::string oldName(std::size_t number) {
    return oldPrefix + std::to_string(number + 1);
}

std::string textOf(const VMySQLRecordSet& rows, std::size_t column) {
    return std::string(rows.bytes(column).value_or(std::string_view()));
}

// "`a` TO `b`", behind what is there.
void addRename(std::string& sql, const std::string& from, const std::string& to) {
    sql += sql.empty() ? "RENAME TABLE " : ", ";
    sql += quotedName(from) + " TO " + quotedName(to);
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

ImportTables::ImportTables(VMySQLDatabase::Parameters parameters)
    : parameters_(std::move(parameters)) {
    parameters_.reconnect = false; // lock and settings go with the connection
    connect(secondsOfFarewell);
    const auto settings = session().queryRows(
        L"SELECT @@max_allowed_packet, @@lower_case_table_names <> 0, UUID_SHORT()");
    settings->next();
    longestStatement_ = std::stoull(textOf(*settings, 0));
    ignoresCase_ = textOf(*settings, 1) == "1";
    unique_ = textOf(*settings, 2);
    const auto obstacles = session().queryRows(
        L"SELECT CONCAT('it has the trigger (', TRIGGER_NAME, '), which an import would remove') "
        L"FROM information_schema.TRIGGERS WHERE EVENT_OBJECT_SCHEMA = DATABASE() "
        L"UNION ALL SELECT CONCAT('the table (', CONSTRAINT_SCHEMA, '.', TABLE_NAME, ') of another "
        L"database refers to its table (', REFERENCED_TABLE_NAME, ')') "
        L"FROM information_schema.REFERENTIAL_CONSTRAINTS WHERE UNIQUE_CONSTRAINT_SCHEMA = "
        L"DATABASE() AND CONSTRAINT_SCHEMA <> DATABASE()");
    if (obstacles->next()) {
        throw vexception(L"Unable to import into the database: " + toWide(textOf(*obstacles, 0)),
                         {L"", "database::ImportTables::ImportTables", __LINE__});
    }
    recover();
    present_ = list(L"TABLE_TYPE IN ('BASE TABLE', 'SYSTEM VERSIONED')");
    others_ = list(L"TABLE_TYPE NOT IN ('BASE TABLE', 'SYSTEM VERSIONED')");
}

ImportTables::~ImportTables() {
    RunTime::wipe(parameters_.password);
}

bool ImportTables::isSame(const std::string& first, const std::string& second) const {
    return ignoresCase_ ? RunTime::equalNames(toWide(first), toWide(second)) : first == second;
}

void ImportTables::expect(const std::string& name) {
    const auto isThis = [&](const std::string& other) { return isSame(name, other); };
    if (name.starts_with(prefix) || std::any_of(expected_.begin(), expected_.end(), isThis)) {
        throw ArgumentException(L"Unable to import the table (" + toWide(name) +
                                    L"): to the server its name is that of another table",
                                {L"", "database::ImportTables::expect", __LINE__});
    }
    if (std::any_of(others_.begin(), others_.end(), isThis)) {
        throw ArgumentException(L"Unable to import the table (" + toWide(name) +
                                    L"): the database has a view or sequence of that name",
                                {L"", "database::ImportTables::expect", __LINE__});
    }
    expected_.push_back(name);
}

void ImportTables::make(const CreateTable& table) {
    const std::string staged = stagedName(table.name());
    const auto constraint = [&](const std::string& name) {
        return stagedConstraint(table.name(), name);
    };
    for (const CreateTable::ForeignKey& key : table.foreignKeys()) {
        const std::string name = constraint(key.name);
        if (!name.starts_with(staged)) {
            foreignKeys_.push_back({table.name(), name, key});
        }
    }
    run(table.statement([this](const std::string& name) { return stagedName(name); }, constraint));
}

std::string ImportTables::head(const std::string& table, const std::string& columns) const {
    return "INSERT INTO " + quotedName(stagedName(table)) + " " + columns + " VALUES ";
}

void ImportTables::insert(std::string_view statement, std::uint64_t rows,
                          const std::string& table) {
    const std::uint64_t stored =
        session().executeBytes(statement, L"INSERT INTO " + toWide(quotedName(table)));
    if (stored != rows) {
        throw vexception(L"Unable to import the table (" + toWide(table) + L"): of " +
                             std::to_wstring(rows) + L" rows the server stored " +
                             std::to_wstring(stored),
                         {L"", "database::ImportTables::insert", __LINE__});
    }
}

void ImportTables::swap() {
    std::string sql;
    run("CREATE TABLE " + quotedName(listName) +
        " (number INT NOT NULL PRIMARY KEY, name VARBINARY(256) NOT NULL)");
    for (std::size_t i = 0; i < present_.size(); ++i) {
        session().execute(L"INSERT INTO " + toWide(quotedName(listName)) + L" VALUES (?, ?)",
                          {i, toWide(present_[i])});
        addRename(sql, present_[i], oldName(i));
    }
    for (std::size_t i = 0; i < expected_.size(); ++i) {
        addRename(sql, newName(i), expected_[i]);
    }
    // With them on, references follow the tables that they refer to.
    run("SET foreign_key_checks = 1");
    const ThreadCancelation::CancelationPoint shield(false);
    try {
        run(sql);
    } catch (const VDatabase::StatementException&) {
        if (!isSwapped()) {
            throw;
        }
    }
}

std::vector<std::wstring> ImportTables::finish() {
    const ThreadCancelation::CancelationPoint shield(false);
    std::vector<std::wstring> failures;
    // Once more on a connection of its own: this one may be lost.
    const auto attempt = [&](auto&& step) {
        try {
            try {
                step();
            } catch (const VDatabase::StatementException&) {
                connect(secondsOfSwap);
                step();
            }
        } catch (const VDatabase::StatementException& e) {
            if (e.errorNumber() != ER_CANT_DROP_FIELD_OR_KEY) { // it had been carried out
                failures.push_back(e.message());
            }
        } catch (const vexception& e) {
            failures.push_back(e.message());
        }
    };
    attempt([this] {
        run("SET foreign_key_checks = 0"); // the old tables refer to one another
        std::vector<std::string> old = list(L"TABLE_NAME LIKE 'zop$import$old$%'");
        old.push_back(listName);
        drop(old);
    });
    for (const ForeignKey& each : foreignKeys_) {
        attempt([&] {
            run("ALTER TABLE " + quotedName(each.table) + " DROP FOREIGN KEY " +
                quotedName(each.stagedName) + ", ADD CONSTRAINT " + quotedName(each.key.name) +
                " " + each.key.definition);
        });
    }
    return failures;
}

void ImportTables::discard() noexcept {
    const ThreadCancelation::CancelationPoint shield(false);
    try {
        try {
            recover();
            return;
        } catch (const VDatabase::StatementException&) { // the connection is lost, perhaps
        }
        connect(secondsOfSwap);
        recover();
    } catch (const vexception& e) {
        LogManager::getInstance().vAddLog(LogType::Warning, e.what());
    } catch (const std::exception& e) {
        LogManager::getInstance().vAddLog(LogType::Warning, toWide(e.what()));
    }
}

void ImportTables::connect(int lockSeconds) {
    database_.reset(); // which gives the lock back
    database_ = std::make_unique<VMySQLDatabase>(parameters_);
    const auto lock = session().queryRows(
        L"SELECT DATABASE(), GET_LOCK(CONCAT('zop$import$', MD5(DATABASE())), ?)", {lockSeconds});
    lock->next();
    if (!lock->bytes(0)) {
        throw vexception(L"Unable to import: no database is chosen",
                         {L"", "database::ImportTables::connect", __LINE__});
    }
    if (textOf(*lock, 1) != "1") {
        throw vexception(L"Unable to import: another import into this database is at work",
                         {L"", "database::ImportTables::connect", __LINE__});
    }
    session().execute(L"SET time_zone = '+00:00', foreign_key_checks = 0, lock_wait_timeout = ?, "
                      L"sql_mode = 'NO_AUTO_VALUE_ON_ZERO,ALLOW_INVALID_DATES,STRICT_ALL_TABLES,"
                      L"NO_ENGINE_SUBSTITUTION'",
                      {secondsOfSwap});
}

void ImportTables::recover() {
    std::vector<std::string> left = list(L"TABLE_NAME LIKE 'zop$import$%'");
    const auto has = [&left](const std::string& start) {
        return std::any_of(left.begin(), left.end(),
                           [&](const std::string& name) { return name.starts_with(start); });
    };
    if (has(newPrefix) && has(oldPrefix)) {
        undoHalfSwap(left);
        left = list(L"TABLE_NAME LIKE 'zop$import$%'");
    }
    if (!left.empty()) {
        run("SET foreign_key_checks = 0");
        drop(left);
    }
}

// Only a server that does not rename tables atomically comes to this.
void ImportTables::undoHalfSwap(const std::vector<std::string>& left) {
    if (!contains(left, listName)) {
        throw vexception(L"The database has tables of an import that was broken off "
                         L"(zop$import$new$..., zop$import$old$...) and no list of their names",
                         {L"", "database::ImportTables::undoHalfSwap", __LINE__});
    }
    const std::vector<std::string> all = list(L"TABLE_TYPE IN ('BASE TABLE', 'SYSTEM VERSIONED')");
    std::string sql;
    std::size_t away = left.size(); // numbers that no new table has
    const auto rows = session().queryRows(L"SELECT number, name FROM " +
                                          toWide(quotedName(listName)) + L" ORDER BY number");
    while (rows->next()) {
        const std::string old = oldName(std::stoul(textOf(*rows, 0)));
        const std::string name = textOf(*rows, 1);
        if (!contains(left, old)) {
            continue;
        }
        if (contains(all, name)) {
            addRename(sql, name, newPrefix + "away$" + std::to_string(++away));
        }
        addRename(sql, old, name);
    }
    run("SET foreign_key_checks = 1");
    run(sql);
}

std::vector<std::string> ImportTables::list(const wchar_t* condition) {
    const auto rows =
        session().queryRows(std::wstring(L"SELECT TABLE_NAME FROM information_schema.TABLES "
                                         L"WHERE TABLE_SCHEMA = DATABASE() AND ") +
                            condition + L" ORDER BY TABLE_NAME");
    std::vector<std::string> result;
    while (rows->next()) {
        result.push_back(textOf(*rows, 0));
    }
    return result;
}

// Throws ArgumentException for a table that the file does not have: a foreign key refers to it.
std::string ImportTables::stagedName(const std::string& table) const {
    for (std::size_t i = 0; i < expected_.size(); ++i) {
        if (isSame(expected_[i], table)) {
            return newName(i);
        }
    }
    throw ArgumentException(L"Unable to import: a foreign key refers to the table (" +
                                toWide(table) + L"), which the file does not have",
                            {L"", "database::ImportTables::stagedName", __LINE__});
}

// The server renames constraints that are named after their table together with it. Others keep
// their names, which are unique in a database and still those of the old tables.
std::string ImportTables::stagedConstraint(const std::string& table,
                                           const std::string& constraint) {
    const std::string made = table + "_ibfk_";
    if (constraint.starts_with(made)) {
        return stagedName(table) + constraint.substr(table.size());
    }
    const auto known =
        std::find_if(foreignKeys_.begin(), foreignKeys_.end(), [&](const ForeignKey& each) {
            return each.table == table && each.key.name == constraint;
        });
    return known != foreignKeys_.end()
               ? known->stagedName
               : prefix + "key$" + unique_ + "$" + std::to_string(foreignKeys_.size() + 1);
}

// After a failure: whether the tables are in their places all the same.
bool ImportTables::isSwapped() {
    try {
        connect(secondsOfSwap); // the session that ran the statement holds the lock until its end
    } catch (const vexception& e) {
        throw vexception(L"The connection was lost while the new tables took their places; whether "
                         L"they are there is not known: " +
                             e.message(),
                         {L"", "database::ImportTables::isSwapped", __LINE__});
    }
    return list(L"TABLE_NAME LIKE 'zop$import$new$%'").empty();
}

VMySQLDatabase& ImportTables::session() {
    if (!database_) {
        throw VDatabase::StatementException(L"There is no connection to the database", 0,
                                            {L"", "database::ImportTables::session", __LINE__});
    }
    return *database_;
}

void ImportTables::run(const std::string& sql) {
    session().executeBytes(sql, shownStatement(toWide(sql)));
}

void ImportTables::drop(const std::vector<std::string>& tables) {
    std::string sql;
    for (const std::string& table : tables) {
        sql += sql.empty() ? "DROP TABLE IF EXISTS " : ", ";
        sql += quotedName(table);
    }
    run(sql);
}

} // namespace database
