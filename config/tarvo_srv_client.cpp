#include "config/tarvo_srv_client.h"

#include "config/config_service_exception.h"
#include "config/pipe_name.h"
#include "config/protocol.h"
#include "config/service_connection.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"

#include <utility>

using config::Deadline;
using config::ServiceConnection;
using config::protocol::Operation;
using config::protocol::ProtocolError;
using config::protocol::Reply;
using config::protocol::Request;

namespace {

constexpr DWORD presetAttempts = 5;

DWORD connectAttempts() {
    DWORD attempts = presetAttempts;
    const LSTATUS status =
        registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::pipeConnectTryCount,
                         attempts, RegistryView::View32);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        _throwError(L"Unable to read the number of attempts to connect", static_cast<DWORD>(status),
                    {L"", "TarvoSrvClient::connect", __LINE__});
    }
    return attempts;
}

[[noreturn]] void fail(const std::wstring& cause, DWORD status, std::int32_t line) {
    throw ConfigServiceException(cause, status, {L"", "TarvoSrvClient::call", line});
}

// Runs a call. Whatever goes wrong in it becomes the call's own message, with the cause as the text
// of the first frame. message makes that message.
template <class Message, class Call>
auto named(const char* function, std::int32_t line, Message message, Call call) {
    try {
        return call();
    } catch (const CanceledException&) {
        throw;
    } catch (const ConfigServiceException& e) {
        throw ConfigServiceException(message(), e.status(), {e.message(), function, line});
    } catch (const vosexception& e) {
        throw ConfigServiceException(message(), e.get_errorCode(), {e.message(), function, line});
    } catch (const vexception& e) { // what the registry has for the connection cannot be used
        throw ConfigServiceException(message(), ERROR_BAD_CONFIGURATION,
                                     {e.message(), function, line});
    }
}

std::wstring unexpectedError() {
    return L"Unexpected error";
}

} // namespace

TarvoSrvClient& TarvoSrvClient::getInstance() {
    static TarvoSrvClient instance{Options{}};
    return instance;
}

TarvoSrvClient::TarvoSrvClient(Options options) : options_(std::move(options)) {}

TarvoSrvClient::~TarvoSrvClient() = default;

std::wstring TarvoSrvClient::getString(const std::wstring& name) {
    return named(
        "TarvoSrvClient::getString", __LINE__,
        [&] { return formatString(L"Unable to call getString(%s)", name.c_str()); },
        [&] {
            return std::move(
                call({.operation = Operation::GetString, .name = name}, deadline()).string);
        });
}

void TarvoSrvClient::setString(const std::wstring& name, const std::wstring& value) {
    named("TarvoSrvClient::setString", __LINE__, unexpectedError, [&] {
        call({.operation = Operation::SetString, .name = name, .string = value}, deadline());
    });
}

DWORD TarvoSrvClient::getDWORD(const std::wstring& name) {
    return named(
        "TarvoSrvClient::getDWORD", __LINE__,
        [&] { return formatString(L"Unable to call getDWORD(%s)", name.c_str()); },
        [&]() -> DWORD {
            return call({.operation = Operation::GetDWORD, .name = name}, deadline()).dword;
        });
}

void TarvoSrvClient::setDWORD(const std::wstring& name, DWORD value) {
    named(
        "TarvoSrvClient::setDWORD", __LINE__,
        [&] { return formatString(L"Unable to call setDWORD(%s = %d)", name.c_str(), value); },
        [&] {
            call({.operation = Operation::SetDWORD, .name = name, .dword = value}, deadline());
        });
}

bool TarvoSrvClient::isVE() {
    return named(
        "TarvoSrvClient::isVE", __LINE__, [] { return std::wstring(L"Unable to call isVE()"); },
        [&] { return call({.operation = Operation::IsVE}, deadline()).dword != 0; });
}

std::vector<TarvoSrvClient::Value> TarvoSrvClient::list() {
    return named("TarvoSrvClient::list", __LINE__, unexpectedError, [&] {
        const Deadline whole = deadline();
        std::vector<Value> values;
        for (bool more = true; more;) {
            const std::wstring last = values.empty() ? std::wstring() : values.back().name;
            Reply page = call({.operation = Operation::List, .name = last}, whole);
            // Else the list might never end.
            if (!page.values.empty() && !last.empty() &&
                config::protocol::compareNames(last, page.values.front().name) >= 0) {
                fail(L"the list does not go on behind where it ended",
                     ConfigServiceException::badMessage, __LINE__);
            }
            for (config::protocol::ListedValue& value : page.values) {
                values.push_back({std::move(value.name), value.type});
            }
            more = page.more;
        }
        return values;
    });
}

Deadline TarvoSrvClient::deadline() const {
    return Deadline(options_.timeout);
}

Reply TarvoSrvClient::call(const Request& request, const Deadline& deadline) {
    config::protocol::Message message;
    try {
        message = encode(request);
    } catch (const ProtocolError& e) {
        fail(toWide(e.what()), ConfigServiceException::badArgument, __LINE__);
    }
    const std::unique_lock lock = lockBefore(deadline);
    // Given back when the exchange left it in step. Every request may be repeated: it sets a value
    // to what it is to be, or changes nothing.
    std::unique_ptr<ServiceConnection> connection = std::move(connection_);
    std::optional<config::protocol::Message> answer;
    for (int round = 0; round < 2 && !answer; ++round) {
        if (round != 0 || !connection) {
            connection = connect(deadline);
        }
        answer = connection->exchange(message, deadline);
    }
    if (!answer) {
        fail(L"the configuration service broke the connection off", ERROR_PIPE_NOT_CONNECTED,
             __LINE__);
    }
    Reply reply;
    try {
        reply = config::protocol::decodeReply(*answer);
    } catch (const ProtocolError& e) {
        fail(L"the answer cannot be understood: " + toWide(e.what()), e.status(), __LINE__);
    }
    if (reply.operation != request.operation) {
        fail(L"the answer belongs to another request", ConfigServiceException::badMessage,
             __LINE__);
    }
    connection_ = std::move(connection);
    if (reply.status != ERROR_SUCCESS) {
        fail(reply.text.empty() ? L"the configuration service refused" : reply.text, reply.status,
             __LINE__);
    }
    return reply;
}

std::unique_lock<std::timed_mutex> TarvoSrvClient::lockBefore(const Deadline& deadline) {
    for (;;) {
        ThreadCancelation::check();
        const DWORD time = deadline.slice();
        std::unique_lock lock(mutex_, std::chrono::milliseconds(time));
        if (lock) {
            return lock;
        }
        if (time == 0) {
            fail(L"other calls did not end in time", ConfigServiceException::timedOut, __LINE__);
        }
    }
}

std::unique_ptr<ServiceConnection> TarvoSrvClient::connect(const Deadline& deadline) const {
    const std::wstring path = options_.pipeName.empty() ? config::configuredPipePath()
                                                        : config::pipePath(options_.pipeName);
    return std::make_unique<ServiceConnection>(path, connectAttempts(), deadline);
}
