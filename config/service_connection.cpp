#include "config/service_connection.h"

#include "config/config_service_exception.h"
#include "runtime/auto_ptr.h"
#include "runtime/format_string.h"
#include "runtime/thread_cancelation.h"

#include <aclapi.h>
#include <algorithm>

namespace config {

namespace {

// What a client needs, and no FILE_CREATE_PIPE_INSTANCE, which is part of GENERIC_WRITE.
constexpr DWORD access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_WRITE_DATA |
                         FILE_WRITE_ATTRIBUTES | READ_CONTROL | SYNCHRONIZE;
constexpr DWORD pauseBetweenAttempts = 200;   // milliseconds; the system tells nobody of a new pipe
constexpr std::size_t usualReplyBytes = 4096; // a longer one takes a second call of the system

// One overlapped transfer. When it goes, the system does not use the caller's memory any more.
class Transfer {
public:
    Transfer(HANDLE pipe, HANDLE done) noexcept : pipe_(pipe) { overlapped_.hEvent = done; }
    ~Transfer() {
        DWORD bytes = 0;
        if (pending_) {
            ::CancelIoEx(pipe_, &overlapped_); // fails where the transfer has just ended
            ::GetOverlappedResult(pipe_, &overlapped_, &bytes, TRUE);
        }
    }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // start is given the OVERLAPPED and calls the system. Returns ERROR_SUCCESS,
    // ERROR_MORE_DATA, or why it failed.
    template <class Start>
    DWORD run(const Deadline& deadline, Start start) {
        if (!start(&overlapped_)) {
            const DWORD code = ::GetLastError();
            if (code != ERROR_IO_PENDING && code != ERROR_MORE_DATA) {
                return code;
            }
        }
        pending_ = true;
        if (!deadline.wait(overlapped_.hEvent)) {
            throw ConfigServiceException(L"the configuration service did not answer in time",
                                         ConfigServiceException::timedOut,
                                         {L"", "config::Transfer::run", __LINE__});
        }
        pending_ = false;
        return ::GetOverlappedResult(pipe_, &overlapped_, &bytes_, FALSE) ? ERROR_SUCCESS
                                                                          : ::GetLastError();
    }

    DWORD bytes() const noexcept { return bytes_; }

private:
    HANDLE pipe_;
    OVERLAPPED overlapped_{};
    DWORD bytes_ = 0;
    bool pending_ = false;
};

[[noreturn]] void fail(DWORD status, const std::wstring& cause, std::int32_t line) {
    throw ConfigServiceException(cause, status, {L"", "config::ServiceConnection::open", line});
}

bool isBroken(DWORD code) noexcept {
    return code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_PIPE_NOT_CONNECTED ||
           code == ERROR_BAD_PIPE || code == ERROR_PIPE_BUSY; // busy: an answer to nothing is in it
}

} // namespace

ServiceConnection::ServiceConnection(const std::wstring& path, DWORD attempts,
                                     const Deadline& deadline)
    : done_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (!done_) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to create an event", code,
                    {L"", "config::ServiceConnection::ServiceConnection", __LINE__});
    }
    open(path, attempts, deadline);
    checkServer(path);
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (!::SetNamedPipeHandleState(pipe_.get(), &mode, nullptr, nullptr)) {
        const DWORD code = ::GetLastError();
        _throwError(
            formatString(L"Unable to read messages from the pipe (%s)", path.c_str()).c_str(), code,
            {L"", "config::ServiceConnection::ServiceConnection", __LINE__});
    }
}

std::optional<protocol::Message> ServiceConnection::exchange(const protocol::Message& request,
                                                             const Deadline& deadline) {
    protocol::Message reply(usualReplyBytes);
    Transfer transaction(pipe_.get(), done_.get());
    DWORD code = transaction.run(deadline, [&](OVERLAPPED* overlapped) {
        return ::TransactNamedPipe(
            pipe_.get(), const_cast<std::uint8_t*>(request.data()), // the system only reads it
            static_cast<DWORD>(request.size()), reply.data(), static_cast<DWORD>(reply.size()),
            nullptr, overlapped);
    });
    std::size_t length = transaction.bytes();
    while (code == ERROR_MORE_DATA && length < protocol::maxMessageBytes) {
        reply.resize(std::min(reply.size() * 8, protocol::maxMessageBytes));
        Transfer rest(pipe_.get(), done_.get());
        code = rest.run(deadline, [&](OVERLAPPED* overlapped) {
            return ::ReadFile(pipe_.get(), reply.data() + length,
                              static_cast<DWORD>(reply.size() - length), nullptr, overlapped);
        });
        length += rest.bytes();
    }
    if (isBroken(code)) {
        return std::nullopt;
    }
    if (code == ERROR_MORE_DATA) {
        throw ConfigServiceException(L"the answer is longer than any message may be",
                                     ConfigServiceException::badMessage,
                                     {L"", "config::ServiceConnection::exchange", __LINE__});
    }
    if (code != ERROR_SUCCESS) {
        _throwError(L"Unable to exchange messages with the configuration service", code,
                    {L"", "config::ServiceConnection::exchange", __LINE__});
    }
    reply.resize(length);
    return reply;
}

void ServiceConnection::open(const std::wstring& path, DWORD attempts, const Deadline& deadline) {
    for (DWORD attempt = 1;;) {
        ThreadCancelation::check();
        // Whoever has the pipe may learn who we are, but not act as us.
        pipe_.reset(::CreateFileW(
            path.c_str(), access, 0, nullptr, OPEN_EXISTING,
            FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (pipe_) {
            return;
        }
        const DWORD code = ::GetLastError();
        if (code == ERROR_PIPE_BUSY) {
            const DWORD time = deadline.slice();
            if (time == 0) {
                fail(ConfigServiceException::timedOut,
                     L"the configuration service is busy, no instance of the pipe '" + path +
                         L"' got free in time",
                     __LINE__);
            }
            ::WaitNamedPipeW(path.c_str(), time); // the next attempt tells what came of it
        } else if (code == ERROR_FILE_NOT_FOUND) {
            if (attempt++ >= attempts || deadline.slice() == 0) {
                fail(ConfigServiceException::notRunning,
                     L"the configuration service is not running, there is no pipe '" + path +
                         L"'; start it with 'sc start zopconfigsvc' or 'zopconfigsvc --console'",
                     __LINE__);
            }
            deadline.wait(done_.get(), pauseBetweenAttempts);
        } else if (code == ERROR_ACCESS_DENIED) {
            fail(ConfigServiceException::accessDenied,
                 L"access to the pipe '" + path +
                     L"' is denied, the configuration service serves the system and "
                     L"administrators",
                 __LINE__);
        } else {
            _throwError(formatString(L"Unable to open the pipe (%s)", path.c_str()).c_str(), code,
                        {L"", "config::ServiceConnection::open", __LINE__});
        }
    }
}

// The owner of the pipe decides: only the system and administrators can make the system or the
// Administrators the owner of what they create, and the handle stands for this very pipe. The
// server's process would have to be found by an identifier, which another process may have by then.
void ServiceConnection::checkServer(const std::wstring& path) const {
    PSID owner = nullptr;
    RunTime::LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> descriptor;
    const DWORD code = ::GetSecurityInfo(pipe_.get(), SE_KERNEL_OBJECT, OWNER_SECURITY_INFORMATION,
                                         &owner, nullptr, nullptr, nullptr, descriptor.put());
    if (code != ERROR_SUCCESS) {
        _throwError(formatString(L"Unable to get the owner of the pipe (%s)", path.c_str()).c_str(),
                    code, {L"", "config::ServiceConnection::checkServer", __LINE__});
    }
    if (owner == nullptr || !(::IsWellKnownSid(owner, WinLocalSystemSid) ||
                              ::IsWellKnownSid(owner, WinBuiltinAdministratorsSid))) {
        throw ConfigServiceException(
            formatString(L"the pipe '%s' does not belong to the system or to the administrators, "
                         L"so it is not the configuration service's; nothing was sent",
                         path.c_str()),
            ConfigServiceException::untrustedServer,
            {L"", "config::ServiceConnection::checkServer", __LINE__});
    }
}

} // namespace config
