#include "runtime/database/database.h"

#include "runtime/log_manager.h"

std::wstring VRecordSet::value(std::wstring_view column) const {
    std::optional<std::wstring> result = text(column);
    if (!result) {
        throw vexception(L"The column (" + std::wstring(column) + L") is NULL",
                         {L"", "VRecordSet::value", __LINE__});
    }
    return *std::move(result);
}

VDatabase::Transaction::Transaction(VDatabase& database) : database_(database) {
    database_.beginTrans();
}

VDatabase::Transaction::~Transaction() {
    if (!open_) {
        return;
    }
    try {
        database_.rollbackTrans();
    } catch (const vexception& e) { // somebody ended it behind our back
        LogManager::getInstance().vAddLog(LogType::Error, e.what());
    }
}

void VDatabase::Transaction::commit() {
    open_ = false;
    database_.commitTrans();
}

VDatabase::TableLock::TableLock(VDatabase& database, const std::vector<LockedTable>& tables)
    : database_(database) {
    database_.lockTables(tables);
}

VDatabase::TableLock::~TableLock() {
    try {
        database_.unlockTables();
    } catch (const vexception& e) {
        LogManager::getInstance().vAddLog(LogType::Error, e.what());
    }
}
