// The argument of the events that offer an error to the caller.
#pragma once

#include <string>
#include <utility>

namespace zopobsolete {

// A handler sets ignore to pass over the failed item.
struct BackupCopyErrorEvent {
    BackupCopyErrorEvent() = default;
    BackupCopyErrorEvent(std::wstring msg, bool val) : message(std::move(msg)), ignore(val) {}
    std::wstring message;
    bool ignore = false;
};

} // namespace zopobsolete
