#include "security/disk/entry_collections.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/text.h"
#include "security/disk/policy_names.h"

#include <string_view>
#include <utility>

namespace DiskSecurity {

namespace {

constexpr const char* exportFunction = "DiskSecurity::exportEntries";

// Blanks but the space are written as references: a reader makes spaces of them otherwise.
std::wstring escaped(const std::wstring& text) {
    std::wstring result;
    for (const wchar_t c : text) {
        switch (c) {
        case L'&':
            result += L"&amp;";
            break;
        case L'<':
            result += L"&lt;";
            break;
        case L'>':
            result += L"&gt;";
            break;
        case L'"':
            result += L"&quot;";
            break;
        case L'\t':
        case L'\n':
        case L'\r':
            result += formatString(L"&#%d;", static_cast<int>(c));
            break;
        default:
            if (c < L' ' || c == 0xFFFE || c == 0xFFFF) {
                throw ArgumentException(
                    formatString(L"XML has no character %04X", static_cast<unsigned>(c)),
                    {L"", exportFunction, __LINE__});
            }
            result += c;
        }
    }
    return result;
}

void append(std::string& xml, const char* name, const std::wstring& value) {
    const std::wstring wide = escaped(value);
    const std::string text = toUtf8(wide);
    if (toWide(text) != wide) {
        throw ArgumentException(L"Half a character cannot be written: " + value,
                                {L"", exportFunction, __LINE__});
    }
    xml.append(" ").append(name).append("=\"").append(text).append("\"");
}

template <class Row, class Value>
std::wstring nameOf(std::span<const Row> table, Value value, const wchar_t* failure) {
    const Row* row = findValue(table, value);
    if (row == nullptr) {
        throw ArgumentException(formatString(failure, static_cast<unsigned>(value)),
                                {L"", exportFunction, __LINE__});
    }
    return row->name;
}

} // namespace

bool PathLess::operator()(const std::wstring& left, const std::wstring& right) const noexcept {
    return ::CompareStringOrdinal(left.c_str(), static_cast<int>(left.size()), right.c_str(),
                                  static_cast<int>(right.size()), TRUE) == CSTR_LESS_THAN;
}

EntryCollections collectEntries(std::vector<PolicyEntry> entries, PathVariables& variables) {
    EntryCollections collections;
    for (PolicyEntry& entry : entries) {
        try {
            collections[variables.resolve(entry.path, entry.subPath)].push_back(std::move(entry));
        } catch (vexception& e) {
            e += {entry.path, "DiskSecurity::collectEntries", __LINE__};
            throw;
        }
    }
    return collections;
}

std::string exportEntries(std::span<const PolicyEntry> entries) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<DiskSecurity>\n";
    for (const PolicyEntry& entry : entries) {
        const PolicyAccount& account = entry.account;
        xml += "  <Entry";
        append(xml, "AccounType", std::to_wstring(account.type));
        append(xml, "Account", account.name);
        if (account.type == wellKnownAccountType) {
            if (findName(accountNames(), account.name) == nullptr) {
                throw ArgumentException(L"Unknown account name: " + account.name +
                                            knownNames(accountNames()),
                                        {L"", exportFunction, __LINE__});
            }
        } else {
            append(xml, "Domain", account.domain);
            append(xml, "SidStr", account.sid.string());
        }
        append(xml, "Path", entry.path);
        append(xml, "SubPath", entry.subPath);
        append(xml, "AccessMask",
               nameOf(accessNames(), entry.accessMask, L"The access mask 0x%08X has no name"));
        append(xml, "AceFlags",
               nameOf(aceFlagsNames(), entry.aceFlags, L"The ACE flags %u have no name"));
        append(xml, "EntryFlags", formatString(L"0x%X", entry.entryFlags));
        append(xml, "Tag", entry.tag);
        append(xml, "Tag2", entry.tag2);
        xml += "/>\n";
    }
    return xml + "</DiskSecurity>\n";
}

} // namespace DiskSecurity
