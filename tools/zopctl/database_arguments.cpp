#include "tools/zopctl/database_arguments.h"

#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* exportFooter = R"(
All tables, definitions and rows, go into one file: an SQL script that "database
import" reads back. The rows are those of one moment, whatever others change
meanwhile. The file holds passwords: only System and Administrators may read it.

Exit codes:
  0  exported
  2  the command line is wrong
  3  refused: there is a file of that name
  4  failed; there is no file, or the old one
  5  cancelled; there is no file, or the old one

Example:
  zopctl database export D:\backup\panel.sql)";

constexpr const char* importFooter = R"(
The file is read whole and vetted first. Then its tables are filled beside the
old ones, and take their places all at once. Tables that the file does not have
are removed. Stop the panel meanwhile: what it writes to the old tables is lost.

Exit codes:
  0  imported
  2  the command line is wrong
  3  refused: --yes is missing where nobody can be asked
  4  failed; the database is as it was
  5  cancelled, or the question was answered with no; the database is as it was
  7  imported, but old tables were left behind; the next import removes them

Example:
  zopctl database import D:\backup\panel.sql)";

constexpr const char* checkFooter = R"(
Connects as the configuration says (MySQLHost, MySQLPort, MySQLLogin,
MySQLPassword, MySQLDatabase), and changes nothing.

Exit codes:
  0  the database has all that is needed
  2  the command line is wrong
  3  tables or columns are missing; they are shown
  4  there is no connection

Example:
  zopctl database check)";

struct TaskTexts {
    const char* name;
    const char* summary;
    const char* footer;
};

constexpr TaskTexts texts[] = {
    {"zopctl database export", "Writes the panel's database into a file.", exportFooter},
    {"zopctl database import", "Replaces the panel's database by an export.", importFooter},
    {"zopctl database check", "Connects to the panel's database and looks at it.", checkFooter},
};

} // namespace

Parsed<DatabaseOptions> parseDatabase(DatabaseTask task,
                                      const std::vector<std::wstring>& arguments) {
    Parsed<DatabaseOptions> parsed;
    DatabaseOptions options;
    const TaskTexts& text = texts[static_cast<std::size_t>(task)];
    CommandParser parser(text.name, text.summary, text.footer);
    if (task != DatabaseTask::Check) {
        parser.addPositional("FILE", options.file, "The file");
        parser.app().add_flag("-y,--yes", options.yes, "Goes on without the question");
        parser.app().add_flag("-q,--quiet", options.quiet, "Prints errors only");
    }
    parser.addValue("--database", options.database, "NAME",
                    "Another database than the one of the configuration");
    parser.addJson(options.json);
    if (parser.parse(arguments, parsed)) {
        parsed.options = std::move(options);
    }
    return parsed;
}

} // namespace zopctl
