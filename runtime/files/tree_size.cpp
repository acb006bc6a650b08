#include "runtime/files/file.h"
#include "runtime/thread_cancelation.h"

#include <utility>
#include <vector>

namespace RunTime {

namespace {

// One directory on the way down. It is held open without delete sharing, so that nobody can put a
// link in its place while the paths below lead through it. Its listing is over before the walk goes
// deeper: what a level keeps is its handle and the names of its subdirectories.
struct Level {
    std::wstring path;
    AutoHandle handle;
    std::vector<std::wstring> subdirectories;
};

} // namespace

TreeSize treeSize(const std::wstring& path, const std::function<bool(const TreeSize&)>& stop) {
    TreeSize size;
    FileInformation entry;
    const std::wstring top = longPath(path);
    if (!exists(top)) {
        return size;
    }
    entry = fileInformation(top);
    if (entry.isLink()) {
        return size;
    }
    if (!entry.isDirectory()) {
        size.files = 1;
        size.bytes = entry.size;
        return size;
    }
    // False when stop has asked for the end.
    const auto enter = [&](std::vector<Level>& levels, std::wstring directory) {
        ThreadCancelation::check();
        Level level;
        level.handle = openPinnedDirectory(directory);
        level.path = std::move(directory);
        if (!level.handle) {
            return true;
        }
        DirectoryLister lister(level.handle.get(), level.path);
        while (lister.next(entry)) {
            if (isDotEntry(entry.name) || entry.isLink()) {
                continue;
            }
            if (entry.isDirectory()) {
                ++size.directories;
                level.subdirectories.push_back(std::move(entry.name));
            } else {
                ++size.files;
                size.bytes += entry.size;
            }
            if (stop && stop(size)) {
                return false;
            }
        }
        levels.push_back(std::move(level));
        return true;
    };
    std::vector<Level> levels;
    bool going = enter(levels, top);
    while (going && !levels.empty()) {
        Level& level = levels.back();
        if (level.subdirectories.empty()) {
            levels.pop_back();
            continue;
        }
        std::wstring child = combine(level.path, level.subdirectories.back());
        level.subdirectories.pop_back();
        going = enter(levels, std::move(child));
    }
    return size;
}

} // namespace RunTime
