// The configuration service: answers what TarvoSrvClient asks, out of the registry.
//
//     config::ConfigService service({});
//     ... // it listens on its own thread
//     service.stop();
//
// It logs start and stop, which value was set by which process, and every client that it refused;
// names only, never what a value holds.
#pragma once

#include "config/protocol.h"
#include "config/service/config_store.h"
#include "config/service/pipe_server.h"

#include <atomic>
#include <chrono>
#include <string>

namespace config {

class ConfigService {
public:
    struct Options {
        std::wstring pipeName; // empty: the registry's
        std::size_t maxConnections = 256;
        std::chrono::milliseconds requestTimeout{5'000};
        std::chrono::milliseconds replyTimeout{10'000};
    };

    // Serves when it returns. Throws vexception.
    explicit ConfigService(const Options& options);
    ~ConfigService();

    // As PipeServer::stop.
    void stop() noexcept;

    // "\\.\pipe\zoppipe"
    const std::wstring& pipePath() const noexcept { return path_; }

    // The reply to one message. A refusal makes it the last one of its connection.
    static PipeServer::Answer answer(const ConfigStore& store, protocol::MessageView message,
                                     DWORD client);

private:
    std::wstring path_;
    ConfigStore store_;
    PipeServer server_;
    std::atomic<bool> stopped_{false};
};

} // namespace config
