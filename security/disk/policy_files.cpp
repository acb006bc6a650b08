#include "security/disk/policy_files.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "security/disk/path_variables.h"

#include <algorithm>

namespace DiskSecurity {

std::wstring policyDirectory() {
    return RunTime::combine(PathVariables().value(config::name::productRoot), L"etc\\DiskSecurity");
}

std::vector<std::wstring> installedPolicyFiles() {
    const std::wstring directory = RunTime::longPath(policyDirectory());
    const RunTime::AutoHandle handle = RunTime::openPinnedDirectory(directory);
    if (!handle) {
        const DWORD code = ERROR_PATH_NOT_FOUND;
        _throwError(
            formatString(L"Unable to list directory (%s)", RunTime::nicePath(directory).c_str())
                .c_str(),
            code, {L"", "DiskSecurity::installedPolicyFiles", __LINE__});
    }
    constexpr std::wstring_view ending = L".xml";
    std::vector<std::wstring> files;
    RunTime::DirectoryLister lister(handle.get(), directory);
    for (RunTime::FileInformation entry; lister.next(entry);) {
        const std::size_t size = entry.name.size();
        if (!entry.isDirectory() && !entry.isLink() && size >= ending.size() &&
            RunTime::equalNames(std::wstring_view(entry.name).substr(size - ending.size()),
                                ending)) {
            files.push_back(RunTime::nicePath(RunTime::combine(directory, entry.name)));
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace DiskSecurity
