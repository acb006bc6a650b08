// Operations that the system carries out at its next restart ("PendingFileRenameOperations").
#pragma once

#include <string>
#include <vector>

namespace RunTime {

// Schedules the deletion of a whole tree (or file) at the next restart. The system deletes a
// directory only when it is empty by then, so every item below is scheduled too, from the bottom
// up; links are scheduled as links. The tree is first renamed to a fresh name beside it where that
// works, so that a later tree of the same name is not deleted in its place; the name it has in the
// end is returned (long form). "Unable to remove (%s)" with the nice form.
std::wstring removeAtRestart(const std::wstring& path);

// Schedules a rename. "Unable to move (%s)" with the nice form of from.
void moveAtRestart(const std::wstring& from, const std::wstring& to);

// Takes pending operations that name a path, or anything below it, as source or target out of the
// list, so that a path that is used again is not deleted or renamed at the next restart. Other
// entries and their order stay. Returns how many were taken out; 0 when there is no list, without
// looking at the paths.
// "Unable to read pending operations", "Unable to write pending operations".
int dropPendingOperations(const std::vector<std::wstring>& paths);
inline int dropPendingOperations(const std::wstring& path) {
    return dropPendingOperations(std::vector<std::wstring>{path});
}

} // namespace RunTime
