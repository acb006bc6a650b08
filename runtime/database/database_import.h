// Makes a database what an export says: its tables are replaced by those of the file, all of them
// at once, and tables that the file does not have are removed.
//
//     VDatabaseImport importer(VMySQLDatabase::configuredParameters(), L"D:\\backup\\panel.sql");
//     auto shown = importer.progressEvent.hook(...);
//     show(importer.check(), importer.outlook());
//     importer.run();
//
// The file is read whole and vetted before anything is changed, and nothing but what an export
// writes is taken from it. The new tables are filled beside the old ones, which are in use until
// one statement puts the new ones in their places: an import that fails, is cancelled or loses its
// connection leaves the database as it was. It needs room for both. docs/database.md says what a
// crash leaves.
//
// Works on a connection of its own. One thread at a time; handlers run on it.
#pragma once

#include "runtime/auto_handle.h"
#include "runtime/database/database_export.h"
#include "runtime/database/database_progress.h"
#include "runtime/database/mysql_database.h"
#include "runtime/event.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace database {
class CreateTable;
class ExportReader;
class ImportTables;
} // namespace database

class VDatabaseImport {
public:
    // What an import would do to the tables of the database.
    struct Outlook {
        std::vector<std::wstring> replaced;
        std::vector<std::wstring> added;
        std::vector<std::wstring> removed;
    };

    struct Result {
        std::uint32_t tables = 0;
        std::uint64_t rows = 0;
        // Texts of what could not be done after the new tables were in their places: the import is
        // complete, and the next one removes what is left.
        std::vector<std::wstring> leftBehind;
    };

    // Opens the file, which nobody can change meanwhile. "Unable to open file (%s)".
    VDatabaseImport(VMySQLDatabase::Parameters parameters, const std::wstring& file);
    ~VDatabaseImport();
    VDatabaseImport(const VDatabaseImport&) = delete;
    VDatabaseImport& operator=(const VDatabaseImport&) = delete;

    Event<const DatabaseProgress&, bool&> progressEvent; // progress, cancel

    // Reads the whole file, unless that has been done. Throws ArgumentException for one that is no
    // export, was cut off or altered, CanceledException.
    const ExportSummary& check();

    // Connects and compares. Removes what an import that was broken off has left. Throws as
    // check(), VDatabase::ConnectException, and vexception for a database that cannot take it.
    Outlook outlook();

    // Throws as outlook(), and VDatabase::StatementException.
    Result run();

private:
    std::size_t read(std::span<char> to);
    void report();
    database::ImportTables& tables();
    void fill(database::ImportTables& tables);

    VMySQLDatabase::Parameters parameters_;
    std::wstring path_;
    RunTime::AutoHandle file_;
    std::unique_ptr<ExportSummary> summary_;
    std::vector<std::string> names_; // of the file's tables
    std::uint64_t longest_ = 0;      // statement of rows
    std::unique_ptr<database::ImportTables> tables_;
    DatabaseProgress progress_;
};
