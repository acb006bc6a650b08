#include "runtime/database/database_export.h"

#include "runtime/database/create_table.h"
#include "runtime/database/export_format.h"
#include "runtime/database/export_reader.h"
#include "runtime/database/export_writer.h"
#include "runtime/database/mysql_record_set.h"
#include "runtime/database/sql_tokens.h"
#include "runtime/files/whole_file.h"
#include "runtime/format_string.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "runtime/wipe.h"

#include <algorithm>
#include <set>

namespace {

using database::ExportWriter;

// Of a table, how each is asked for and written. Generated ones are left to the server.
struct Column {
    std::string name;
    ExportWriter::Form form;
    std::string charset;
    std::string select;      // the expression that gives it
    bool hasNames = false;   // ENUM and SET
    bool maybeEmpty = false; // the empty text is a value
};

struct Table {
    std::string name;
    std::string definition;
    std::vector<Column> columns;
};

bool isOneOf(const std::string& name, std::initializer_list<const char*> names) {
    return std::any_of(names.begin(), names.end(), [&](const char* each) { return name == each; });
}

// FLOAT is shown with six digits, so it is asked for as the DOUBLE that it exactly is. Texts of
// character sets that have letters which Unicode lacks come as the bytes they are.
Column columnOf(const std::string& name, const std::string& type, const std::string& whole,
                const std::string& charset) {
    Column column{name, ExportWriter::Form::Bytes, {}, database::quotedName(name)};
    if (isOneOf(type, {"tinyint", "smallint", "mediumint", "int", "bigint", "decimal", "double",
                       "float", "year"})) {
        column.form = ExportWriter::Form::Number;
        if (type == "float") {
            column.select = "CAST(" + column.select + " AS DOUBLE)";
        }
    } else if (isOneOf(charset, {"utf8mb4", "utf8mb3", "utf8", "ascii"}) ||
               isOneOf(type, {"date", "datetime", "timestamp", "time", "uuid", "inet4", "inet6",
                              "json"})) {
        column.form = ExportWriter::Form::Text;
    } else if (!charset.empty()) {
        column.charset = charset;
        column.select = "CAST(" + column.select + " AS BINARY)";
    }
    column.hasNames = isOneOf(type, {"enum", "set"});
    column.maybeEmpty = type == "set" || whole.find("(''") != std::string::npos ||
                        whole.find(",''") != std::string::npos;
    return column;
}

// Whether an ENUM or SET can have the value. The server stores an empty one for what it did not
// take, and shows the names of a type with "?" for letters beyond U+FFFF.
bool isName(const Column& column, const std::optional<std::string_view>& value) {
    return !value || ((column.maybeEmpty || !value->empty()) &&
                      std::none_of(value->begin(), value->end(),
                                   [](char c) { return static_cast<unsigned char>(c) >= 0xF0; }));
}

class Export {
public:
    Export(VMySQLDatabase& source, Event<const DatabaseProgress&, bool&>& progressEvent,
           RunTime::WholeFile& file)
        : source_(source), progressEvent_(progressEvent), file_(file),
          writer_([this](std::string_view text) {
              file_.write(text);
              report();
          }) {}

    ExportSummary run() {
        progress_.step = DatabaseStep::Rows;
        beginSnapshot();
        const database::ExportHeader header = headerOf();
        refuseOthers();
        const std::vector<Table> tables = describe();
        writer_.header(header);
        for (const Table& table : tables) {
            progress_.table = toWide(table.name);
            report();
            writer_.table(table.definition);
            writeRows(table);
            ++progress_.tables;
        }
        writer_.finish();
        readBack();
        return {toWide(header.database), toWide(header.server), toWide(header.time),
                progress_.totalTables,   writer_.rows(),        file_.size()};
    }

private:
    // The session is left at the end, so nothing is put back.
    void beginSnapshot() {
        source_.execute(L"SET time_zone = '+00:00', sql_quote_show_create = 1, "
                        L"net_write_timeout = 3600 /*M!100100 , max_statement_time = 0 */");
        source_.execute(L"SET SESSION TRANSACTION ISOLATION LEVEL REPEATABLE READ");
        source_.execute(L"START TRANSACTION WITH CONSISTENT SNAPSHOT");
    }

    database::ExportHeader headerOf() {
        const auto rows = source_.queryRows(L"SELECT DATABASE(), VERSION(), "
                                            L"DATE_FORMAT(UTC_TIMESTAMP(), '%Y-%m-%dT%TZ')");
        rows->next();
        if (!rows->bytes(0)) {
            throw vexception(L"Unable to export: no database is chosen",
                             {L"", "VDatabaseExport::run", __LINE__});
        }
        return {text(*rows, 0), text(*rows, 1), text(*rows, 2)};
    }

    // What an export does not hold is not left out in silence.
    void refuseOthers() {
        constexpr std::size_t mostShown = 10;
        const auto rows = source_.queryRows(
            L"SELECT LOWER(TABLE_TYPE), TABLE_NAME FROM information_schema.TABLES "
            L"WHERE TABLE_SCHEMA = DATABASE() AND TABLE_TYPE <> 'BASE TABLE' "
            L"UNION ALL SELECT 'trigger', TRIGGER_NAME FROM information_schema.TRIGGERS "
            L"WHERE TRIGGER_SCHEMA = DATABASE() "
            L"UNION ALL SELECT LOWER(ROUTINE_TYPE), ROUTINE_NAME FROM information_schema.ROUTINES "
            L"WHERE ROUTINE_SCHEMA = DATABASE() "
            L"UNION ALL SELECT 'event', EVENT_NAME FROM information_schema.EVENTS "
            L"WHERE EVENT_SCHEMA = DATABASE() ORDER BY 1, 2");
        std::wstring found;
        std::size_t count = 0;
        while (rows->next()) {
            if (++count <= mostShown) {
                found += (found.empty() ? L"" : L", ") + toWide(text(*rows, 0)) + L" (" +
                         toWide(text(*rows, 1)) + L")";
            }
        }
        if (count > 0) {
            throw vexception(L"Unable to export: the database has what an export does not hold: " +
                                 found + (count > mostShown ? L", and others" : L""),
                             {L"", "VDatabaseExport::run", __LINE__});
        }
    }

    // All definitions are read before the first row is written: one that an import would not take
    // is found at once.
    std::vector<Table> describe() {
        std::vector<Table> tables;
        const auto rows = source_.queryRows(
            L"SELECT TABLE_NAME, COALESCE(TABLE_ROWS, 0) FROM information_schema.TABLES "
            L"WHERE TABLE_SCHEMA = DATABASE() ORDER BY TABLE_NAME");
        while (rows->next()) {
            const std::string name = text(*rows, 0);
            if (!name.starts_with(toUtf8(database::export_format::importPrefix))) {
                progress_.totalRows += std::stoull(text(*rows, 1));
                tables.push_back({name, {}, {}});
            }
        }
        progress_.totalTables = static_cast<std::uint32_t>(tables.size());
        std::set<std::string> names;
        std::set<std::string> referred;
        for (Table& table : tables) {
            describe(table, referred);
            names.insert(table.name);
        }
        for (const std::string& name : referred) {
            if (names.count(name) == 0) {
                throw vexception(L"Unable to export: a foreign key refers to the table (" +
                                     toWide(name) + L"), which there is not",
                                 {L"", "VDatabaseExport::run", __LINE__});
            }
        }
        return tables;
    }

    void describe(Table& table, std::set<std::string>& referred) {
        const std::wstring name = toWide(table.name);
        const auto definition =
            source_.queryRows(L"SHOW CREATE TABLE " + toWide(database::quotedName(table.name)));
        definition->next();
        table.definition = text(*definition, 1);
        try {
            const database::CreateTable parsed(table.definition);
            for (const database::CreateTable::ForeignKey& key : parsed.foreignKeys()) {
                referred.insert(key.table);
            }
        } catch (ArgumentException& e) {
            throw vexception(L"Unable to export the table (" + name + L"): " + e.message(),
                             {L"", "VDatabaseExport::run", __LINE__});
        }
        // Some servers say DEFAULT_GENERATED of a column with an expression for its default.
        const auto columns = source_.queryRows(
            L"SELECT COLUMN_NAME, DATA_TYPE, COLUMN_TYPE, COALESCE(CHARACTER_SET_NAME, '') "
            L"FROM information_schema.COLUMNS WHERE TABLE_SCHEMA = DATABASE() AND TABLE_NAME = ? "
            L"AND EXTRA NOT REGEXP 'VIRTUAL|STORED|PERSISTENT' ORDER BY ORDINAL_POSITION",
            {name});
        while (columns->next()) {
            table.columns.push_back(columnOf(text(*columns, 0), text(*columns, 1),
                                             text(*columns, 2), text(*columns, 3)));
        }
    }

    void writeRows(const Table& table) {
        std::string names;
        std::string selected;
        for (const Column& column : table.columns) {
            names += names.empty() ? "(" : ",";
            names += database::quotedName(column.name);
            selected += selected.empty() ? "" : ", ";
            selected += column.select;
        }
        names += ')';
        writer_.beginRows(table.name, names);
        const auto rows = source_.queryRows(L"SELECT " + toWide(selected) + L" FROM " +
                                            toWide(database::quotedName(table.name)));
        std::vector<std::optional<std::string_view>> cells(table.columns.size());
        while (rows->next()) {
            std::size_t size = 0;
            for (std::size_t i = 0; i < cells.size(); ++i) {
                cells[i] = rows->bytes(i);
                size += cells[i].value_or(std::string_view()).size();
            }
            writer_.beginRow(size);
            for (std::size_t i = 0; i < cells.size(); ++i) {
                const Column& column = table.columns[i];
                if (column.hasNames && !isName(column, cells[i])) {
                    throw vexception(L"Unable to export the table (" + toWide(table.name) +
                                         L"): its column (" + toWide(column.name) +
                                         L") has a value that its type does not have",
                                     {L"", "VDatabaseExport::run", __LINE__});
                }
                writer_.value(cells[i], column.form, column.charset);
            }
            writer_.endRow();
        }
        writer_.endRows();
    }

    // An export is worth what an import takes of it.
    void readBack() {
        progress_.step = DatabaseStep::Check;
        progress_.totalBytes = file_.size();
        progress_.bytes = 0;
        database::ExportReader reader([this](std::span<char> to) {
            const std::size_t got = file_.readBack(to);
            progress_.bytes += got;
            report();
            return got;
        });
        using Item = database::ExportReader::Item;
        for (Item item = reader.next(); item != Item::End; item = reader.next()) {
            if (item == Item::Rows) {
                reader.readRows(nullptr);
            }
        }
    }

    void report() {
        ThreadCancelation::check();
        progress_.rows = writer_.rows();
        if (progress_.step == DatabaseStep::Rows) {
            progress_.bytes = file_.size();
        }
        bool cancel = false;
        progressEvent_.raise(progress_, cancel);
        if (cancel) {
            throw CanceledException({L"", "VDatabaseExport::run", __LINE__});
        }
    }

    static std::string text(const VMySQLRecordSet& rows, std::size_t column) {
        return std::string(rows.bytes(column).value_or(std::string_view()));
    }

    VMySQLDatabase& source_;
    Event<const DatabaseProgress&, bool&>& progressEvent_;
    RunTime::WholeFile& file_;
    DatabaseProgress progress_;
    ExportWriter writer_;
};

} // namespace

VDatabaseExport::VDatabaseExport(VMySQLDatabase::Parameters parameters)
    : parameters_(std::move(parameters)) {
    parameters_.reconnect = false; // the snapshot goes with the connection
}

VDatabaseExport::~VDatabaseExport() {
    RunTime::wipe(parameters_.password);
}

ExportSummary VDatabaseExport::run(const std::wstring& file) {
    VMySQLDatabase source(parameters_);
    RunTime::WholeFile target(file);
    const ExportSummary summary = Export(source, progressEvent, target).run();
    ThreadCancelation::check();
    target.commit();
    return summary;
}
