#include "tools/zopctl/policy_command.h"

#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "security/disk/config_importer.h"
#include "security/disk/path_variables.h"
#include "security/disk/policy_files.h"
#include "security/disk/policy_names.h"
#include "tools/zopctl/command_parser.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/table.h"
#include "tools/zopctl/text_format.h"

#include <CLI/CLI.hpp>
#include <set>

namespace zopctl {

namespace {

using DiskSecurity::ConfigImporter;
using DiskSecurity::PolicyEntry;
using DiskSecurity::PolicyProblem;
using DiskSecurity::ProblemKind;

constexpr const char* footer = R"(
Exit codes:
  0  no errors
  2  the command line is wrong
  3  a file has errors; all of them are shown
  4  a file cannot be read

Examples:
  zopctl policy show C:\panel\etc\DiskSecurity\vhosts.xml
  zopctl policy check --installed)";

struct PolicyOptions {
    std::wstring file;
    bool installed = false;
    bool json = false;
};

Parsed<PolicyOptions> parse(const char* name, const char* summary,
                            const std::vector<std::wstring>& arguments) {
    Parsed<PolicyOptions> parsed;
    PolicyOptions options;
    CommandParser parser(name, summary, footer);
    parser.addPositional("FILE", options.file, "A policy file", false);
    parser.app().add_flag("--installed", options.installed,
                          "All policy files of the product (etc\\DiskSecurity\\*.xml)");
    parser.addJson(options.json);
    if (!parser.parse(arguments, parsed)) {
        return parsed;
    }
    if (options.file.empty() != options.installed) {
        parser.fail(parsed, options.installed ? L"FILE and --installed contradict each other."
                                              : L"FILE is missing, or --installed in its place.");
        return parsed;
    }
    parsed.options = std::move(options);
    return parsed;
}

struct KindRow {
    ProblemKind kind;
    const wchar_t* name; // in JSON
    const wchar_t* remedy;
};

constexpr KindRow kinds[] = {
    {ProblemKind::File, L"file", L"Give the path of a file that this account may read."},
    {ProblemKind::Text, L"text",
     L"Save it as UTF-8, without a document type and with entries of ordinary size."},
    {ProblemKind::Xml, L"xml", L"Make it well-formed XML; later errors show only then."},
    {ProblemKind::Attribute, L"attribute",
     L"Entry has no other attributes, and none of them twice; letter case counts."},
    {ProblemKind::Account, L"account",
     L"Give AccounType 0 and a known name (letter case counts), or another number and an account "
     L"of this machine or its domain; SidStr stands in for a name."},
    {ProblemKind::Path, L"path",
     L"Begin with a drive (C:\\) or a variable ([HTTPD_VHOSTS_D]), and stay below it."},
    {ProblemKind::AccessMask, L"access-mask", L"Write a known name; letter case counts."},
    {ProblemKind::AceFlags, L"ace-flags", L"Write a known name; letter case counts."},
    {ProblemKind::EntryFlags, L"entry-flags",
     L"Write a number: decimal, hexadecimal behind 0x, or octal behind 0."},
};

const KindRow& rowOf(ProblemKind kind) {
    const KindRow* row = kinds;
    while (row->kind != kind) {
        ++row;
    }
    return *row;
}

// The known name that was probably meant; empty for none.
std::wstring guess(const PolicyProblem& problem) {
    std::vector<std::wstring> names;
    const auto add = [&names](const auto& table) {
        for (const auto& row : table) {
            names.emplace_back(row.name);
        }
    };
    std::wstring value = problem.value;
    switch (problem.kind) {
    case ProblemKind::Account:
        add(DiskSecurity::accountNames());
        break;
    case ProblemKind::AccessMask:
        add(DiskSecurity::accessNames());
        break;
    case ProblemKind::AceFlags:
        add(DiskSecurity::aceFlagsNames());
        break;
    case ProblemKind::Path: {
        const std::size_t end = value.find(L']');
        if (!value.starts_with(L'[') || end == value.npos) {
            return {};
        }
        value = value.substr(1, end - 1);
        names = DiskSecurity::pathVariableNames();
        break;
    }
    default:
        return {};
    }
    const std::wstring name = nearest(value.substr(0, 100), names);
    return name == value ? std::wstring() : name; // it was the rest that is wrong
}

std::wstring remedyOf(const PolicyProblem& problem) {
    const std::wstring name = guess(problem);
    return name.empty() ? rowOf(problem.kind).remedy : L"Did you mean \"" + name + L"\"?";
}

// A message on one line; the names that it lists stand below one another.
std::wstring oneLine(std::wstring text) {
    for (const wchar_t* join = L" "; text.find(L'\n') != text.npos; join = L", ") {
        text.replace(text.find(L'\n'), 1, join);
    }
    return printable(text);
}

std::wstring accountOf(const PolicyEntry& entry) {
    const DiskSecurity::PolicyAccount& account = entry.account;
    if (account.name.empty()) {
        return account.sid.string();
    }
    return account.domain.empty() ? account.name : account.domain + L"\\" + account.name;
}

// For people. What a file calls an account need not be the account that it stands for: SidStr
// replaces a name that is not known here. So its SID is told too.
std::wstring accountAndSid(const PolicyEntry& entry) {
    const DiskSecurity::PolicyAccount& account = entry.account;
    return account.type == DiskSecurity::wellKnownAccountType || account.name.empty()
               ? accountOf(entry)
               : accountOf(entry) + L" (" + account.sid.string() + L")";
}

class PolicyCommand {
public:
    PolicyCommand(const PolicyOptions& options, Console& console, bool show)
        : options_(options), console_(console), show_(show) {}

    ExitCode run() {
        std::vector<std::wstring> files{options_.file};
        if (options_.installed) {
            try {
                files = DiskSecurity::installedPolicyFiles();
            } catch (const vexception& e) {
                return finish(ExitCode::Failed,
                              e.message() + L".\nThe policy files lie in etc\\DiskSecurity below "
                                            L"the directory that the configuration value "
                                            L"PRODUCT_ROOT_D names.");
            }
        }
        for (const std::wstring& file : files) {
            one(file);
        }
        return finish(files.empty() ? ExitCode::Failed : code_,
                      files.empty() ? L"There are no policy files in " +
                                          DiskSecurity::policyDirectory() + L"."
                                    : std::wstring());
    }

private:
    void one(const std::wstring& file) {
        const ConfigImporter::Report report = importer_.checkFile(file);
        entries_ += report.entries.size();
        problems_ += report.problems.size();
        for (const PolicyProblem& problem : report.problems) {
            code_ = std::max(code_, problem.kind == ProblemKind::File ? ExitCode::Failed
                                                                      : ExitCode::Refused);
            print(file, problem);
        }
        // A file with an error is not imported at all.
        if (show_ && report.problems.empty()) {
            show(file, report.entries);
        }
        if (!options_.json && (!show_ || !report.problems.empty())) {
            const std::wstring errors =
                report.problems.empty()
                    ? L"no errors"
                    : countOf(static_cast<std::int64_t>(report.problems.size()), L"error",
                              L"errors") +
                          (report.problems.size() >= ConfigImporter::maxProblems ? L" or more"
                                                                                 : L"");
            console_.line(
                printable(RunTime::nicePath(file)) + L": " + errors + L", " +
                countOf(static_cast<std::int64_t>(report.entries.size()), L"entry", L"entries") +
                L" in order");
        }
    }

    void print(const std::wstring& file, const PolicyProblem& problem) {
        const std::wstring nice = RunTime::nicePath(file);
        if (options_.json) {
            console_.line(jsonLine(L"problem", {{"file", nice},
                                                {"line", problem.position.line},
                                                {"column", problem.position.column},
                                                {"kind", rowOf(problem.kind).name},
                                                {"value", problem.value},
                                                {"message", problem.message},
                                                {"remedy", remedyOf(problem)}}));
            return;
        }
        std::wstring place = printable(nice);
        if (problem.position.line != 0) {
            place += L":" + std::to_wstring(problem.position.line) + L":" +
                     std::to_wstring(problem.position.column);
        }
        console_.errorLine(place + L": " + oneLine(problem.message) + L"\n  " +
                           printable(remedyOf(problem)));
    }

    void show(const std::wstring& file, const std::vector<PolicyEntry>& entries) {
        std::vector<std::vector<std::wstring>> rows{
            {L"PATH", L"ACCOUNT", L"ACCESS", L"APPLIES TO", L"FLAGS", L"TAGS"}};
        std::set<std::wstring> unresolved; // each cause once
        for (const PolicyEntry& entry : entries) {
            std::wstring path;
            try {
                path = variables_.resolve(entry.path, entry.subPath);
            } catch (const vexception& e) {
                unresolved.insert(e.message());
            }
            const std::wstring access =
                DiskSecurity::findValue(DiskSecurity::accessNames(), entry.accessMask)->name;
            const std::wstring appliesTo =
                DiskSecurity::findValue(DiskSecurity::aceFlagsNames(), entry.aceFlags)->name;
            if (options_.json) {
                console_.line(
                    jsonLine(L"entry", {{"file", RunTime::nicePath(file)},
                                        {"path", entry.path},
                                        {"subPath", entry.subPath},
                                        {"resolved", path.empty() ? JsonValue() : JsonValue(path)},
                                        {"account", accountOf(entry)},
                                        {"sid", entry.account.sid.string()},
                                        {"access", access},
                                        {"accessMask", std::int64_t{entry.accessMask}},
                                        {"appliesTo", appliesTo},
                                        {"aceFlags", static_cast<int>(entry.aceFlags)},
                                        {"entryFlags", std::int64_t{entry.entryFlags}},
                                        {"tag", entry.tag},
                                        {"tag2", entry.tag2}}));
                continue;
            }
            if (path.empty()) {
                path = entry.path + (entry.subPath.empty() ? L"" : L"\\" + entry.subPath);
            }
            const std::wstring tags = entry.tag + (entry.tag2.empty() ? L"" : L" " + entry.tag2);
            rows.push_back({printable(path), printable(accountAndSid(entry)), access, appliesTo,
                            std::to_wstring(entry.entryFlags), printable(tags)});
        }
        for (const std::wstring& cause : unresolved) {
            if (options_.json) {
                console_.line(jsonLine(L"warning", {{"message", cause}}));
            } else {
                console_.errorLine(L"A path stands as the file has it: " + oneLine(cause));
            }
        }
        if (!options_.json) {
            console_.line(printable(RunTime::nicePath(file)) + L":");
            printTable(rows, console_);
        }
    }

    ExitCode finish(ExitCode code, const std::wstring& message) {
        if (options_.json) {
            const wchar_t* status = code == ExitCode::Success   ? L"valid"
                                    : code == ExitCode::Refused ? L"invalid"
                                                                : L"failed";
            console_.line(
                jsonLine(L"result", {{"status", status},
                                     {"exitCode", static_cast<int>(code)},
                                     {"message", message},
                                     {"entries", static_cast<std::int64_t>(entries_)},
                                     {"problems", static_cast<std::int64_t>(problems_)}}));
        } else if (!message.empty()) {
            console_.errorLine(printableLines(message));
        }
        return code;
    }

    const PolicyOptions& options_;
    Console& console_;
    bool show_;
    ConfigImporter importer_;
    DiskSecurity::PathVariables variables_;
    std::size_t entries_ = 0;
    std::size_t problems_ = 0;
    ExitCode code_ = ExitCode::Success;
};

} // namespace

ExitCode runPolicyShow(const std::vector<std::wstring>& arguments, Console& console) {
    const auto parsed =
        parse("zopctl policy show", "Lists the entries of a disk security policy.", arguments);
    return runParsed(parsed, console, [&](const PolicyOptions& options) {
        return PolicyCommand(options, console, true).run();
    });
}

ExitCode runPolicyCheck(const std::vector<std::wstring>& arguments, Console& console) {
    const auto parsed =
        parse("zopctl policy check", "Finds every error in a disk security policy.", arguments);
    return runParsed(parsed, console, [&](const PolicyOptions& options) {
        return PolicyCommand(options, console, false).run();
    });
}

} // namespace zopctl
