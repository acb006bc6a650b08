#include "config/service/pipe_server.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"

#include <algorithm>
#include <exception>
#include <new>
#include <optional>
#include <sddl.h>

namespace config {

namespace {

using namespace std::chrono_literals;

// Full access for the system and for administrators, nothing for others, nothing inherited.
constexpr wchar_t securityText[] = L"O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";

constexpr DWORD pipeBufferBytes = 64 * 1024;
constexpr std::size_t firstReadBytes = 4096; // what an idle connection keeps
constexpr std::chrono::milliseconds listenRetry = 1s;
// A client that is refused again and again must not fill the event log.
constexpr int reportsPerMinute = 20;

} // namespace

// Belongs to the server's thread once that runs. At most one operation is under way, on the
// OVERLAPPED that it is.
struct PipeServer::Connection : OVERLAPPED {
    enum class State { Listening, Reading, Writing, Ending };

    Connection() : OVERLAPPED{} {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    OVERLAPPED* start() noexcept {
        static_cast<OVERLAPPED&>(*this) = {};
        return this;
    }
    bool isIdle() const noexcept { return state == State::Reading && length == 0 && !tooLong; }

    RunTime::AutoHandle pipe;
    State state = State::Listening;
    bool pending = false;
    bool tooLong = false;   // the rest of the message is read and thrown away
    bool last = false;      // the connection ends with this reply
    DWORD client = 0;       // process id
    std::size_t length = 0; // of the message, as far as it is read
    Message buffer;         // the request, then the reply
    Clock::time_point lastUse{};
    std::optional<Clock::time_point> deadline;
};

PipeServer::PipeServer(Options options) : options_(std::move(options)) {
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(securityText, SDDL_REVISION_1,
                                                                security_.put(), nullptr)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to make the security descriptor of the pipe", code,
                    {L"", "config::PipeServer::PipeServer", __LINE__});
    }
    port_.reset(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    if (!port_) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to create a completion port", code,
                    {L"", "config::PipeServer::PipeServer", __LINE__});
    }
    connections_.push_back(createInstance(FILE_FLAG_FIRST_PIPE_INSTANCE));
    listen(*connections_.front());
    try {
        thread_ = std::async(std::launch::async, [this] { run(); });
    } catch (const std::exception&) { // no thread, or no memory for it
        stopping_ = true;
        run(); // takes back what is under way
        _throwError(L"Unable to start a thread for the pipe", ERROR_MAX_THRDS_REACHED,
                    {L"", "config::PipeServer::PipeServer", __LINE__});
    }
}

PipeServer::~PipeServer() {
    stop();
}

void PipeServer::stop() noexcept {
    const std::lock_guard lock(stopMutex_);
    if (!thread_.valid()) {
        return;
    }
    stopping_ = true;
    // The packet only wakes the thread up. The system may have no memory for it now and some later.
    do {
        ::PostQueuedCompletionStatus(port_.get(), 0, 0, nullptr);
    } while (thread_.wait_for(100ms) != std::future_status::ready);
    thread_.get();
}

void PipeServer::run() noexcept {
    while (!stopping_) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* operation = nullptr;
        DWORD code = ERROR_SUCCESS;
        if (!::GetQueuedCompletionStatus(port_.get(), &bytes, &key, &operation, nextWait())) {
            code = ::GetLastError();
        }
        if (operation != nullptr) {
            completed(static_cast<Connection&>(*operation), bytes, code);
        }
        endOverdue();
    }
    for (std::size_t i = connections_.size(); i-- > 0;) {
        end(*connections_[i]);
    }
    while (!connections_.empty()) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* operation = nullptr;
        ::GetQueuedCompletionStatus(port_.get(), &bytes, &key, &operation, INFINITE);
        if (operation != nullptr) {
            auto& connection = static_cast<Connection&>(*operation);
            connection.pending = false;
            end(connection);
        }
    }
}

void PipeServer::completed(Connection& connection, DWORD bytes, DWORD code) {
    connection.pending = false;
    try {
        switch (connection.state) {
        case Connection::State::Listening:
            if (code == ERROR_SUCCESS) {
                accept(connection);
            } else {
                listenAgain(connection);
            }
            return;
        case Connection::State::Reading:
            received(connection, bytes, code);
            return;
        case Connection::State::Writing:
            if (code == ERROR_SUCCESS) {
                sent(connection);
                return;
            }
            break;
        case Connection::State::Ending:
            break;
        }
    } catch (const vexception& e) {
        reportClient(connection, e.message());
    } catch (const std::exception&) {
        reportClient(connection, L"there is not enough memory for it");
    }
    end(connection);
}

// Until the next time-out.
DWORD PipeServer::nextWait() const {
    auto next = Clock::time_point::max();
    for (const auto& connection : connections_) {
        next = std::min(next, connection->deadline.value_or(next));
    }
    if (next == Clock::time_point::max()) {
        return INFINITE;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<DWORD>(std::clamp<long long>(left.count(), 0, 60'000));
}

std::unique_ptr<PipeServer::Connection> PipeServer::createInstance(DWORD flags) {
    auto connection = std::make_unique<Connection>();
    SECURITY_ATTRIBUTES security{sizeof(security), security_.get(), FALSE};
    connection->pipe.reset(::CreateNamedPipeW(
        options_.path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | flags,
        PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        PIPE_UNLIMITED_INSTANCES, pipeBufferBytes, pipeBufferBytes, 0, &security));
    if (!connection->pipe) {
        const DWORD code = ::GetLastError();
        const wchar_t* const hint =
            code == ERROR_INVALID_OWNER ? L"; only an administrator may create it"
            : code == ERROR_ACCESS_DENIED || code == ERROR_PIPE_BUSY
                ? L"; another program has that name, or this one lacks an administrator's rights"
                : L"";
        _throwError(
            formatString(L"Unable to create the pipe (%s)%s", options_.path.c_str(), hint).c_str(),
            code, {L"", "config::PipeServer::createInstance", __LINE__});
    }
    if (::CreateIoCompletionPort(connection->pipe.get(), port_.get(), 0, 0) == nullptr) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to attach the pipe to the completion port", code,
                    {L"", "config::PipeServer::createInstance", __LINE__});
    }
    return connection;
}

// A client always arrives as a packet of the port, also one that was quicker than this call.
void PipeServer::listen(Connection& connection) {
    connection.state = Connection::State::Listening;
    connection.deadline.reset();
    for (;;) {
        DWORD code = ERROR_IO_PENDING;
        if (!::ConnectNamedPipe(connection.pipe.get(), connection.start())) {
            code = ::GetLastError();
        }
        if (code == ERROR_PIPE_CONNECTED) {
            code = ERROR_IO_PENDING;
            if (!::PostQueuedCompletionStatus(port_.get(), 0, 0, &connection)) {
                code = ::GetLastError();
            }
        }
        if (code == ERROR_IO_PENDING) {
            connection.pending = true;
            return;
        }
        if (code != ERROR_NO_DATA) { // this one came and went
            _throwError(L"Unable to wait for a client", code,
                        {L"", "config::PipeServer::listen", __LINE__});
        }
        ::DisconnectNamedPipe(connection.pipe.get());
    }
}

// For the instance that listens, whatever happened to it: as long as one is open, nobody else can
// take the name.
void PipeServer::listenAgain(Connection& connection) {
    ::DisconnectNamedPipe(connection.pipe.get());
    try {
        listen(connection);
    } catch (const vexception& e) {
        report(LogType::Error, e.message());
        connection.deadline = Clock::now() + listenRetry;
    }
}

void PipeServer::accept(Connection& connection) {
    if (!addListener()) {
        listenAgain(connection);
        return;
    }
    ULONG client = 0;
    connection.client = ::GetNamedPipeClientProcessId(connection.pipe.get(), &client) ? client : 0;
    if (!makeRoom()) {
        reportClient(connection, L"there are too many, and none of them is idle");
        end(connection);
        return;
    }
    connection.lastUse = Clock::now();
    connection.deadline = connection.lastUse + options_.requestTimeout;
    read(connection);
}

// Without an instance for the next client this one is turned away, and its instance listens again.
bool PipeServer::addListener() {
    try {
        connections_.push_back(createInstance(0));
    } catch (const vexception& e) {
        report(LogType::Error, e.message());
        return false;
    } catch (const std::bad_alloc&) {
        report(LogType::Error, L"There is no memory for another client");
        return false;
    }
    try {
        listen(*connections_.back());
    } catch (const vexception& e) {
        report(LogType::Error, e.message());
        connections_.pop_back();
        return false;
    }
    return true;
}

// One of the connections listens, and the new one is among them already.
bool PipeServer::makeRoom() {
    std::size_t open = 0;
    Connection* oldest = nullptr;
    for (const auto& connection : connections_) {
        open += connection->state == Connection::State::Reading ||
                connection->state == Connection::State::Writing;
        if (connection->isIdle() && (oldest == nullptr || connection->lastUse < oldest->lastUse)) {
            oldest = connection.get();
        }
    }
    if (open < options_.maxConnections) {
        return true;
    }
    if (oldest != nullptr) {
        end(*oldest);
    }
    return oldest != nullptr;
}

void PipeServer::read(Connection& connection) {
    connection.state = Connection::State::Reading;
    if (connection.buffer.empty()) {
        connection.buffer.resize(std::min(firstReadBytes, options_.maxMessageBytes));
    }
    DWORD code = ERROR_IO_PENDING;
    if (!::ReadFile(connection.pipe.get(), connection.buffer.data() + connection.length,
                    static_cast<DWORD>(connection.buffer.size() - connection.length), nullptr,
                    connection.start())) {
        code = ::GetLastError();
    }
    // ERROR_MORE_DATA arrives as a packet too.
    if (code == ERROR_IO_PENDING || code == ERROR_MORE_DATA) {
        connection.pending = true;
    } else {
        end(connection);
    }
}

void PipeServer::received(Connection& connection, DWORD bytes, DWORD code) {
    connection.length += bytes;
    if (code == ERROR_SUCCESS) {
        answer(connection);
        return;
    }
    if (code != ERROR_MORE_DATA) { // the client has closed the pipe
        end(connection);
        return;
    }
    if (!connection.deadline) {
        connection.deadline = Clock::now() + options_.requestTimeout;
    }
    if (connection.length == connection.buffer.size()) {
        if (connection.tooLong || connection.length >= options_.maxMessageBytes) {
            // Read to its end all the same: a client that is still writing would not see the reply.
            connection.tooLong = true;
            connection.length = 0;
        } else {
            Message larger(std::min(connection.buffer.size() * 8, options_.maxMessageBytes));
            std::copy(connection.buffer.begin(), connection.buffer.end(), larger.begin());
            connection.buffer = std::move(larger);
        }
    }
    read(connection);
}

void PipeServer::answer(Connection& connection) {
    const protocol::MessageView message(connection.buffer.data(), connection.length);
    DWORD waiting = 0;
    const bool outOfTurn =
        ::PeekNamedPipe(connection.pipe.get(), nullptr, 0, nullptr, &waiting, nullptr) &&
        waiting != 0;
    Answer answer = connection.tooLong ? options_.refuse(Fault::TooLong)
                    : outOfTurn        ? options_.refuse(Fault::OutOfTurn)
                                       : options_.answer(message, connection.client);
    write(connection, std::move(answer));
}

void PipeServer::write(Connection& connection, Answer answer) {
    connection.buffer = std::move(answer.reply);
    connection.length = 0;
    connection.tooLong = false;
    connection.last = !answer.refusal.empty();
    connection.state = Connection::State::Writing;
    connection.deadline = Clock::now() + options_.replyTimeout;
    if (connection.last) {
        reportClient(connection, answer.refusal);
    }
    if (connection.buffer.empty()) {
        end(connection);
        return;
    }
    if (!::WriteFile(connection.pipe.get(), connection.buffer.data(),
                     static_cast<DWORD>(connection.buffer.size()), nullptr, connection.start()) &&
        ::GetLastError() != ERROR_IO_PENDING) {
        end(connection);
        return;
    }
    connection.pending = true;
}

void PipeServer::sent(Connection& connection) {
    connection.buffer = Message(); // gives the block back, wiped
    if (connection.last) {
        end(connection); // the client finds its reply in the closed pipe
        return;
    }
    connection.deadline.reset();
    connection.lastUse = Clock::now();
    read(connection);
}

void PipeServer::endOverdue() {
    const Clock::time_point now = Clock::now();
    for (std::size_t i = connections_.size(); i-- > 0;) {
        Connection& connection = *connections_[i];
        if (!connection.deadline || *connection.deadline > now) {
            continue;
        }
        if (connection.state == Connection::State::Listening) {
            listenAgain(connection);
        } else {
            reportClient(connection, connection.state == Connection::State::Writing
                                         ? L"it does not take its reply"
                                         : L"it sends no request");
            end(connection);
        }
    }
}

// The object goes with its last operation.
void PipeServer::end(Connection& connection) {
    connection.deadline.reset();
    if (connection.pending) {
        if (connection.state != Connection::State::Ending) {
            connection.state = Connection::State::Ending;
            ::CancelIoEx(connection.pipe.get(), nullptr);
        }
        return;
    }
    std::erase_if(connections_, [&](const auto& owned) { return owned.get() == &connection; });
}

void PipeServer::reportClient(const Connection& connection, std::wstring_view why) noexcept {
    try {
        report(LogType::Warning, formatString(L"The client of process %lu loses its connection: ",
                                              connection.client) +
                                     std::wstring(why));
    } catch (const std::bad_alloc&) { // there is no memory for the line, and nothing else to do
    }
}

// Texts are views, so that calling it takes no memory.
void PipeServer::report(LogType type, std::wstring_view text) noexcept {
    const Clock::time_point now = Clock::now();
    if (reports_ == 0 || now - reportsSince_ > std::chrono::minutes(1)) {
        reportsSince_ = now;
        reports_ = 0;
    }
    if (++reports_ > reportsPerMinute) {
        return;
    }
    try {
        std::wstring line(text);
        if (reports_ == reportsPerMinute) {
            line += L" (more of the kind is not logged for a minute)";
        }
        LogManager::getInstance().vAddLog(type, line);
    } catch (const std::bad_alloc&) { // as above
    }
}

} // namespace config
