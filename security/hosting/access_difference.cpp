#include "security/hosting/access_difference.h"

#include "security/acl.h"

#include <algorithm>

namespace HostingSecurity {

namespace {

using RunTime::Ace;

constexpr std::size_t mostWords = 1000;

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
    for (const Ace& ace : extra) {
        addLine(text, L"not expected: ", wordsOf(ace, wanted.kind()));
    }
    if (text.empty()) {
        addLine(text, L"expected: another order of the entries");
    }
    return text;
}

const std::wstring& AccessDifference::wordsOf(const Ace& ace, RunTime::AceSubject subject) {
    const auto bytes = ace.bytes();
    auto key = std::make_pair(std::vector<unsigned char>(bytes.begin(), bytes.end()), subject);
    const auto known = words_.find(key);
    if (known != words_.end()) {
        return known->second;
    }
    if (words_.size() >= mostWords) {
        words_.clear();
    }
    return words_.emplace(std::move(key), RunTime::describeAce(ace, subject)).first->second;
}

} // namespace HostingSecurity
