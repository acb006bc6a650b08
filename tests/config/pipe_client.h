// A client of the configuration pipe that does what it is told, good or bad.
#pragma once

#include "config/protocol.h"
#include "runtime/auto_handle.h"

#include <optional>
#include <string>

class PipeClient {
public:
    using Message = config::protocol::Message;

    // Throws std::runtime_error when nobody listens for ten seconds.
    explicit PipeClient(const std::wstring& path);

    // False when the server has ended the connection; throws std::runtime_error when it takes
    // nothing, or sends nothing, for ten seconds.
    bool send(config::protocol::MessageView message);
    std::optional<Message> receive();
    bool isEnded() { return !receive(); }

    // A request and its reply; throws std::runtime_error when there is none.
    config::protocol::Reply ask(const config::protocol::Request& request);

    HANDLE get() const noexcept { return pipe_.get(); }

private:
    bool finish(BOOL started, OVERLAPPED& operation, DWORD& bytes);

    RunTime::AutoHandle pipe_;
    RunTime::AutoHandle done_;
    Message buffer_;
};
