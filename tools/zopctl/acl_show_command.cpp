#include "tools/zopctl/acl_show_command.h"

#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/format_string.h"
#include "security/ace_text.h"
#include "security/acl.h"
#include "security/descriptor_bytes.h"
#include "security/sddl.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/text_format.h"

#include <optional>

namespace zopctl {

namespace {

constexpr const char* footer = R"(
Shows owner, group and every entry of the access list, in words and in SDDL, in
the order in which they are stored. Nothing is changed. A link is shown itself,
not what it names. Audit entries are shown where the account may read them.

Exit codes:
  0  shown
  2  the command line is wrong
  4  could not be read

Example:
  zopctl acl show C:\panel\data)";

// What there is to know of one list. An access list that is not there grants everything; one that
// has no entries grants nothing.
struct ListReport {
    std::optional<RunTime::Acl> list;
    bool isProtected = false;
    bool isAutoInherited = false;
    std::optional<DWORD> outOfOrder; // counts from 0
};

struct Report {
    std::wstring path; // for people
    const wchar_t* kind = L"";
    RunTime::AceSubject subject = RunTime::AceSubject::File;
    RunTime::Sid owner;
    RunTime::Sid group;
    ListReport access;
    std::optional<ListReport> audit; // empty: this account may not read it
    std::optional<std::wstring> sddl;
};

RunTime::Sid sidOf(std::span<const unsigned char> bytes) {
    return bytes.empty() ? RunTime::Sid() : RunTime::Sid::fromBytes(bytes);
}

std::optional<RunTime::Acl> listOf(std::span<const unsigned char> bytes) {
    return bytes.empty() ? std::nullopt : std::optional(RunTime::Acl::fromBytes(bytes));
}

// What SDDL has no words for has none.
template <class What, class... Parts>
std::optional<std::wstring> sddlIfAny(const What& what, Parts... parts) {
    try {
        return RunTime::sddlOf(what, parts...);
    } catch (const vosexception&) {
        return std::nullopt;
    }
}

Report look(const std::wstring& typed) {
    const std::wstring path = RunTime::longPath(typed);
    Report report;
    report.path = RunTime::nicePath(path);
    const RunTime::FileInformation information = RunTime::fileInformation(path);
    report.kind = information.isLink()        ? L"link"
                  : information.isDirectory() ? L"directory"
                                              : L"file";
    report.subject =
        information.isDirectory() ? RunTime::AceSubject::Directory : RunTime::AceSubject::File;

    const RunTime::PrivilegeScope privileges({SE_BACKUP_NAME, SE_SECURITY_NAME});
    RunTime::DescriptorBytes bytes;
    const auto read = [&](bool audit) {
        const RunTime::AutoHandle handle =
            RunTime::openExisting(path, READ_CONTROL | (audit ? ACCESS_SYSTEM_SECURITY : 0),
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
        return handle ? RunTime::readDescriptor(handle.get(), audit, bytes) : ::GetLastError();
    };
    const bool audit = privileges.holds(SE_SECURITY_NAME) && read(true) == ERROR_SUCCESS;
    const DWORD code = audit ? ERROR_SUCCESS : read(false);
    if (code != ERROR_SUCCESS) {
        _throwError(
            formatString(L"Unable to read the permissions of (%s)", report.path.c_str()).c_str(),
            code, {L"", "zopctl::runAclShow", __LINE__});
    }

    const RunTime::DescriptorParts parts = RunTime::partsOf(bytes);
    report.owner = sidOf(parts.owner);
    report.group = sidOf(parts.group);
    report.access = {listOf(parts.dacl), (parts.control & SE_DACL_PROTECTED) != 0,
                     (parts.control & SE_DACL_AUTO_INHERITED) != 0, std::nullopt};
    if (report.access.list) {
        report.access.outOfOrder = RunTime::firstOutOfOrder(*report.access.list);
    }
    if (audit) {
        report.audit = {listOf(parts.sacl), (parts.control & SE_SACL_PROTECTED) != 0,
                        (parts.control & SE_SACL_AUTO_INHERITED) != 0, std::nullopt};
    }
    report.sddl = sddlIfAny(
        bytes.data(),
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
            (audit ? static_cast<SECURITY_INFORMATION>(SACL_SECURITY_INFORMATION) : 0));
    return report;
}

// For people.

std::wstring nameAndSid(const RunTime::Sid& sid) {
    if (!sid) {
        return L"none";
    }
    const std::wstring name = RunTime::describeTrustee(sid);
    return printable(name == sid.string() ? name : name + L" (" + sid.string() + L")");
}

void printEntries(const RunTime::Acl& list, RunTime::AceSubject subject, Console& console) {
    int number = 0;
    for (const RunTime::Ace ace : list) {
        console.line(formatString(L"%4d  ", ++number) +
                     printable(RunTime::describeAce(ace, subject)));
        if (const auto sddl = sddlIfAny(ace)) {
            console.line(L"      " + printable(*sddl));
        }
    }
}

std::wstring summary(const ListReport& report) {
    if (!report.list) {
        return L"no list (null): everybody has full access";
    }
    std::wstring text;
    if (report.list->aceCount() != 0) {
        text = countOf(report.list->aceCount(), L"entry", L"entries") +
               (report.outOfOrder ? L"; NOT in canonical order: entry " +
                                        std::to_wstring(*report.outOfOrder + 1) +
                                        L" should stand before one above it"
                                  : L", in canonical order");
    } else {
        text = L"empty: nobody has access (the owner may still change the permissions)";
    }
    text += report.isProtected ? L"; protected, so nothing is inherited from above"
                               : L"; inherits from above";
    return text + (report.isAutoInherited ? L" (auto-inherited)" : L"");
}

void print(const Report& report, Console& console) {
    console.line(L"Path:   " + printable(report.path) + L" (" + report.kind + L")");
    console.line(L"Owner:  " + nameAndSid(report.owner));
    console.line(L"Group:  " + nameAndSid(report.group));
    console.line(L"Access: " + summary(report.access));
    if (report.access.list) {
        printEntries(*report.access.list, report.subject, console);
    }
    if (!report.audit) {
        console.line(L"Audit:  not shown; reading it needs the privilege SeSecurityPrivilege");
    } else if (!report.audit->list || report.audit->list->aceCount() == 0) {
        console.line(L"Audit:  nothing is audited");
    } else {
        console.line(L"Audit:  " + countOf(report.audit->list->aceCount(), L"entry", L"entries") +
                     (report.audit->isProtected ? L"; protected" : L""));
        printEntries(*report.audit->list, report.subject, console);
    }
    console.line(L"SDDL:   " +
                 printable(report.sddl.value_or(L"none: an entry has no form in SDDL")));
}

// For programs.

JsonValue textOrNull(const std::optional<std::wstring>& text) {
    return text ? JsonValue(*text) : JsonValue();
}

JsonValue account(const RunTime::Sid& sid) {
    return sid ? JsonValue(
                     JsonFields{{"sid", sid.string()}, {"name", RunTime::describeTrustee(sid)}})
               : JsonValue();
}

JsonValue jsonOf(const ListReport& report, RunTime::AceSubject subject) {
    if (!report.list) {
        return {};
    }
    JsonList entries;
    for (const RunTime::Ace ace : *report.list) {
        RunTime::Sid trustee;
        trustee.copy(ace.sid());
        entries.push_back(JsonFields{{"number", static_cast<int>(entries.size()) + 1},
                                     {"type", ace.type()},
                                     {"flags", ace.flags()},
                                     {"mask", std::int64_t{ace.mask()}},
                                     {"inherited", ace.isInherited()},
                                     {"trustee", account(trustee)},
                                     {"text", RunTime::describeAce(ace, subject)},
                                     {"sddl", textOrNull(sddlIfAny(ace))}});
    }
    return JsonFields{{"protected", report.isProtected},
                      {"autoInherited", report.isAutoInherited},
                      {"canonical", !report.outOfOrder},
                      {"outOfOrder", report.outOfOrder
                                         ? JsonValue(std::int64_t{*report.outOfOrder} + 1)
                                         : JsonValue()},
                      {"entries", std::move(entries)}};
}

void printJson(const Report& report, Console& console) {
    console.line(jsonLine(
        L"acl", {{"path", report.path},
                 {"kind", report.kind},
                 {"owner", account(report.owner)},
                 {"group", account(report.group)},
                 {"nullAccessList", !report.access.list},
                 {"access", jsonOf(report.access, report.subject)},
                 {"auditRead", report.audit.has_value()},
                 {"audit", report.audit ? jsonOf(*report.audit, report.subject) : JsonValue()},
                 {"sddl", textOrNull(report.sddl)}}));
    console.line(jsonLine(L"result", {{"status", L"shown"}, {"exitCode", 0}}));
}

ExitCode show(const AclShowOptions& options, Console& console) {
    try {
        const Report report = look(options.path);
        (options.json ? printJson : print)(report, console);
        return ExitCode::Success;
    } catch (const vexception& e) {
        if (options.json) {
            console.line(jsonLine(L"result", {{"status", L"failed"},
                                              {"exitCode", static_cast<int>(ExitCode::Failed)},
                                              {"message", e.message()}}));
        } else {
            console.errorLine(e.message());
        }
        return ExitCode::Failed;
    }
}

} // namespace

Parsed<AclShowOptions> parseAclShow(const std::vector<std::wstring>& arguments) {
    Parsed<AclShowOptions> parsed;
    AclShowOptions options;
    CommandParser parser("zopctl acl show", "Shows who may do what with a file or directory.",
                         footer);
    parser.addPositional("PATH", options.path, "The file or directory");
    parser.addJson(options.json);
    if (parser.parse(arguments, parsed)) {
        parsed.options = std::move(options);
    }
    return parsed;
}

ExitCode runAclShow(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseAclShow(arguments), console,
                     [&](const AclShowOptions& options) { return show(options, console); });
}

} // namespace zopctl
