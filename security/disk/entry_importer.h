// One element "Entry" on its way to a policy entry: the attributes one by one.
#pragma once

#include "security/disk/config_importer.h"

namespace DiskSecurity {

class ConfigImporter::EntryImporter {
public:
    EntryImporter(ConfigImporter& importer, const XmlElement& element)
        : importer_(importer), element_(element) {}

    // Throws at the first error; where problems are gathered it goes on to the next attribute, and
    // returns nothing in the end.
    std::optional<PolicyEntry> load();

private:
    enum Name {
        AccounType,
        Account,
        Domain,
        SidStr,
        Path,
        SubPath,
        AccessMask,
        AceFlags,
        EntryFlags,
        Tag,
        Tag2,
        NameCount,
    };
    static constexpr const wchar_t* names[NameCount] = {
        L"AccounType", L"Account",  L"Domain",     L"SidStr", L"Path", L"SubPath",
        L"AccessMask", L"AceFlags", L"EntryFlags", L"Tag",    L"Tag2",
    };

    void collect();
    void loadAccount();
    void loadPaths();
    void loadAccessMask();
    void loadAceFlags();
    void loadEntryFlags();
    RunTime::Sid wellKnownSid(const std::wstring& name);
    RunTime::Sid namedSid(const std::wstring& name, const std::wstring& domain);
    bool attempt(ProblemKind kind, Name about, void (EntryImporter::*step)());

    std::wstring text(Name name) const;     // empty where it is missing
    std::wstring required(Name name) const; // throws where it is missing

    ConfigImporter& importer_;
    const XmlElement& element_;
    std::optional<std::wstring_view> values_[NameCount];
    PolicyEntry entry_;
};

} // namespace DiskSecurity
