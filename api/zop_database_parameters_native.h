// What stands behind ZOPDatabaseParameters. Internal to the database classes.
#pragma once

#include "api/zop_database_parameters.h"
#include "runtime/database/mysql_database.h"
#include "runtime/wipe.h"

namespace zopobsolete {

struct ZOPDatabaseParameters::Native {
    VMySQLDatabase::Parameters value;

    explicit Native(VMySQLDatabase::Parameters parameters) : value(std::move(parameters)) {}
    Native(const Native&) = default;
    Native& operator=(const Native&) = delete;
    ~Native() { RunTime::wipe(value.password); }
};

} // namespace zopobsolete
