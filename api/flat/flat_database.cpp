#include "api/flat/flat_support.h"
#include "api/zop_database_exception.h"
#include "api/zop_mysql_database.h"

#include <memory>
#include <mutex>
#include <string_view>

using namespace zopobsolete::flat;
using zopobsolete::ZOPDatabaseException;
using zopobsolete::ZOPDatabaseParameters;
using zopobsolete::ZOPMySQLDatabase;
using zopobsolete::ZOPMySQLRecordSet;

namespace {

// A database and its record sets have one connection. A runtime that collects garbage frees them on
// a thread of its own, whatever the others are used for just then.
using Exclusion = std::shared_ptr<std::mutex>;

// The object, and nobody else at its connection as long as this lives.
template <class Native>
class Use {
public:
    Use(Native& native, const Exclusion& exclusion) : lock_(*exclusion), native_(native) {}
    Native* operator->() const noexcept { return &native_; }

private:
    std::unique_lock<std::mutex> lock_;
    Native& native_;
};

template <class Native>
struct Shared {
    Shared(Native made, Exclusion among)
        : native(std::make_unique<Native>(std::move(made))), exclusion(std::move(among)) {}
    ~Shared() {
        const std::lock_guard lock(*exclusion);
        native.reset();
    }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

    std::unique_ptr<Native> native;
    Exclusion exclusion;
};

} // namespace

struct zop_database : Shared<std::unique_ptr<ZOPMySQLDatabase>> {
    using Shared::Shared;
};

struct zop_record_set : Shared<ZOPMySQLRecordSet> {
    using Shared::Shared;
};

namespace {

Use<ZOPMySQLDatabase> of(zop_database* given) {
    return {**needed(given, L"database")->native, given->exclusion};
}

Use<ZOPMySQLRecordSet> of(zop_record_set* given) {
    return {*needed(given, L"rows")->native, given->exclusion};
}

ZOPDatabaseParameters parametersOf(const zop_database_parameters* given) {
    const zop_database_parameters from = copyOf(given);
    const auto text = [](const wchar_t* value) {
        return std::wstring(value != nullptr ? value : L"");
    };
    ZOPDatabaseParameters parameters;
    if (from.host != nullptr) {
        parameters.setHost(from.host);
    }
    if (from.port > 65'535) {
        throw ZOPDatabaseException(L"The number (" + std::to_wstring(from.port) +
                                   L") is no port of a server: it has to be from 1 to 65535");
    }
    if (from.port != 0) {
        parameters.setPort(static_cast<std::uint16_t>(from.port));
    }
    parameters.setLogin(text(from.login));
    std::wstring password = text(from.password);
    const RunTime::WipeOnExit wiped(password);
    parameters.setPassword(password);
    parameters.setDatabase(text(from.database));
    parameters.setConnectTimeout(from.connect_timeout);
    return parameters;
}

ZOPMySQLDatabase::Values valuesOf(const zop_value* values, std::size_t count) {
    ZOPMySQLDatabase::Values result;
    for (std::size_t i = 0; i < count; ++i) {
        const zop_value& value = needed(values, L"values")[i];
        switch (value.kind) {
        case ZOP_VALUE_NULL:
            result.emplace_back(nullptr);
            break;
        case ZOP_VALUE_TEXT:
            result.emplace_back(std::wstring(needed(value.text, L"values"), value.length));
            break;
        case ZOP_VALUE_SIGNED:
            result.emplace_back(value.number);
            break;
        case ZOP_VALUE_UNSIGNED:
            result.emplace_back(static_cast<std::uint64_t>(value.number));
            break;
        default:
            throw ZOPDatabaseException(L"Unknown kind of value (" + std::to_wstring(value.kind) +
                                       L")");
        }
    }
    return result;
}

zop_text* textOrNull(std::optional<std::wstring> text) {
    return text ? newText(std::move(*text)) : nullptr;
}

std::int32_t transfer(bool (ZOPMySQLDatabase::*run)(const std::wstring&), zop_database* database,
                      const wchar_t* file, zop_database_callback callback, void* context,
                      std::int32_t* completed, zop_error** error) {
    return done(error, [&] {
        // On a connection of its own, so others need not wait.
        ZOPMySQLDatabase& native = **needed(database, L"database")->native;
        Hook hook;
        if (callback != nullptr) {
            hook = native.progressEvent.hook([&](const DatabaseProgress& now, bool& cancel) {
                const zop_database_progress progress = {
                    sizeof(progress), static_cast<std::int32_t>(now.step),
                    now.tables,       now.totalTables,
                    now.rows,         now.totalRows,
                    now.bytes,        now.totalBytes,
                    now.table.c_str()};
                zop_call call;
                cancel = callback(context, &progress, &call) != 0;
                if (call.failure) {
                    throw zopobsolete::Exception(*call.failure);
                }
            });
        }
        const bool whole = (native.*run)(needed(file, L"file"));
        if (completed != nullptr) {
            *completed = whole ? 1 : 0;
        }
    });
}

} // namespace

zop_list* ZOP_CALL zop_database_configuration(zop_error** error) {
    return guarded(error, [] {
        const auto parameters = ZOPDatabaseParameters::fromConfiguration();
        std::vector<std::wstring> texts;
        texts.reserve(6);
        texts.push_back(parameters.getHost());
        texts.push_back(std::to_wstring(parameters.getPort()));
        texts.push_back(parameters.getLogin());
        texts.push_back(parameters.getPassword());
        texts.push_back(parameters.getDatabase());
        texts.push_back(std::to_wstring(parameters.getConnectTimeout()));
        return handle<zop_list>(std::move(texts));
    });
}

zop_database* ZOP_CALL zop_database_open(const zop_database_parameters* parameters,
                                         zop_error** error) {
    return guarded(error, [&] {
        return handle<zop_database>(
            parameters != nullptr ? std::make_unique<ZOPMySQLDatabase>(parametersOf(parameters))
                                  : std::make_unique<ZOPMySQLDatabase>(),
            std::make_shared<std::mutex>());
    });
}

void ZOP_CALL zop_database_free(zop_database* database) {
    destroy(database);
}

zop_record_set* ZOP_CALL zop_database_query(zop_database* database, const wchar_t* sql,
                                            const zop_value* values, std::size_t count,
                                            zop_error** error) {
    return guarded(error, [&] {
        const Exclusion& exclusion = needed(database, L"database")->exclusion;
        return handle<zop_record_set>(
            of(database)->query(needed(sql, L"sql"), valuesOf(values, count)), exclusion);
    });
}

std::int32_t ZOP_CALL zop_database_execute(zop_database* database, const wchar_t* sql,
                                           const zop_value* values, std::size_t count,
                                           std::uint64_t* rows, zop_error** error) {
    return done(error, [&] {
        const std::uint64_t found =
            of(database)->execute(needed(sql, L"sql"), valuesOf(values, count));
        if (rows != nullptr) {
            *rows = found;
        }
    });
}

zop_text* ZOP_CALL zop_database_escape(zop_database* database, const wchar_t* text,
                                       std::size_t length, zop_error** error) {
    return guarded(error, [&] {
        return newText(of(database)->escape(std::wstring(needed(text, L"text"), length)));
    });
}

std::int32_t ZOP_CALL zop_database_last_insert_id(zop_database* database, std::uint64_t* id,
                                                  zop_error** error) {
    return done(error, [&] { *needed(id, L"id") = of(database)->lastInsertId(); });
}

std::int32_t ZOP_CALL zop_database_begin_trans(zop_database* database, zop_error** error) {
    return done(error, [&] { of(database)->beginTrans(); });
}

std::int32_t ZOP_CALL zop_database_commit_trans(zop_database* database, zop_error** error) {
    return done(error, [&] { of(database)->commitTrans(); });
}

std::int32_t ZOP_CALL zop_database_rollback_trans(zop_database* database, zop_error** error) {
    return done(error, [&] { of(database)->rollbackTrans(); });
}

std::int32_t ZOP_CALL zop_database_trans_level(zop_database* database, std::int32_t* level,
                                               zop_error** error) {
    return done(error, [&] { *needed(level, L"level") = of(database)->transLevel(); });
}

std::int32_t ZOP_CALL zop_database_lock_tables(zop_database* database, const wchar_t* const* tables,
                                               const std::int32_t* write, std::size_t count,
                                               zop_error** error) {
    return done(error, [&] {
        std::vector<ZOPMySQLDatabase::LockedTable> locked;
        for (std::size_t i = 0; i < count; ++i) {
            locked.push_back(
                {needed(needed(tables, L"tables")[i], L"tables"), needed(write, L"write")[i] != 0});
        }
        of(database)->lockTables(locked);
    });
}

std::int32_t ZOP_CALL zop_database_unlock_tables(zop_database* database, zop_error** error) {
    return done(error, [&] { of(database)->unlockTables(); });
}

std::int32_t ZOP_CALL zop_database_export(zop_database* database, const wchar_t* file,
                                          zop_database_callback callback, void* context,
                                          std::int32_t* completed, zop_error** error) {
    return transfer(&ZOPMySQLDatabase::exportTo, database, file, callback, context, completed,
                    error);
}

std::int32_t ZOP_CALL zop_database_import(zop_database* database, const wchar_t* file,
                                          zop_database_callback callback, void* context,
                                          std::int32_t* completed, zop_error** error) {
    return transfer(&ZOPMySQLDatabase::importFrom, database, file, callback, context, completed,
                    error);
}

void ZOP_CALL zop_record_set_free(zop_record_set* rows) {
    destroy(rows);
}

std::int32_t ZOP_CALL zop_record_set_next(zop_record_set* rows, std::int32_t* row,
                                          zop_error** error) {
    return done(error, [&] { *needed(row, L"row") = of(rows)->next() ? 1 : 0; });
}

zop_list* ZOP_CALL zop_record_set_columns(zop_record_set* rows, zop_error** error) {
    return guarded(error, [&] { return handle<zop_list>(of(rows)->columns()); });
}

std::int32_t ZOP_CALL zop_record_set_text(zop_record_set* rows, const wchar_t* column,
                                          zop_text** text, zop_error** error) {
    return done(error, [&] {
        *needed(text, L"text") =
            textOrNull(of(rows)->text(std::wstring(needed(column, L"column"))));
    });
}

std::int32_t ZOP_CALL zop_record_set_text_at(zop_record_set* rows, std::size_t column,
                                             zop_text** text, zop_error** error) {
    return done(error, [&] { *needed(text, L"text") = textOrNull(of(rows)->text(column)); });
}
