#include "relocation/vhosts/www_root_reconfigure.h"

#include "relocation/vhosts/move_record.h"
#include "runtime/database/zop_database.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

namespace {

// Of the part of a path that exists, where 8.3 names are in it; a name that has gone stays as it
// is.
std::wstring withLongNames(const std::wstring& path) {
    if (path.find(L'~') == std::wstring::npos || path.find(L':') != 1) {
        return path;
    }
    try {
        std::wstring there = path;
        while (!there.empty() && !RunTime::exists(there)) {
            there = RunTime::parentPath(there);
        }
        return there.empty() || RunTime::isRoot(there)
                   ? path
                   : RunTime::File::longPath(there) + path.substr(there.size());
    } catch (const vexception&) { // a place that the disk does not tell of
        return path;
    }
}

std::wstring windowsStyle(std::wstring path) {
    std::replace(path.begin(), path.end(), L'/', L'\\');
    return RunTime::nicePath(path);
}

std::wstring directoryOf(const std::wstring& path) {
    std::wstring directory = windowsStyle(path);
    directory.resize(directory.find_last_not_of(L'\\') + 1);
    return directory;
}

} // namespace

WwwRootReconfigure::WwwRootReconfigure()
    : Reconfigure({"WwwRootReconfigure::reconfigure", L"Reconfigure Www Roots",
                   L"Failed to reconfigure www root: "}) {}

void WwwRootReconfigure::resume(const std::wstring& fromPath, const std::wstring& toPath,
                                bool isRead, Roots roots) {
    record_ = {fromPath, toPath, isRead, std::move(roots)};
}

void WwwRootReconfigure::work(bool forward) {
    const bool undo = undoesRecord(forward);
    if (undo && !record_.isRead) {
        return;
    }
    if (forward) {
        record_ = {get_fromPath(), get_toPath(), false, {}};
    }
    ZOPDatabase database = ZOPDatabase::connect();
    std::vector<std::pair<std::wstring, std::wstring>> changes; // domain's id, root
    Roots seen;
    const auto rows = database.enumHostings();
    while (rows->next()) {
        const std::optional<std::wstring> root = rows->text(L"www_root");
        if (!root || root->empty()) {
            continue;
        }
        const std::wstring domain = rows->value(L"dom_id");
        const auto known = undo ? record_.roots.find(domain) : record_.roots.end();
        const bool isRecorded = known != record_.roots.end() &&
                                (*root == known->second.before || *root == known->second.after);
        const std::wstring wanted = isRecorded ? known->second.before : movedRoot(*root);
        if (wanted != *root) {
            changes.emplace_back(domain, wanted);
        }
        seen[domain] = {*root, wanted};
    }
    if (forward) { // before anything is written: a commit may fail and have been heard all the same
        if (file_ != nullptr) {
            file_->roots(seen);
        }
        record_.roots = std::move(seen);
        record_.isRead = true;
    }
    if (changes.empty()) {
        return;
    }
    VDatabase::Transaction transaction(database.database());
    for (const auto& [domain, root] : changes) {
        database.setWwwRoot(domain, root);
    }
    transaction.commit();
}

bool WwwRootReconfigure::undoesRecord(bool forward) const {
    return !forward && record_.fromPath == get_toPath() && record_.toPath == get_fromPath();
}

// The root as it is, where it lies elsewhere.
std::wstring WwwRootReconfigure::movedRoot(const std::wstring& root) const {
    const std::wstring from = directoryOf(get_fromPath());
    const std::wstring to = windowsStyle(get_toPath());
    const auto inNewPlace = [&to](const std::wstring& remainder) {
        const std::size_t name = remainder.find_first_not_of(L'\\');
        return name == std::wstring::npos ? RunTime::withoutTrailingBackslash(to)
                                          : RunTime::combine(to, remainder.substr(name));
    };
    const std::wstring path = windowsStyle(root);
    for (const std::wstring& form : {path, withLongNames(path)}) {
        if (RunTime::File::inpath(form, from)) {
            return inNewPlace(form.substr(from.size()));
        }
    }
    if (names_ && RunTime::equalNames(directoryOf(names_->text()), from)) {
        if (const auto remainder = names_->remainderByNames(path)) {
            return withLongNames(inNewPlace(*remainder)); // what is below kept its names
        }
    }
    return root;
}
