#include "tools/zopctl/database_command.h"

#include "runtime/database/database_export.h"
#include "runtime/database/database_import.h"
#include "runtime/database/zop_database.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/wipe.h"
#include "tools/zopctl/cancel_key.h"
#include "tools/zopctl/database_arguments.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/table.h"
#include "tools/zopctl/text_format.h"
#include "tools/zopctl/work_progress.h"

#include <algorithm>

namespace zopctl {

namespace {

constexpr std::uint64_t redrawTime = 100; // milliseconds

// Ends a command without an error of the library.
struct Stop {
    ExitCode code;
    const wchar_t* status;
    std::wstring message;
};

class DatabaseCommand {
public:
    DatabaseCommand(const DatabaseOptions& options, Console& console)
        : options_(options), console_(console),
          key_([this](const std::wstring& text) { console_.errorLine(text); }),
          start_(::GetTickCount64()) {}
    ~DatabaseCommand() { RunTime::wipe(parameters_.password); }
    DatabaseCommand(const DatabaseCommand&) = delete;
    DatabaseCommand& operator=(const DatabaseCommand&) = delete;

    ExitCode exportFile() {
        return run(L"exported", [this] {
            if (!options_.yes && RunTime::exists(options_.file)) {
                confirm(L"There is a file of that name. Replace it?",
                        L"There is a file \"" + shownFile() + L"\". Add --yes to replace it.");
            }
            VDatabaseExport exporter(parameters_);
            const Hook hook = follow(exporter.progressEvent);
            const ExportSummary summary = exporter.run(options_.file);
            say(L"Exported " + contents(summary.tables, summary.rows) + L", " +
                formatBytes(static_cast<std::int64_t>(summary.bytes)) + L", in " + time() +
                L": \"" + shownFile() + L"\"");
            result_ = {{"tables", std::uint64_t{summary.tables}},
                       {"rows", summary.rows},
                       {"bytes", summary.bytes}};
            return ExitCode::Success;
        });
    }

    ExitCode importFile() {
        return run(L"imported", [this] {
            VDatabaseImport importer(parameters_, options_.file);
            const Hook hook = follow(importer.progressEvent);
            const ExportSummary summary = importer.check();
            console_.status({});
            show(summary, importer.outlook());
            if (!options_.yes) {
                confirm(L"The tables of the database are replaced. Continue?",
                        L"An import replaces the tables of the database. Add --yes to do it.");
            }
            const VDatabaseImport::Result result = importer.run();
            console_.status({});
            for (const std::wstring& left : result.leftBehind) {
                warn(L"Left behind, and removed by the next import: " + left);
            }
            say(L"Imported " + contents(result.tables, result.rows) + L" in " + time() + L".");
            result_ = {{"tables", std::uint64_t{result.tables}},
                       {"rows", result.rows},
                       {"leftBehind", result.leftBehind}};
            return result.leftBehind.empty() ? ExitCode::Success : ExitCode::DoneWithRemainder;
        });
    }

    ExitCode check() {
        return run(L"complete", [this] {
            const auto database = std::make_shared<VMySQLDatabase>(parameters_);
            const auto rows = database->query(
                L"SELECT VERSION() AS version, CURRENT_USER() AS account, "
                L"DEFAULT_CHARACTER_SET_NAME AS charset, DEFAULT_COLLATION_NAME AS collation, "
                L"(SELECT COUNT(*) FROM information_schema.TABLES "
                L"WHERE TABLE_SCHEMA = DATABASE()) AS tables "
                L"FROM information_schema.SCHEMATA WHERE SCHEMA_NAME = DATABASE()");
            rows->next();
            const std::vector<std::wstring> missing = ZOPDatabase(database).missing();
            const std::wstring server = parameters_.host + L":" + std::to_wstring(parameters_.port);
            if (options_.json) {
                console_.line(jsonLine(L"database", {{"server", server},
                                                     {"version", rows->value(L"version")},
                                                     {"account", rows->value(L"account")},
                                                     {"database", parameters_.database},
                                                     {"charset", rows->value(L"charset")},
                                                     {"collation", rows->value(L"collation")},
                                                     {"tables", std::stoll(rows->value(L"tables"))},
                                                     {"missing", missing}}));
            } else {
                printTable({{L"Server:", printable(server)},
                            {L"Version:", printable(rows->value(L"version"))},
                            {L"Account:", printable(rows->value(L"account"))},
                            {L"Database:", printable(parameters_.database)},
                            {L"Charset:",
                             rows->value(L"charset") + L" (" + rows->value(L"collation") + L")"},
                            {L"Tables:", rows->value(L"tables")}},
                           console_);
            }
            if (!missing.empty()) {
                std::wstring text = L"The database lacks:";
                for (const std::wstring& name : missing) {
                    text += L" " + name;
                }
                throw Stop{ExitCode::Refused, L"incomplete",
                           text + L". Is it the panel's? The configuration value MySQLDatabase "
                                  L"names it."};
            }
            return ExitCode::Success;
        });
    }

private:
    // Connects nothing yet. Prints the one result, or error, of the command.
    template <class Work>
    ExitCode run(const wchar_t* done, Work work) {
        Stop stop{ExitCode::Success, done, {}};
        try {
            parameters_ = VMySQLDatabase::configuredParameters();
            if (!options_.database.empty()) {
                parameters_.database = options_.database;
            }
            stop.code = work();
            if (stop.code == ExitCode::DoneWithRemainder) {
                stop.status = L"imported-with-remainder";
            }
        } catch (const Stop& stopped) {
            stop = stopped;
        } catch (const CanceledException&) {
            stop = {ExitCode::Cancelled, L"cancelled", L"Cancelled; everything is as it was."};
        } catch (const VDatabase::ConnectException& e) {
            stop = {ExitCode::Failed, L"failed",
                    printable(e.message()) +
                        L"\nThe server, the account and the database are configuration "
                        L"values (MySQLHost, MySQLPort, MySQLLogin, MySQLPassword, "
                        L"MySQLDatabase): zopctl config list"};
        } catch (const vexception& e) { // which may show what stands in the file
            stop = {ExitCode::Failed, L"failed", printable(e.message())};
        }
        console_.status({});
        if (options_.json) {
            JsonFields fields{{"status", stop.status},
                              {"exitCode", static_cast<int>(stop.code)},
                              {"message", stop.message},
                              {"milliseconds", ::GetTickCount64() - start_}};
            fields.insert(fields.end(), result_.begin(), result_.end());
            console_.line(jsonLine(L"result", fields));
        } else if (!stop.message.empty()) {
            console_.errorLine(printableLines(stop.message));
        }
        return stop.code;
    }

    void confirm(const std::wstring& question, const std::wstring& refusal) {
        if (!console_.canAsk() || options_.json) {
            throw Stop{ExitCode::Refused, L"refused", refusal};
        }
        key_.enter(CancelKey::Stage::Asking);
        if (!console_.ask(question + L" (y/N) ")) {
            throw Stop{ExitCode::Cancelled, L"declined", L"Nothing was changed."};
        }
    }

    Hook follow(Event<const DatabaseProgress&, bool&>& event) {
        key_.enter(CancelKey::Stage::Working);
        return event.hook([this](const DatabaseProgress& progress, bool& cancel) {
            // The last chance: what follows goes on to its end.
            cancel = key_.isRequested() || (progress.step == DatabaseStep::Swap &&
                                            key_.enter(CancelKey::Stage::Committing));
            draw(progress);
        });
    }

    void draw(const DatabaseProgress& progress) {
        const std::uint64_t now = ::GetTickCount64();
        if (now - drawn_ < redrawTime || (!options_.json && !console_.isConsole()) ||
            options_.quiet) {
            return;
        }
        drawn_ = now;
        constexpr const wchar_t* steps[] = {L"check", L"rows", L"swap"};
        constexpr const wchar_t* verbs[] = {L"Checking", L"Copying", L"Replacing"};
        const auto step = static_cast<std::size_t>(progress.step);
        // The server only estimates the rows of a table.
        const double fraction =
            progress.totalBytes != 0
                ? static_cast<double>(progress.bytes) / static_cast<double>(progress.totalBytes)
            : progress.totalRows != 0
                ? static_cast<double>(progress.rows) / static_cast<double>(progress.totalRows)
                : -1;
        if (!options_.json) {
            console_.status(progressLine(
                {.verb = verbs[step],
                 .fraction = std::min(fraction, 0.99),
                 .rate = formatRate(static_cast<std::int64_t>(progress.bytes), now - start_),
                 .name = progress.table},
                console_.width()));
            return;
        }
        console_.line(jsonLine(
            L"progress",
            {{"step", steps[step]},
             {"percent", fraction < 0 ? JsonValue()
                                      : JsonValue(static_cast<int>(std::min(fraction, 1.0) * 100))},
             {"table", progress.table},
             {"tables", std::uint64_t{progress.tables}},
             {"rows", progress.rows},
             {"bytes", progress.bytes}}));
    }

    void show(const ExportSummary& summary, const VDatabaseImport::Outlook& outlook) {
        if (options_.json) {
            console_.line(jsonLine(L"outlook", {{"file", RunTime::nicePath(options_.file)},
                                                {"from", summary.database},
                                                {"server", summary.server},
                                                {"time", summary.time},
                                                {"tables", std::uint64_t{summary.tables}},
                                                {"rows", summary.rows},
                                                {"bytes", summary.bytes},
                                                {"database", parameters_.database},
                                                {"replaced", outlook.replaced},
                                                {"added", outlook.added},
                                                {"removed", outlook.removed}}));
            return;
        }
        say(L"File:     \"" + shownFile() + L"\"");
        say(L"Holds:    " + contents(summary.tables, summary.rows) + L" of \"" +
            printable(summary.database) + L"\" (" + printable(summary.server) + L"), " +
            printable(summary.time));
        say(L"Into:     \"" + printable(parameters_.database) + L"\" on " +
            printable(parameters_.host) + L":" + std::to_wstring(parameters_.port));
        say(L"Replaces: " + names(outlook.replaced));
        say(L"Adds:     " + names(outlook.added));
        say(L"Removes:  " + names(outlook.removed));
    }

    static std::wstring names(const std::vector<std::wstring>& tables) {
        std::wstring text;
        for (const std::wstring& table : tables) {
            text += (text.empty() ? L"" : L", ") + printable(table);
        }
        return text.empty() ? L"nothing" : text;
    }

    static std::wstring contents(std::uint32_t tables, std::uint64_t rows) {
        return countOf(tables, L"table", L"tables") + L", " +
               countOf(static_cast<std::int64_t>(rows), L"row", L"rows");
    }

    std::wstring shownFile() const { return printable(RunTime::nicePath(options_.file)); }
    std::wstring time() const { return formatDuration(::GetTickCount64() - start_); }

    void say(const std::wstring& text) {
        if (!options_.quiet && !options_.json) {
            console_.status({});
            console_.line(text);
        }
    }

    void warn(const std::wstring& text) {
        if (!options_.json) { // where the result has them
            console_.errorLine(printable(text));
        }
    }

    const DatabaseOptions& options_;
    Console& console_;
    CancelKey key_;
    VMySQLDatabase::Parameters parameters_;
    JsonFields result_;
    std::uint64_t start_;
    std::uint64_t drawn_ = 0;
};

ExitCode run(DatabaseTask task, const std::vector<std::wstring>& arguments, Console& console,
             ExitCode (DatabaseCommand::*work)()) {
    return runParsed(parseDatabase(task, arguments), console, [&](const DatabaseOptions& options) {
        return (DatabaseCommand(options, console).*work)();
    });
}

} // namespace

ExitCode runDatabaseExport(const std::vector<std::wstring>& arguments, Console& console) {
    return run(DatabaseTask::Export, arguments, console, &DatabaseCommand::exportFile);
}

ExitCode runDatabaseImport(const std::vector<std::wstring>& arguments, Console& console) {
    return run(DatabaseTask::Import, arguments, console, &DatabaseCommand::importFile);
}

ExitCode runDatabaseCheck(const std::vector<std::wstring>& arguments, Console& console) {
    return run(DatabaseTask::Check, arguments, console, &DatabaseCommand::check);
}

} // namespace zopctl
