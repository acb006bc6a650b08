// One connection of a client to the pipe of the configuration service. It belongs to one call at
// a time.
#pragma once

#include "config/deadline.h"
#include "config/protocol.h"
#include "runtime/auto_handle.h"

#include <optional>
#include <string>
#include <windows.h>

namespace config {

class ServiceConnection {
public:
    // path      of the pipe, from pipePath
    // attempts  to open the pipe while there is none; a busy one is waited for to the deadline
    // Throws ConfigServiceException with the cause as its message (notRunning, accessDenied,
    // untrustedServer, timedOut, badMessage), vosexception and CanceledException.
    ServiceConnection(const std::wstring& path, DWORD attempts, const Deadline& deadline);

    // Sends a message and waits for one. Nothing when the connection is broken; whether the
    // request was carried out is then unknown. Throws as the constructor does; the connection is
    // then out of step and has to be given up.
    std::optional<protocol::Message> exchange(const protocol::Message& request,
                                              const Deadline& deadline);

private:
    void open(const std::wstring& path, DWORD attempts, const Deadline& deadline);
    void checkServer(const std::wstring& path) const;

    RunTime::AutoHandle done_; // signaled by the system when a transfer is
    RunTime::AutoHandle pipe_;
};

} // namespace config
