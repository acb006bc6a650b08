#include "security/hosting/host_root.h"

#include "runtime/files/file.h"
#include "runtime/files/recycle.h"
#include "runtime/format_string.h"
#include "runtime/native_span.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "security/hosting/security_manager.h"

namespace HostingSecurity {

namespace {

// In long names as far as the path exists: a path written in 8.3 names is the same place.
std::wstring normal(const std::wstring& path) {
    const std::wstring given = RunTime::withoutTrailingBackslash(RunTime::longPath(path));
    for (std::wstring there = given; !there.empty(); there = RunTime::parentPath(there)) {
        try {
            return RunTime::withoutTrailingBackslash(RunTime::longNamePath(there)) +
                   given.substr(RunTime::withoutTrailingBackslash(there).size());
        } catch (const VFileNotFoundException&) { // so it has no other name
        } catch (const VPathNotFoundException&) {
        }
    }
    return given;
}

[[noreturn]] void refuse(const wchar_t* format, const std::wstring& path, const char* function,
                         int line) {
    throw RootCorrelationException(formatString(format, RunTime::nicePath(path).c_str()),
                                   {L"", function, line});
}

} // namespace

RootPlace locateRoot(const std::wstring& root) {
    constexpr const char* self = "HostingSecurity::locateRoot";
    const std::wstring vhosts = registry::getstr(HKEY_LOCAL_MACHINE, config::configKey,
                                                 config::name::vhosts, RegistryView::View32);
    const RootPlace place{normal(root), normal(vhosts)};
    if (!RunTime::isStrictlyInside(place.root, place.vhosts)) {
        refuse(L"The hosting root (%s) is not below the directory of virtual hosts", root, self,
               __LINE__);
    }
    return place;
}

std::vector<RunTime::AutoHandle> holdParents(const RootPlace& place) {
    constexpr const char* self = "HostingSecurity::holdParents";
    std::vector<RunTime::AutoHandle> held;
    // From the top down: the way to each directory is held before it is opened.
    std::size_t end = place.vhosts.size();
    while ((end = place.root.find(L'\\', end + 1)) != std::wstring::npos) {
        const std::wstring directory = place.root.substr(0, end);
        held.push_back(RunTime::openPinnedDirectory(directory));
        if (held.back()) {
            continue;
        }
        if (!RunTime::exists(directory)) {
            RunTime::throwForPath(L"Unable to open the directory (%s) above the hosting root",
                                  directory, ERROR_PATH_NOT_FOUND, self, __LINE__);
        }
        refuse(L"The way to the hosting root leads through a link or a file (%s)", directory, self,
               __LINE__);
    }
    return held;
}

void checkHostRoot(const std::wstring& root) {
    constexpr const char* self = "HostingSecurity::checkHostRoot";
    const NativeSpan span(self, __LINE__);
    const RootPlace place = locateRoot(root);
    const auto held = holdParents(place);
    if (RunTime::exists(place.root)) {
        const RunTime::FileInformation entry = RunTime::fileInformation(place.root);
        if (entry.isDirectory() && entry.isLink()) {
            throw vexception(formatString(L"The hosting root (%s) is a link to a directory. Give "
                                          L"that directory, or remove the link",
                                          RunTime::nicePath(place.root).c_str()),
                             {L"", self, __LINE__});
        }
        if (!entry.isDirectory()) {
            // A link has no content to keep, and the recycle bin might look behind it.
            entry.isLink() ? RunTime::deleteFile(place.root) : RunTime::recycleFile(place.root);
        }
    }
    if (!RunTime::exists(place.root)) {
        RunTime::createDirectory(place.root);
    }
}

} // namespace HostingSecurity
