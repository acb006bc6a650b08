// The process-wide client of the configuration service, over a local named pipe.
//
// The pipe's name and the number of attempts to connect come from the registry ("ZOP_pipe",
// "PipeConnectTryCount"), read at each connect. A connection is kept and used by one call at a
// time; when it breaks, because the service was restarted, the call connects again and repeats
// itself once. Before anything is sent, the client makes sure that the other end is the system's
// or an administrator's: a program that took the pipe's name first learns nothing.
//
// Calls may come from any thread, and are cancelled within a second by ThreadCancelation. They
// throw ConfigServiceException with the message given at each; why is the text of its first frame
// and its status. No text holds the value of a string.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>
#include <windows.h>

namespace config {
class Deadline;
class ServiceConnection;
namespace protocol {
struct Reply;
struct Request;
} // namespace protocol
} // namespace config

class TarvoSrvClient {
public:
    struct Value {
        std::wstring name;
        DWORD type; // REG_SZ, REG_DWORD, ...
    };

    static TarvoSrvClient& getInstance();

    // A client of its own, for tests and for tools that talk to a second service. An empty pipe
    // name means the registry's.
    struct Options {
        std::wstring pipeName;
        std::chrono::milliseconds timeout{10'000}; // for one call, connecting included
    };
    explicit TarvoSrvClient(Options options);
    ~TarvoSrvClient();
    TarvoSrvClient(const TarvoSrvClient&) = delete;
    TarvoSrvClient& operator=(const TarvoSrvClient&) = delete;

    std::wstring getString(const std::wstring& name); // "Unable to call getString(%s)"
    void setString(const std::wstring& name, const std::wstring& value); // "Unexpected error"
    DWORD getDWORD(const std::wstring& name);             // "Unable to call getDWORD(%s)"
    void setDWORD(const std::wstring& name, DWORD value); // "Unable to call setDWORD(%s = %d)"
    // Whether the panel runs in a virtual environment. "Unable to call isVE()"
    bool isVE();
    // Names and types of all values, in the order of their names. "Unexpected error"
    std::vector<Value> list();

private:
    config::Deadline deadline() const;
    config::protocol::Reply call(const config::protocol::Request& request,
                                 const config::Deadline& deadline);
    std::unique_lock<std::timed_mutex> lockBefore(const config::Deadline& deadline);
    std::unique_ptr<config::ServiceConnection> connect(const config::Deadline& deadline) const;

    const Options options_;
    std::timed_mutex mutex_;
    std::unique_ptr<config::ServiceConnection> connection_; // null: not connected
};
