#include "runtime/files/pinned_directories.h"

#include "runtime/files/file.h"

#include <algorithm>

namespace RunTime {

std::vector<AutoHandle> openPinnedDirectories(const std::wstring& root, const std::wstring& path) {
    const std::wstring lowest = parentPath(path);
    std::vector<AutoHandle> held;
    for (std::size_t end = withoutTrailingBackslash(root).size();;
         end = std::min(lowest.find(L'\\', end + 1), lowest.size())) {
        held.push_back(openPinnedDirectory(lowest.substr(0, end)));
        if (!held.back()) {
            return {};
        }
        if (end >= lowest.size()) {
            return held;
        }
    }
}

} // namespace RunTime
