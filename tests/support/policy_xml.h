// Pieces of policy files for tests: an entry that is in order, the same with some attributes
// changed, and accounts to name.
#pragma once

#include "runtime/exception.h"
#include "security/disk/account_lookup.h"
#include "security/disk/policy_entry.h"

#include <array>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

// Knows the accounts it was given, and counts the questions.
class FakeLookup : public DiskSecurity::AccountLookup {
public:
    std::map<std::wstring, std::wstring> sids; // by domain\account
    int calls = 0;

    RunTime::Sid lookup(const std::wstring& account, const std::wstring& domain) override {
        ++calls;
        const auto found = sids.find(domain + L"\\" + account);
        if (found == sids.end()) {
            _throwError(L"fake", ERROR_NONE_MAPPED, {L"", "FakeLookup::lookup", __LINE__});
        }
        return RunTime::Sid(found->second);
    }
};

// Values that a table of a test has, written as a call so that they fill the lines.
template <class Value, class... Values>
auto listOf(Values... values) {
    return std::array<Value, sizeof...(values)>{static_cast<Value>(values)...};
}

// The words of a text, which blanks separate.
inline std::vector<std::wstring> wordsOf(const wchar_t* text) {
    std::wistringstream stream(text);
    return {std::istream_iterator<std::wstring, wchar_t>(stream), {}};
}

using Attributes = std::vector<std::pair<std::string, std::string>>;

inline std::string entryXml(const Attributes& changes = {}) {
    Attributes all = {{"AccounType", "0"},
                      {"Account", "Everyone"},
                      {"Path", "C:\\sites"},
                      {"AccessMask", "Modify"},
                      {"AceFlags", "FilesOnly"}};
    for (const auto& change : changes) {
        std::erase_if(all, [&](const auto& one) { return one.first == change.first; });
        if (change.second != "(none)") {
            all.push_back(change);
        }
    }
    std::string xml = "<Entry";
    for (const auto& [name, value] : all) {
        xml.append(" ").append(name).append("=\"").append(value).append("\"");
    }
    return xml + "/>";
}

inline std::string policyXml(const std::string& entries) {
    return "<DiskSecurity>\n" + entries + "\n</DiskSecurity>\n";
}

inline auto fieldsOf(const DiskSecurity::PolicyEntry& entry) {
    return std::make_tuple(entry.account.type, entry.account.name, entry.account.domain,
                           entry.account.sid.string(), entry.path, entry.subPath, entry.accessMask,
                           static_cast<int>(entry.aceFlags), entry.entryFlags, entry.tag,
                           entry.tag2);
}
