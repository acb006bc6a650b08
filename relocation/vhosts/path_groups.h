// Which directory a set of named paths is taken relative to when the directory above most of them
// moves: paths that share a beginning form a group, whose root is what they share.
#pragma once

#include "runtime/files/path.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

// What both paths begin with, by whole components and whatever their letter case, as the first has
// it; without backslash at the end, and empty when there is nothing. A drive ("C:") and a share
// ("\\server\share") are one component. Long and nice form, slashes and backslashes are the same.
// A "." or "..", or an empty component, is never common, nor is what stands behind it.
std::wstring commonPathPart(const std::wstring& first, const std::wstring& second);

class PathGroups {
public:
    // oldRoot  the directory that moves
    explicit PathGroups(std::wstring oldRoot);

    // Puts a path into a group: that of what it shares with oldRoot, or else that of the paths
    // added before with which it shares something, whose root shrinks to the common part; the first
    // of its kind opens one with its parent directory as root. Any text is taken for a path.
    void add(const std::wstring& key, const std::wstring& path);

    // The root of the group that the key's path is in, in nice form and without backslash at the
    // end: final only when all paths have been added. None for a key that was not added.
    std::optional<std::wstring> rootOf(const std::wstring& key) const;

private:
    struct Group {
        std::wstring root;
        int counter; // -1: shares its root with oldRoot; otherwise the paths in it
    };
    using Index = std::map<std::wstring, std::size_t, RunTime::NameOrder>;

    std::size_t groupOf(const std::wstring& path);
    std::size_t open(std::wstring root, int counter);

    std::wstring oldRoot_;
    std::vector<Group> groups_;
    Index shared_; // roots of the groups that oldRoot is in
    // The other groups, by the first component of what is in them: no two share it.
    Index others_;
    std::map<std::wstring, std::size_t> members_; // key to group
};
