#include "security/hosting/hosting_root.h"

#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/files/pinned_path.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "security/disk/path_variables.h"

#include <algorithm>

namespace HostingSecurity {

namespace {

std::wstring realVhosts() {
    return RunTime::realPath(DiskSecurity::PathVariables().value(config::name::vhosts));
}

void requireInside(const HostingRoot& root, const std::wstring& given, const char* function,
                   int line) {
    if (!RunTime::isStrictlyInside(root.path, root.vhosts)) {
        throw RootCorrelationException(
            formatString(L"The root (%s) is not below the directory of virtual hosts (%s)",
                         RunTime::nicePath(given).c_str(), RunTime::nicePath(root.vhosts).c_str()),
            {L"", function, line});
    }
}

} // namespace

HostingRoot HostingRoot::find(const std::wstring& root) {
    HostingRoot found = {realVhosts(), RunTime::realPath(root)};
    requireInside(found, root, "HostingSecurity::HostingRoot::find", __LINE__);
    return found;
}

std::wstring HostingRoot::domainName() const {
    const std::size_t begin = vhosts.size() + (vhosts.ends_with(L'\\') ? 0 : 1);
    return path.substr(begin, path.find(L'\\', begin) - begin);
}

std::wstring smartCombinePaths(const std::wstring& directory, const std::wstring& path) {
    // Behind the two at the beginning of a share or a long path.
    const auto clean = [](std::wstring text) {
        std::replace(text.begin(), text.end(), L'/', L'\\');
        const std::size_t begin =
            std::min<std::size_t>(text.starts_with(L"\\\\") ? 2 : 0, text.size());
        text.erase(std::unique(text.begin() + begin, text.end(),
                               [](wchar_t a, wchar_t b) { return a == L'\\' && b == L'\\'; }),
                   text.end());
        return text;
    };
    if (RunTime::isFullyQualified(path)) {
        return RunTime::withoutTrailingBackslash(clean(path));
    }
    std::wstring below = clean(path);
    below.erase(0, below.starts_with(L'\\') ? 1 : 0);
    const std::wstring first = RunTime::withoutTrailingBackslash(clean(directory));
    if (below.empty() || first.empty()) {
        return first + below;
    }
    return RunTime::withoutTrailingBackslash(RunTime::combine(first, below));
}

void renameHostingByFullPath(const std::wstring& from, const std::wstring& to) {
    constexpr const char* function = "HostingSecurity::renameHostingByFullPath";
    const HostingRoot source = HostingRoot::find(from);
    const std::wstring target = RunTime::withoutTrailingBackslash(RunTime::longPath(to));
    const std::wstring parent = RunTime::parentPath(target);
    HostingRoot wanted = {source.vhosts, RunTime::realPath(parent)};
    wanted.path = RunTime::combine(wanted.path, RunTime::lastName(target));
    requireInside(wanted, to, function, __LINE__);
    // Held, so that what was found is what is renamed: a web user's root lies in a hosted user's
    // directory.
    RunTime::PinnedPath sourcePins(source.vhosts);
    RunTime::PinnedPath targetPins(source.vhosts);
    if (!sourcePins.hold(RunTime::parentPath(source.path)) ||
        !targetPins.hold(RunTime::parentPath(wanted.path))) {
        RunTime::throwForPath(L"Unable to open directory (%s)", from, ERROR_PATH_NOT_FOUND,
                              function, __LINE__);
    }
    RunTime::moveEx(source.path, wanted.path);
}

} // namespace HostingSecurity
