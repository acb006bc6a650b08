// Reads disk security policy files: XML, in which every element "Entry" is one policy entry and has
// its data in attributes (docs/disk-security-policy.md). Other elements are passed over.
//
//     DiskSecurity::ConfigImporter importer;
//     for (const DiskSecurity::PolicyEntry& entry : importer.importFile(path)) { ... }
//
// A file may have been written by anybody (see policy_text.h for what is refused). An importer
// belongs to the thread that makes it, and reads any number of files. Each account of a file is
// looked up once.
#pragma once

#include "security/disk/account_lookup.h"
#include "security/disk/policy_entry.h"
#include "security/disk/policy_text.h"
#include "security/disk/sax_reader.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace DiskSecurity {

// What an error in a policy file is about.
enum class ProblemKind {
    File,      // it cannot be read
    Text,      // it has what no policy file may have, a document type for example
    Xml,       // it is not well-formed
    Attribute, // an attribute is missing, too long, or of no known name
    Account,
    Path, // Path and SubPath
    AccessMask,
    AceFlags,
    EntryFlags,
};

struct PolicyProblem {
    ProblemKind kind;
    TextPosition position; // of the tag
    std::wstring value;    // of the attribute in question; empty where there is none
    std::wstring message;
};

class ConfigImporter : private ElementHandler {
public:
    // Throws vexception for paths that an entry must not have.
    using PathVet = void (*)(const std::wstring& path, const std::wstring& subPath);

    // Without a lookup of its own it asks the system; without rules of its own for paths it has
    // those of policies (path_variables.h).
    explicit ConfigImporter(std::shared_ptr<AccountLookup> lookup = nullptr,
                            PathVet vetPaths = nullptr);
    ~ConfigImporter() override;
    ConfigImporter(const ConfigImporter&) = delete;
    ConfigImporter& operator=(const ConfigImporter&) = delete;

    // The entries in the order of the file. The first error ends it: a vexception whose frames tell
    // the way from the attribute to the file, the last one with line and column.
    std::vector<PolicyEntry> importFile(const std::wstring& path);
    // The same for a file's bytes; name is for messages.
    std::vector<PolicyEntry> importBytes(std::string_view bytes, const std::wstring& name);

    // All errors of a file, in its order, and the entries that have none. After an error of kind
    // File, Text or Xml nothing more can be told. At most maxProblems are kept.
    struct Report {
        std::vector<PolicyEntry> entries;
        std::vector<PolicyProblem> problems;
    };
    static constexpr std::size_t maxProblems = 1000;
    Report checkFile(const std::wstring& path);
    Report checkBytes(std::string_view bytes);

private:
    class EntryImporter;
    using Found = std::variant<RunTime::Sid, VNoneMappedException>;

    void begin();
    void startElement(const XmlElement& element) override;
    TextPosition placeOf(const XmlElement& element);
    const RunTime::Sid& sidOf(const std::wstring& account, const std::wstring& domain);

    std::shared_ptr<AccountLookup> lookup_;
    PathVet vetPaths_;
    std::map<std::pair<std::wstring, std::wstring>, Found> accounts_; // by name and domain
    std::map<std::wstring, RunTime::Sid> wellKnown_;
    SaxReader reader_;
    // Of the file that is being read or checked.
    std::vector<PolicyEntry> entries_;
    std::vector<PolicyProblem> problems_;
    std::optional<PolicyText> text_; // for the places of problems
    bool gathering_ = false;         // problems are gathered; otherwise the first ends it
};

} // namespace DiskSecurity
