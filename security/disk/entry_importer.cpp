#include "security/disk/entry_importer.h"

#include "runtime/format_string.h"
#include "security/disk/policy_names.h"

#include <algorithm>
#include <iterator>

namespace DiskSecurity {

namespace {

constexpr std::size_t maxAttributeLength = 32'767; // as long as a path can be

} // namespace

std::optional<PolicyEntry> ConfigImporter::EntryImporter::load() {
    try {
        bool whole = attempt(ProblemKind::Attribute, NameCount, &EntryImporter::collect);
        whole &= attempt(ProblemKind::Account, Account, &EntryImporter::loadAccount);
        whole &= attempt(ProblemKind::Path, Path, &EntryImporter::loadPaths);
        whole &= attempt(ProblemKind::AccessMask, AccessMask, &EntryImporter::loadAccessMask);
        whole &= attempt(ProblemKind::AceFlags, AceFlags, &EntryImporter::loadAceFlags);
        whole &= attempt(ProblemKind::EntryFlags, EntryFlags, &EntryImporter::loadEntryFlags);
        if (!whole) {
            return std::nullopt;
        }
        entry_.tag = text(Tag);
        entry_.tag2 = text(Tag2);
        return std::move(entry_);
    } catch (vexception& e) {
        e += {L"Unable to load entry from XML", "DiskSecurity::ConfigImporter::EntryImporter::load",
              __LINE__};
        throw;
    }
}

bool ConfigImporter::EntryImporter::attempt(ProblemKind kind, Name about,
                                            void (EntryImporter::*step)()) {
    if (!importer_.gathering_) {
        (this->*step)();
        return true;
    }
    try {
        (this->*step)();
        return true;
    } catch (const vexception& e) {
        std::vector<PolicyProblem>& problems = importer_.problems_;
        if (problems.size() < maxProblems) {
            problems.push_back({kind, importer_.placeOf(element_),
                                about == NameCount ? std::wstring() : text(about), e.message()});
        }
        return false;
    }
}

void ConfigImporter::EntryImporter::collect() {
    constexpr const char* function = "DiskSecurity::ConfigImporter::EntryImporter::load";
    std::wstring unknown; // the others are needed first, for the other errors of the entry
    for (const XmlAttribute& attribute : element_.attributes) {
        if (!attribute.space.empty()) {
            continue; // somebody else's
        }
        const auto name = std::find(std::begin(names), std::end(names), attribute.name);
        if (name == std::end(names)) {
            unknown = unknown.empty() ? std::wstring(attribute.name) : unknown;
        } else if (attribute.value.size() > maxAttributeLength) {
            throw vexception(formatString(L"The attribute %s is longer than %llu characters", *name,
                                          static_cast<unsigned long long>(maxAttributeLength)),
                             {L"", function, __LINE__});
        } else {
            values_[name - std::begin(names)] = attribute.value;
        }
    }
    // One that is passed over would change what the entry means: without its sub-path it is about
    // the whole path.
    if (!unknown.empty()) {
        std::wstring message = L"Unknown attribute: " + unknown + L", known names are:";
        for (const wchar_t* name : names) {
            message.append(L"\n").append(name);
        }
        throw vexception(message, {L"", function, __LINE__});
    }
}

void ConfigImporter::EntryImporter::loadAccount() {
    try {
        PolicyAccount& account = entry_.account;
        account.type = toInteger(required(AccounType));
        account.name = text(Account);
        if (account.type == wellKnownAccountType) {
            account.sid = wellKnownSid(account.name);
        } else {
            account.domain = text(Domain);
            account.sid = namedSid(account.name, account.domain);
        }
    } catch (vexception& e) {
        e += {L"", "DiskSecurity::ConfigImporter::EntryImporter::loadAccount", __LINE__};
        throw;
    }
}

RunTime::Sid ConfigImporter::EntryImporter::wellKnownSid(const std::wstring& name) {
    const auto known = importer_.wellKnown_.find(name);
    if (known != importer_.wellKnown_.end()) {
        return known->second;
    }
    const AccountName* row = findName(accountNames(), name);
    if (row == nullptr) {
        throw vexception(
            L"Unknown account name: " + name + knownNames(accountNames()),
            {L"", "DiskSecurity::ConfigImporter::EntryImporter::wellKnownSid", __LINE__});
    }
    RunTime::Sid sid = row->sid != nullptr ? RunTime::Sid(std::wstring(row->sid))
                                           : RunTime::Sid(nullptr, row->rid);
    return importer_.wellKnown_.emplace(name, std::move(sid)).first->second;
}

// The name rules: a policy is carried from machine to machine, and accounts of one name have other
// SIDs there. The SID stands in where the name is not told, or not known here.
RunTime::Sid ConfigImporter::EntryImporter::namedSid(const std::wstring& name,
                                                     const std::wstring& domain) {
    const std::wstring sid = text(SidStr);
    if (name.empty() && !sid.empty()) {
        return RunTime::Sid(sid);
    }
    try {
        return importer_.sidOf(name, domain);
    } catch (const VNoneMappedException&) {
        if (sid.empty()) {
            throw;
        }
        return RunTime::Sid(sid);
    }
}

void ConfigImporter::EntryImporter::loadPaths() {
    entry_.path = required(Path);
    entry_.subPath = text(SubPath);
    importer_.vetPaths_(entry_.path, entry_.subPath);
}

void ConfigImporter::EntryImporter::loadAccessMask() {
    const std::wstring name = required(AccessMask);
    const AccessName* row = findName(accessNames(), name);
    if (row == nullptr) {
        throw vexception(
            L"Unknown access mask: " + name + knownNames(accessNames()),
            {L"", "DiskSecurity::ConfigImporter::EntryImporter::loadAccessMask", __LINE__});
    }
    entry_.accessMask = row->value;
}

void ConfigImporter::EntryImporter::loadAceFlags() {
    const std::wstring name = required(AceFlags);
    const AceFlagsName* row = findName(aceFlagsNames(), name);
    if (row == nullptr) {
        throw vexception(
            L"Unknown ace flags: " + name + knownNames(aceFlagsNames()),
            {L"", "DiskSecurity::ConfigImporter::EntryImporter::loadAceFlags", __LINE__});
    }
    entry_.aceFlags = row->value;
}

void ConfigImporter::EntryImporter::loadEntryFlags() {
    const std::optional<std::wstring_view>& number = values_[EntryFlags];
    entry_.entryFlags = number ? toInteger(*number) : 0;
}

std::wstring ConfigImporter::EntryImporter::text(Name name) const {
    return std::wstring(values_[name].value_or(std::wstring_view()));
}

std::wstring ConfigImporter::EntryImporter::required(Name name) const {
    if (!values_[name]) {
        throw vexception(formatString(L"The attribute %s is missing", names[name]),
                         {L"", "DiskSecurity::ConfigImporter::EntryImporter::load", __LINE__});
    }
    return text(name);
}

} // namespace DiskSecurity
