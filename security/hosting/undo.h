// Puts the permissions back that a repair replaced, by the file that it kept:
//
//     HostingSecurity::undo(manager.getUndoFile(), callback);
#pragma once

#include "security/hosting/commit_callback.h"

#include <cstdint>
#include <string>

namespace HostingSecurity {

struct UndoCounts {
    std::uint64_t restored = 0;
    std::uint64_t unchanged = 0;  // they had their permissions back already
    std::uint64_t passedOver = 0; // see onError
};

// The items of the file are done in reverse order. One is only touched when it is the root of then,
// or strictly inside it, no link leads to it, and it is the item that it was then, by volume and
// file identity; otherwise, and when it cannot be written, it is passed over: onError. onItem is
// called for what is restored. May be run again.
//   unfinished  also take a file without its end: the machine went down during the repair
// Throws UndoFileException for a damaged, truncated or foreign file, before anything is changed:
// also for one that is owned, or may be changed, by others than System, Administrators and the
// caller; RootCorrelationException when its root is no place for a hosting; vexception when a
// repair or an undo of the hosting is under way; CanceledException; vosexception when file or root
// cannot be opened.
UndoCounts undo(const std::wstring& file, ICommitCallback& callback, bool unfinished = false);

} // namespace HostingSecurity
