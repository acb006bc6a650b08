// Writes all tables of a database, definitions and rows, into one file: an SQL script that the
// standard client can read and that VDatabaseImport reads back. docs/database.md has the format.
//
//     VDatabaseExport exporter(VMySQLDatabase::configuredParameters());
//     auto shown = exporter.progressEvent.hook(...);
//     exporter.run(L"D:\\backup\\panel.sql");
//
// All rows are those of one moment, whatever others change meanwhile (InnoDB; tables of other
// engines are read as they are when their turn comes). Views, triggers, routines, events, sequences
// and tables with system versioning are not exported: a database that has any is refused.
//
// Works on a connection of its own. One thread at a time; handlers run on it.
#pragma once

#include "runtime/database/database_progress.h"
#include "runtime/database/mysql_database.h"
#include "runtime/event.h"

#include <cstdint>
#include <string>

// What a file holds.
struct ExportSummary {
    std::wstring database; // the name it had
    std::wstring server;   // version of the server that it comes from
    std::wstring time;     // when it was written, "2026-01-31T12:00:00Z"
    std::uint32_t tables = 0;
    std::uint64_t rows = 0;
    std::uint64_t bytes = 0;
};

class VDatabaseExport {
public:
    explicit VDatabaseExport(VMySQLDatabase::Parameters parameters);
    ~VDatabaseExport();
    VDatabaseExport(const VDatabaseExport&) = delete;
    VDatabaseExport& operator=(const VDatabaseExport&) = delete;

    // progress, cancel; four times a megabyte at most
    Event<const DatabaseProgress&, bool&> progressEvent;

    // Writes the file, which only System and Administrators may read: it holds passwords. It is
    // read once more before it takes the place of one of that name. Throws CanceledException,
    // VDatabase::ConnectException, VDatabase::StatementException, vosexception for the file, and
    // vexception for a database that cannot be exported; there is no file then, or the old one.
    ExportSummary run(const std::wstring& file);

private:
    VMySQLDatabase::Parameters parameters_;
};
