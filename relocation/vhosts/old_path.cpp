#include "relocation/vhosts/old_path.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <string_view>

namespace {

std::wstring withoutBackslashes(std::wstring path) {
    path.resize(path.find_last_not_of(L'\\') + 1);
    return path;
}

std::vector<std::wstring_view> components(std::wstring_view path) {
    std::vector<std::wstring_view> result;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find(L'\\', begin), path.size());
        result.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return result;
}

// What a text consists of. The path is in absolute nice form, and empty where the text is none.
struct Parts {
    std::wstring path;
    std::wstring_view arguments;
};

Parts split(const std::wstring& value) {
    Parts parts;
    const std::size_t blank = std::min(value.find(L" /"), value.find(L" \\"));
    const std::wstring path = value.substr(0, blank);
    if (blank != std::wstring::npos) {
        parts.arguments = std::wstring_view(value).substr(blank);
    }
    if (!RunTime::isFullyQualified(path)) {
        return parts;
    }
    try {
        parts.path = RunTime::nicePath(RunTime::longPath(path));
    } catch (const ArgumentException&) { // names a device
    } catch (const vosexception& error) {
        const DWORD code = error.get_errorCode();
        if (code != ERROR_FILENAME_EXCED_RANGE && !RunTime::meansMissing(code)) {
            throw;
        }
    }
    return parts;
}

} // namespace

OldPath::OldPath(const std::wstring& path) : text_(path) {
    const std::wstring full = RunTime::nicePath(RunTime::longPath(path));
    absolute_ = withoutBackslashes(full);
    if (!RunTime::exists(full)) {
        return;
    }
    longForm_ = withoutBackslashes(RunTime::File::longPath(full));
    const std::wstring shortForm = withoutBackslashes(RunTime::shortPath(full));
    const auto longNames = components(longForm_);
    const auto shortNames = components(shortForm);
    for (std::size_t i = 0; i < longNames.size() && i < shortNames.size(); ++i) {
        names_.push_back({std::wstring(longNames[i]), std::wstring(shortNames[i])});
    }
}

bool OldPath::isNamedBy(const std::wstring& value) const {
    const Parts parts = split(value);
    if (parts.path.empty()) {
        return false;
    }
    return RunTime::File::inpath(parts.path, absolute_) ||
           (mayBeAlias(parts.path) && RunTime::exists(parts.path) &&
            RunTime::File::inpath(RunTime::File::longPath(parts.path), longForm_));
}

std::optional<std::wstring> OldPath::remainderByNames(const std::wstring& path) const {
    if (!mayBeAlias(path)) {
        return std::nullopt;
    }
    const std::wstring_view last = components(path)[names_.size() - 1];
    std::wstring remainder = path.substr(last.data() + last.size() - path.data());
    if (!RunTime::File::inpath(longForm_ + remainder, longForm_)) { // ".." leads out again
        return std::nullopt;
    }
    return remainder;
}

std::wstring OldPath::replaceIn(const std::wstring& value, const std::wstring& newPath) const {
    const Parts parts = split(value);
    const bool bothExist = !longForm_.empty() && !parts.path.empty() && RunTime::exists(parts.path);
    const std::wstring path = bothExist ? RunTime::File::longPath(parts.path) : parts.path;
    const std::wstring& base = bothExist ? longForm_ : absolute_;
    if (!RunTime::File::inpath(path, base)) {
        throw vexception(formatString(L"(%s) is not in (%s)", path.c_str(), base.c_str()),
                         {L"", "OldPath::replaceIn", __LINE__});
    }
    const std::wstring remainder = path.substr(base.size());
    std::wstring result =
        remainder.empty() ? newPath : RunTime::combine(newPath, remainder.substr(1));
    return result.append(parts.arguments);
}

// Only a text that spells every component of the directory by its long or its short name can have
// the directory's long form, so that the disk need not be asked for the many others.
bool OldPath::mayBeAlias(const std::wstring& path) const {
    const auto given = components(path);
    return !names_.empty() && given.size() >= names_.size() &&
           std::equal(names_.begin(), names_.end(), given.begin(),
                      [](const Name& name, std::wstring_view component) {
                          return RunTime::equalNames(name.longName, component) ||
                                 RunTime::equalNames(name.shortName, component);
                      });
}
