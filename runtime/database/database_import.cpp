#include "runtime/database/database_import.h"

#include "runtime/database/export_reader.h"
#include "runtime/database/import_tables.h"
#include "runtime/files/file.h"
#include "runtime/files/whole_file.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "runtime/wipe.h"

#include <algorithm>

namespace {

using database::ExportReader;

constexpr std::uint64_t headRoom = 1024; // for the name under which a table is filled

} // namespace

VDatabaseImport::VDatabaseImport(VMySQLDatabase::Parameters parameters, const std::wstring& file)
    : parameters_(std::move(parameters)), path_(RunTime::longPath(file)),
      file_(
          RunTime::openExisting(path_, GENERIC_READ, FILE_SHARE_READ, FILE_FLAG_SEQUENTIAL_SCAN)) {
    LARGE_INTEGER size{};
    if (!file_ || !::GetFileSizeEx(file_.get(), &size)) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to open file (%s)", path_, code,
                              "VDatabaseImport::VDatabaseImport", __LINE__);
    }
    progress_.totalBytes = static_cast<std::uint64_t>(size.QuadPart);
}

VDatabaseImport::~VDatabaseImport() {
    RunTime::wipe(parameters_.password);
}

const ExportSummary& VDatabaseImport::check() {
    if (summary_) {
        return *summary_;
    }
    progress_.step = DatabaseStep::Check;
    progress_.bytes = 0;
    names_.clear();
    RunTime::rewindFile(file_.get(), path_);
    ExportReader reader([this](std::span<char> to) { return read(to); });
    using Item = ExportReader::Item;
    std::uint64_t begin = reader.position();
    for (Item item = reader.next(); item != Item::End; item = reader.next()) {
        if (item == Item::Table) {
            names_.push_back(reader.table().name());
        } else {
            reader.readRows(nullptr);
        }
        longest_ = std::max(longest_, reader.position() - begin);
        begin = reader.position();
    }
    if (names_.empty()) {
        throw ArgumentException(L"The export has no tables",
                                {L"", "VDatabaseImport::check", __LINE__});
    }
    const database::ExportHeader& header = reader.header();
    summary_ = std::make_unique<ExportSummary>(
        ExportSummary{toWide(header.database), toWide(header.server), toWide(header.time),
                      reader.tables(), reader.rows(), reader.position()});
    return *summary_;
}

VDatabaseImport::Outlook VDatabaseImport::outlook() {
    check();
    const database::ImportTables& there = tables();
    Outlook result;
    const auto has = [&there](const std::vector<std::string>& names, const std::string& name) {
        return std::any_of(names.begin(), names.end(),
                           [&](const std::string& each) { return there.isSame(each, name); });
    };
    for (const std::string& name : names_) {
        (has(there.present(), name) ? result.replaced : result.added).push_back(toWide(name));
    }
    for (const std::string& name : there.present()) {
        if (!has(names_, name)) {
            result.removed.push_back(toWide(name));
        }
    }
    return result;
}

VDatabaseImport::Result VDatabaseImport::run() {
    check();
    database::ImportTables& target = tables();
    try {
        fill(target);
        ThreadCancelation::check();
        progress_.step = DatabaseStep::Swap;
        progress_.table.clear();
        report();
        target.swap();
    } catch (...) {
        target.discard();
        tables_.reset();
        throw;
    }
    Result result{summary_->tables, summary_->rows, target.finish()};
    tables_.reset();
    return result;
}

// Also gives the handlers a chance to cancel, whatever the size of a statement.
std::size_t VDatabaseImport::read(std::span<char> to) {
    const std::size_t got = RunTime::readFile(file_.get(), to, path_);
    progress_.bytes += got;
    report();
    return got;
}

void VDatabaseImport::report() {
    ThreadCancelation::check();
    bool cancel = false;
    progressEvent.raise(progress_, cancel);
    if (cancel) {
        throw CanceledException({L"", "VDatabaseImport::run", __LINE__});
    }
}

database::ImportTables& VDatabaseImport::tables() {
    if (!tables_) {
        auto made = std::make_unique<database::ImportTables>(parameters_);
        if (longest_ + headRoom > made->longestStatement()) {
            throw vexception(L"Unable to import: the server takes statements of " +
                                 std::to_wstring(made->longestStatement()) +
                                 L" bytes and the file has longer ones; set max_allowed_packet of "
                                 L"the server to " +
                                 std::to_wstring(longest_ + headRoom) + L" or more",
                             {L"", "VDatabaseImport::tables", __LINE__});
        }
        for (const std::string& name : names_) {
            made->expect(name);
        }
        tables_ = std::move(made);
    }
    return *tables_;
}

void VDatabaseImport::fill(database::ImportTables& tables) {
    progress_.step = DatabaseStep::Rows;
    progress_.bytes = 0;
    progress_.rows = 0;
    progress_.tables = 0;
    progress_.totalTables = summary_->tables;
    progress_.totalRows = summary_->rows;
    RunTime::rewindFile(file_.get(), path_);
    ExportReader reader([this](std::span<char> to) { return read(to); });
    database::Bytes statement;
    statement.reserve(static_cast<std::size_t>(longest_ + headRoom)); // held once
    using Item = ExportReader::Item;
    for (Item item = reader.next(); item != Item::End; item = reader.next()) {
        const std::string& name = reader.table().name();
        if (item == Item::Table) {
            progress_.tables = reader.tables() - 1;
            progress_.table = toWide(name);
            report();
            tables.make(reader.table());
            continue;
        }
        const std::string head = tables.head(name, reader.columns());
        statement.assign(head.begin(), head.end());
        const std::uint64_t rows = reader.readRows(&statement);
        tables.insert({statement.data(), statement.size()}, rows, name);
        progress_.rows += rows;
        report();
    }
    progress_.tables = progress_.totalTables;
}
