#include "security/hosting/hosting_root.h"

#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/files/pinned_path.h"
#include "runtime/files/recycle.h"
#include "runtime/format_string.h"
#include "runtime/native_span.h"
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

// What leads to the root belongs to a hosted user where it is a web user's.
void holdWay(RunTime::PinnedPath& pins, const HostingRoot& root, const char* function, int line) {
    const std::wstring above = RunTime::parentPath(root.path);
    if (!pins.hold(above)) {
        RunTime::throwForPath(L"Unable to open directory (%s)", above, ERROR_PATH_NOT_FOUND,
                              function, line);
    }
}

// Throws where given, which is real in the end, gets there by a link below the virtual hosts: it
// has other names there. Links above are the administrator's.
void requireOwnWay(const HostingRoot& root, const std::wstring& real, const std::wstring& given,
                   const char* function, int line) {
    const std::wstring_view below = std::wstring_view(real).substr(root.vhosts.size());
    const std::wstring named =
        RunTime::withoutTrailingBackslash(RunTime::longNamePath(RunTime::longPath(given)));
    if (named.size() < below.size() ||
        !RunTime::equalNames(std::wstring_view(named).substr(named.size() - below.size()), below)) {
        throw RootCorrelationException(
            formatString(L"The way to the root (%s) leads through a link: it is (%s) in fact",
                         RunTime::nicePath(given).c_str(), RunTime::nicePath(real).c_str()),
            {L"", function, line});
    }
}

} // namespace

HostingRoot HostingRoot::find(const std::wstring& root) {
    constexpr const char* function = "HostingSecurity::HostingRoot::find";
    HostingRoot found = {realVhosts(), RunTime::realPath(root)};
    requireInside(found, root, function, __LINE__);
    requireOwnWay(found, found.path, root, function, __LINE__);
    return found;
}

HostingRoot HostingRoot::findPlace(const std::wstring& root) {
    constexpr const char* function = "HostingSecurity::HostingRoot::findPlace";
    const std::wstring whole = RunTime::withoutTrailingBackslash(RunTime::longPath(root));
    const std::wstring above = RunTime::parentPath(whole);
    HostingRoot place = {realVhosts(), whole};
    if (!above.empty()) {
        const std::wstring real = RunTime::realPath(above);
        place.path = RunTime::combine(real, RunTime::lastName(whole));
        requireInside(place, root, function, __LINE__);
        requireOwnWay(place, real, above, function, __LINE__);
    }
    requireInside(place, root, function, __LINE__);
    return place;
}

std::wstring HostingRoot::domainName() const {
    const std::size_t begin = vhosts.size() + (vhosts.ends_with(L'\\') ? 0 : 1);
    return path.substr(begin, path.find(L'\\', begin) - begin);
}

void checkHostRoot(const std::wstring& root) {
    constexpr const char* function = "HostingSecurity::checkHostRoot";
    const NativeSpan span(function, __LINE__);
    const HostingRoot place = HostingRoot::findPlace(root);
    RunTime::PinnedPath pins(place.vhosts);
    holdWay(pins, place, function, __LINE__);
    if (RunTime::exists(place.path)) {
        const RunTime::FileInformation entry = RunTime::fileInformation(place.path);
        if (entry.isDirectory() && entry.isLink()) {
            throw vexception(formatString(L"The root (%s) is a link to a directory: remove the "
                                          L"link, or give that directory",
                                          RunTime::nicePath(place.path).c_str()),
                             {L"", function, __LINE__});
        }
        if (!entry.isDirectory()) {
            // A link has no content to keep, and the recycle bin might look behind it.
            entry.isLink() ? RunTime::deleteFile(place.path) : RunTime::recycleFile(place.path);
        }
    }
    if (!RunTime::exists(place.path)) {
        RunTime::createDirectory(place.path);
    }
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
    const HostingRoot wanted = HostingRoot::findPlace(to);
    // Held, so that what was found is what is renamed.
    RunTime::PinnedPath sourcePins(source.vhosts);
    RunTime::PinnedPath targetPins(wanted.vhosts);
    holdWay(sourcePins, source, function, __LINE__);
    holdWay(targetPins, wanted, function, __LINE__);
    RunTime::moveEx(source.path, wanted.path);
}

} // namespace HostingSecurity
