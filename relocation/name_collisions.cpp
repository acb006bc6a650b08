#include "relocation/name_collisions.h"

#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/thread_cancelation.h"

#include <vector>

using RunTime::combine;
using RunTime::FileInformation;

namespace {

bool isPlainDirectory(const FileInformation& entry) {
    return entry.isDirectory() && !entry.isLink();
}

} // namespace

TreeContents::Special findNameCollisions(const std::wstring& source, const std::wstring& target) {
    TreeContents::Special collisions;
    std::vector<std::wstring> left{{}}; // directories of both, below the tops
    while (!left.empty()) {
        ThreadCancelation::check();
        const std::wstring below = std::move(left.back());
        left.pop_back();
        const std::wstring directory = below.empty() ? target : combine(target, below);
        const RunTime::AutoHandle handle = RunTime::openExisting(
            directory, FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE);
        if (!handle) {
            continue;
        }
        RunTime::DirectoryLister lister(handle.get(), directory);
        for (FileInformation entry; lister.next(entry);) {
            if (RunTime::isDotEntry(entry.name)) {
                continue;
            }
            const std::wstring name = below.empty() ? entry.name : combine(below, entry.name);
            const std::wstring twin = combine(source, name);
            if (!RunTime::exists(twin)) {
                continue;
            }
            if (isPlainDirectory(entry) && isPlainDirectory(RunTime::fileInformation(twin))) {
                left.push_back(name);
            } else {
                collisions.add(combine(target, name));
            }
        }
    }
    return collisions;
}
