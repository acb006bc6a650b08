#include "security/hosting/access_difference.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "security/acl.h"
#include "security/sddl.h"

#include <algorithm>

namespace HostingSecurity {

namespace {

using RunTime::Ace;

constexpr std::size_t mostWords = 500;
constexpr std::size_t mostExtras = 20; // entries told of one item

void addLine(std::wstring& text, const wchar_t* what, const std::wstring& words = {}) {
    text += text.empty() ? L"" : L"\n";
    text += what + words;
}

} // namespace

std::wstring AccessDifference::describe(const ItemAccess& wanted,
                                        const RunTime::DescriptorBytes& present) {
    const RunTime::DescriptorParts parts = RunTime::partsOf(present);
    std::wstring text;
    if (parts.dacl.data() == nullptr) {
        addLine(text, L"not expected: no list of access, so that everybody may do everything");
    } else if (RunTime::aclLength(parts.dacl) == 0) {
        addLine(text, L"not expected: a damaged list of access");
    }
    if (((parts.control & SE_DACL_PROTECTED) != 0) != wanted.isProtected()) {
        addLine(text, wanted.isProtected() ? L"expected: inheritance is protected"
                                           : L"not expected: inheritance is protected");
    }
    const RunTime::Acl expected = RunTime::Acl::fromBytes(wanted.list(parts.owner, parts.group));
    const RunTime::Acl found =
        RunTime::aclLength(parts.dacl) != 0 ? RunTime::Acl::fromBytes(parts.dacl) : RunTime::Acl();
    std::vector<Ace> missing(expected.begin(), expected.end());
    std::vector<Ace> extra;
    for (const Ace ace : found) {
        const auto same = std::ranges::find(missing, ace);
        if (same == missing.end()) {
            extra.push_back(ace);
        } else {
            missing.erase(same);
        }
    }
    for (const Ace& ace : missing) {
        addLine(text, L"missing: ", wordsOf(ace, wanted.kind()));
    }
    for (std::size_t i = 0; i < std::min(extra.size(), mostExtras); ++i) {
        addLine(text, L"not expected: ", wordsOf(extra[i], wanted.kind()));
    }
    if (extra.size() > mostExtras) {
        addLine(text, formatString(L"not expected: %llu more entries",
                                   static_cast<unsigned long long>(extra.size() - mostExtras))
                          .c_str());
    }
    if (text.empty()) {
        addLine(text, L"expected: another order of the entries");
    }
    return text;
}

std::wstring AccessDifference::wordsOf(const Ace& ace, RunTime::AceSubject subject) {
    const auto bytes = ace.bytes();
    auto key = std::make_pair(std::vector<unsigned char>(bytes.begin(), bytes.end()), subject);
    const auto known = words_.find(key);
    if (known != words_.end()) {
        return known->second;
    }
    if (words_.size() >= mostWords) {
        try {
            return RunTime::sddlOf(ace);
        } catch (const vosexception&) { // a type that the text form does not have
            return formatString(L"an entry of the type %d", ace.type());
        }
    }
    return words_.emplace(std::move(key), RunTime::describeAce(ace, subject)).first->second;
}

} // namespace HostingSecurity
