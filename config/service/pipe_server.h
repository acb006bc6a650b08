// A server on a local named pipe in message mode: each message of a client is a request and gets
// one message as its reply. One thread serves all connections over an I/O completion port, so a
// connection costs a few kilobytes and no client waits for another one.
//
// A client keeps its connection as long as it likes. It loses it, and it alone, when it sends no
// request after connecting, does not take its reply, sends again before it has its reply, or sends
// what the answer function refuses; and, without a fault of its own, when a new client comes and it
// has been idle longest.
//
// The pipe admits the system and administrators of this machine, whose account is also the pipe's
// owner: a client can make sure that nobody else listens. Messages are wiped from memory.
#pragma once

#include "config/protocol.h"
#include "runtime/auto_handle.h"
#include "runtime/auto_ptr.h"
#include "runtime/log_manager.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>
#include <windows.h>

namespace config {

class PipeServer {
public:
    using Message = protocol::Message;

    struct Answer {
        Message reply; // empty: none
        // Not empty: why the connection ends when the client has taken the reply. It is logged.
        std::wstring refusal;
    };
    enum class Fault {
        TooLong,   // the message is longer than maxMessageBytes; none of it was kept
        OutOfTurn, // the client sent again without waiting for its reply
    };

    struct Options {
        std::wstring path; // "\\.\pipe\..."
        std::size_t maxMessageBytes = 1024 * 1024;
        std::size_t maxConnections = 256;
        std::chrono::milliseconds requestTimeout{5'000}; // from connecting to the first request
        std::chrono::milliseconds replyTimeout{10'000};  // for a client to take its reply

        // Both are called on the server's thread, one call at a time. What answer throws ends the
        // connection. client is the id of the client's process, 0 when it cannot be told.
        std::function<Answer(protocol::MessageView message, DWORD client)> answer;
        std::function<Answer(Fault fault)> refuse;
    };

    // Listens when it returns. Throws vosexception; ERROR_ACCESS_DENIED when another process
    // listens on that name.
    explicit PipeServer(Options options);
    ~PipeServer();
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;

    // Ends all connections; when it returns, nothing is called any more and the name is free. From
    // any thread but the server's own.
    void stop() noexcept;

private:
    using Clock = std::chrono::steady_clock;
    struct Connection;

    void run() noexcept;
    void completed(Connection& connection, DWORD bytes, DWORD code);
    DWORD nextWait() const;

    std::unique_ptr<Connection> createInstance(DWORD flags);
    void listen(Connection& connection);
    void listenAgain(Connection& connection);
    void accept(Connection& connection);
    bool addListener();
    bool makeRoom();
    void read(Connection& connection);
    void received(Connection& connection, DWORD bytes, DWORD code);
    void answer(Connection& connection);
    void write(Connection& connection, Answer answer);
    void sent(Connection& connection);
    void endOverdue();
    void end(Connection& connection);
    void reportClient(const Connection& connection, std::wstring_view why) noexcept;
    void report(LogType type, std::wstring_view text) noexcept;

    Options options_;
    RunTime::LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> security_;
    RunTime::AutoHandle port_;
    std::vector<std::unique_ptr<Connection>> connections_; // one of them listens
    Clock::time_point reportsSince_{};
    int reports_ = 0;
    std::atomic<bool> stopping_{false};
    std::mutex stopMutex_;
    std::future<void> thread_;
};

} // namespace config
