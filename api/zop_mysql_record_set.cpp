#include "api/zop_mysql_record_set.h"

#include "api/call_frame.h"
#include "api/utils.h"
#include "api/zop_database_exception.h"
#include "runtime/database/mysql_record_set.h"
#include "runtime/exception.h"

namespace zopobsolete {

ZOPMySQLRecordSet::ZOPMySQLRecordSet(std::unique_ptr<VMySQLRecordSet> rows)
    : rows_(std::move(rows)) {}

ZOPMySQLRecordSet::ZOPMySQLRecordSet(ZOPMySQLRecordSet&& other) noexcept = default;

ZOPMySQLRecordSet& ZOPMySQLRecordSet::operator=(ZOPMySQLRecordSet&& other) noexcept = default;

ZOPMySQLRecordSet::~ZOPMySQLRecordSet() = default;

bool ZOPMySQLRecordSet::next() {
    return callFrame<ZOPDatabaseException>(
        {"zopobsolete::ZOPMySQLRecordSet::next", __LINE__, __LINE__ + 1},
        [&] { return native().next(); });
}

std::vector<std::wstring> ZOPMySQLRecordSet::columns() {
    return callFrame<ZOPDatabaseException>(
        {"zopobsolete::ZOPMySQLRecordSet::columns", __LINE__, __LINE__ + 1},
        [&] { return std::vector<std::wstring>(native().columns()); });
}

std::optional<std::wstring> ZOPMySQLRecordSet::text(const std::wstring& column) {
    return callFrame<ZOPDatabaseException>(
        {"zopobsolete::ZOPMySQLRecordSet::text", __LINE__, __LINE__ + 1},
        [&] { return native().text(Utils::toUnmanagedString(column)); });
}

std::optional<std::wstring> ZOPMySQLRecordSet::text(std::size_t column) {
    return callFrame<ZOPDatabaseException>(
        {"zopobsolete::ZOPMySQLRecordSet::text", __LINE__, __LINE__ + 1},
        [&] { return native().text(column); });
}

void ZOPMySQLRecordSet::Dispose() {
    callFrame<ZOPDatabaseException>(
        {"zopobsolete::ZOPMySQLRecordSet::Dispose", __LINE__, __LINE__ + 1},
        [&] { rows_.reset(); });
}

VMySQLRecordSet& ZOPMySQLRecordSet::native() {
    if (!rows_) {
        throw vexception(L"The record set has been disposed of",
                         {L"", "ZOPMySQLRecordSet::native", __LINE__});
    }
    return *rows_;
}

} // namespace zopobsolete
