#include "api/zop_mysql_database.h"

#include "api/call_frame.h"
#include "api/utils.h"
#include "api/zop_database_exception.h"
#include "api/zop_database_parameters_native.h"
#include "runtime/database/database_export.h"
#include "runtime/database/database_import.h"
#include "runtime/database/mysql_record_set.h"
#include "runtime/exception.h"

namespace zopobsolete {

namespace {

// Runs a member of the class in its frame.
template <class Function>
auto databaseFrame(const CallSite& site, Function&& payload) {
    return callFrame<ZOPDatabaseException>(site, std::forward<Function>(payload));
}

// The texts stay the caller's, for as long as the call.
VDatabase::Values toNative(const ZOPMySQLDatabase::Values& values) {
    VDatabase::Values result;
    for (const ZOPMySQLDatabase::Value& value : values) {
        std::visit([&result](const auto& held) { result.emplace_back(held); }, value);
    }
    return result;
}

template <class Work>
bool unlessCancelled(Work&& work) {
    try {
        work();
    } catch (const CanceledException&) {
        return false;
    }
    return true;
}

} // namespace

ZOPMySQLDatabase::ZOPMySQLDatabase()
    : ZOPMySQLDatabase(ZOPDatabaseParameters::fromConfiguration()) {}

ZOPMySQLDatabase::ZOPMySQLDatabase(const ZOPDatabaseParameters& parameters)
    : database_(databaseFrame(
          {"zopobsolete::ZOPMySQLDatabase::ZOPMySQLDatabase", __LINE__, __LINE__ + 1},
          [&] { return std::make_shared<VMySQLDatabase>(parameters.native_->value); })) {}

ZOPMySQLDatabase::~ZOPMySQLDatabase() = default;

ZOPMySQLRecordSet ZOPMySQLDatabase::query(const std::wstring& sql, const Values& values) {
    return databaseFrame({"zopobsolete::ZOPMySQLDatabase::query", 151, 155}, [&] {
        return ZOPMySQLRecordSet(
            native()->queryRows(Utils::toUnmanagedString(sql), toNative(values)));
    });
}

std::uint64_t ZOPMySQLDatabase::execute(const std::wstring& sql, const Values& values) {
    return databaseFrame({"zopobsolete::ZOPMySQLDatabase::execute", __LINE__, __LINE__ + 1}, [&] {
        return native()->execute(Utils::toUnmanagedString(sql), toNative(values));
    });
}

std::wstring ZOPMySQLDatabase::escape(const std::wstring& text) {
    return databaseFrame({"zopobsolete::ZOPMySQLDatabase::escape", __LINE__, __LINE__ + 1},
                         [&] { return native()->escape(Utils::toUnmanagedString(text)); });
}

std::uint64_t ZOPMySQLDatabase::lastInsertId() {
    return databaseFrame({"zopobsolete::ZOPMySQLDatabase::lastInsertId", __LINE__, __LINE__ + 1},
                         [&] { return native()->lastInsertId(); });
}

void ZOPMySQLDatabase::beginTrans() {
    databaseFrame({"zopobsolete::ZOPMySQLDatabase::beginTrans", __LINE__, __LINE__ + 1},
                  [&] { native()->beginTrans(); });
}

void ZOPMySQLDatabase::commitTrans() {
    databaseFrame({"zopobsolete::ZOPMySQLDatabase::commitTrans", __LINE__, __LINE__ + 1},
                  [&] { native()->commitTrans(); });
}

void ZOPMySQLDatabase::rollbackTrans() {
    databaseFrame({"zopobsolete::ZOPMySQLDatabase::rollbackTrans", __LINE__, __LINE__ + 1},
                  [&] { native()->rollbackTrans(); });
}

std::int32_t ZOPMySQLDatabase::transLevel() {
    return databaseFrame({"zopobsolete::ZOPMySQLDatabase::transLevel", __LINE__, __LINE__ + 1},
                         [&] { return native()->transLevel(); });
}

void ZOPMySQLDatabase::lockTables(const std::vector<LockedTable>& tables) {
    databaseFrame({"zopobsolete::ZOPMySQLDatabase::lockTables", __LINE__, __LINE__ + 1}, [&] {
        std::vector<VDatabase::LockedTable> locks;
        locks.reserve(tables.size());
        for (const LockedTable& table : tables) {
            locks.push_back({Utils::toUnmanagedString(table.name),
                             table.write ? VDatabase::Lock::Write : VDatabase::Lock::Read});
        }
        native()->lockTables(locks);
    });
}

void ZOPMySQLDatabase::unlockTables() {
    databaseFrame({"zopobsolete::ZOPMySQLDatabase::unlockTables", __LINE__, __LINE__ + 1},
                  [&] { native()->unlockTables(); });
}

bool ZOPMySQLDatabase::exportTo(const std::wstring& file) {
    return databaseFrame({"zopobsolete::ZOPMySQLDatabase::exportTo", __LINE__, __LINE__ + 1}, [&] {
        VDatabaseExport exporter(native()->parameters());
        const Hook forwarded = forwardEvent(exporter.progressEvent, progressEvent);
        return unlessCancelled([&] { exporter.run(Utils::toUnmanagedString(file)); });
    });
}

bool ZOPMySQLDatabase::importFrom(const std::wstring& file) {
    return databaseFrame(
        {"zopobsolete::ZOPMySQLDatabase::importFrom", __LINE__, __LINE__ + 1}, [&] {
            VDatabaseImport importer(native()->parameters(), Utils::toUnmanagedString(file));
            const Hook forwarded = forwardEvent(importer.progressEvent, progressEvent);
            return unlessCancelled([&] { importer.run(); });
        });
}

void ZOPMySQLDatabase::Dispose() {
    databaseFrame({"zopobsolete::ZOPMySQLDatabase::Dispose", __LINE__, __LINE__ + 1},
                  [&] { database_.reset(); });
}

std::shared_ptr<VMySQLDatabase> ZOPMySQLDatabase::native() {
    if (!database_) {
        throw vexception(L"The database has been disposed of",
                         {L"", "ZOPMySQLDatabase::native", __LINE__});
    }
    return database_;
}

} // namespace zopobsolete
