#include "relocation/vhosts/place_text.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"

#include <algorithm>

namespace {

bool isSlash(wchar_t c) {
    return c == L'\\' || c == L'/';
}

// With one backslash for every run of slashes: programs double them, and turn them round.
std::wstring plain(std::wstring_view text) {
    std::wstring result;
    result.reserve(text.size());
    for (const wchar_t c : text) {
        if (!isSlash(c)) {
            result += c;
        } else if (result.empty() || result.back() != L'\\') {
            result += L'\\';
        }
    }
    return result;
}

// Whether a name may go on with this character.
bool goesOn(wchar_t c) {
    return ::IsCharAlphaNumericW(c) || std::wstring_view(L"._-$~").find(c) != std::wstring::npos;
}

} // namespace

PlaceText::PlaceText(const std::wstring& place) {
    const std::wstring full = RunTime::longPath(place);
    std::vector<std::wstring> forms{full};
    try {
        if (RunTime::exists(full)) {
            forms.push_back(RunTime::File::longPath(full));
            forms.push_back(RunTime::shortPath(full));
        }
    } catch (const vosexception&) {
        // What the disk does not tell is not looked for.
    }
    for (const std::wstring& form : forms) {
        std::wstring text = plain(RunTime::nicePath(form));
        text.resize(text.find_last_not_of(L'\\') + 1);
        const auto same = [&](const std::wstring& known) {
            return RunTime::equalNames(known, text);
        };
        if (std::none_of(forms_.begin(), forms_.end(), same)) {
            forms_.push_back(std::move(text));
        }
    }
}

bool PlaceText::isIn(std::wstring_view text) const {
    const std::wstring searched = plain(text);
    const std::wstring_view all = searched;
    for (const std::wstring& form : forms_) {
        const wchar_t firsts[] = {form[0], static_cast<wchar_t>(form[0] ^ L' '), 0};
        for (std::size_t at = all.find_first_of(firsts); at != all.npos;
             at = all.find_first_of(firsts, at + 1)) {
            const std::size_t end = at + form.size();
            if (RunTime::beginsWith(all.substr(at), form) &&
                (end == all.size() || !goesOn(all[end]))) {
                return true;
            }
        }
    }
    return false;
}
