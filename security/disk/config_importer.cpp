#include "security/disk/config_importer.h"

#include "security/disk/entry_importer.h"
#include "security/disk/path_variables.h"

namespace DiskSecurity {

ConfigImporter::ConfigImporter(std::shared_ptr<AccountLookup> lookup, PathVet vetPaths)
    : lookup_(lookup != nullptr ? std::move(lookup) : std::make_shared<SystemAccountLookup>()),
      vetPaths_(vetPaths != nullptr ? vetPaths : &DiskSecurity::vetPaths), reader_(*this) {}

ConfigImporter::~ConfigImporter() = default;

std::vector<PolicyEntry> ConfigImporter::importFile(const std::wstring& path) {
    return importBytes(readPolicyFile(path), path);
}

std::vector<PolicyEntry> ConfigImporter::importBytes(std::string_view bytes,
                                                     const std::wstring& name) {
    constexpr const char* function = "DiskSecurity::ConfigImporter::importFile";
    begin();
    bool parsing = false;
    try {
        PolicyText text(bytes);
        parsing = true;
        reader_.parse(text);
        return std::move(entries_);
    } catch (PolicyTextException& e) {
        e += {placeText(name, e.position()), function, __LINE__};
        throw;
    } catch (vexception& e) {
        e += {placeText(name, parsing ? reader_.failurePosition() : TextPosition()), function,
              __LINE__};
        throw;
    }
}

ConfigImporter::Report ConfigImporter::checkFile(const std::wstring& path) {
    std::string bytes;
    try {
        bytes = readPolicyFile(path);
    } catch (const vexception& e) {
        return {{}, {{ProblemKind::File, {}, {}, e.message()}}};
    }
    return checkBytes(bytes);
}

ConfigImporter::Report ConfigImporter::checkBytes(std::string_view bytes) {
    begin();
    gathering_ = true;
    try {
        text_.emplace(bytes);
        reader_.parse(*text_);
    } catch (const PolicyTextException& e) {
        problems_.push_back({ProblemKind::Text, e.position(), {}, e.message()});
    } catch (const vexception& e) {
        problems_.push_back({text_ ? ProblemKind::Xml : ProblemKind::Text,
                             text_ ? reader_.failurePosition() : TextPosition(),
                             {},
                             e.message()});
    }
    Report report{std::move(entries_), std::move(problems_)};
    begin();
    return report;
}

void ConfigImporter::begin() {
    entries_.clear();
    problems_.clear();
    accounts_.clear(); // they may have come or gone meanwhile
    text_.reset();
    gathering_ = false;
}

void ConfigImporter::startElement(const XmlElement& element) {
    if (element.name != L"Entry") {
        return;
    }
    try {
        if (std::optional<PolicyEntry> entry = EntryImporter(*this, element).load()) {
            entries_.push_back(std::move(*entry));
        }
    } catch (vexception& e) {
        e += {L"Unable to load XML node", "DiskSecurity::ConfigImporter::startElement", __LINE__};
        throw;
    }
}

TextPosition ConfigImporter::placeOf(const XmlElement& element) {
    return text_ ? text_->startTag(element.number) : TextPosition();
}

// An account that is not there is asked for once, too: it may take a domain controller to tell.
const RunTime::Sid& ConfigImporter::sidOf(const std::wstring& account, const std::wstring& domain) {
    const auto key = std::make_pair(account, domain);
    auto found = accounts_.find(key);
    if (found == accounts_.end()) {
        try {
            found = accounts_.emplace(key, lookup_->lookup(account, domain)).first;
        } catch (const VNoneMappedException& e) {
            found = accounts_.emplace(key, e).first;
        }
    }
    if (const auto* missing = std::get_if<VNoneMappedException>(&found->second)) {
        throw *missing; // a copy: on its way out it gathers frames
    }
    return std::get<RunTime::Sid>(found->second);
}

} // namespace DiskSecurity
