#include "config/service/config_service.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "runtime/wipe.h"

#include <new>

namespace config {

namespace {

using protocol::Operation;
using protocol::Reply;
using protocol::Request;

// A page of the list: even with the longest names it stays a message.
constexpr std::size_t namesPerPage = 30;

struct WipedRequest : Request {
    explicit WipedRequest(Request&& request) : Request(std::move(request)) {}
    ~WipedRequest() { RunTime::wipe(string); }
    WipedRequest(const WipedRequest&) = delete;
    WipedRequest& operator=(const WipedRequest&) = delete;
};

struct WipedReply : Reply {
    WipedReply() = default;
    ~WipedReply() { RunTime::wipe(string); }
    WipedReply(const WipedReply&) = delete;
    WipedReply& operator=(const WipedReply&) = delete;
};

void logChange(const Request& request, DWORD client) {
    LogManager::getInstance().vAddLog(
        LogType::Information,
        formatString(L"(%s) was set by process %lu", request.name.c_str(), client));
}

void serve(const ConfigStore& store, const Request& request, DWORD client, Reply& reply) {
    switch (request.operation) {
    case Operation::GetString:
        store.getString(request.name, reply.string);
        break;
    case Operation::SetString:
        store.setString(request.name, request.string);
        logChange(request, client);
        break;
    case Operation::GetDWORD:
        reply.dword = store.getDWORD(request.name);
        break;
    case Operation::SetDWORD:
        store.setDWORD(request.name, request.dword);
        logChange(request, client);
        break;
    case Operation::IsVE:
        reply.dword = store.isVE() ? 1 : 0;
        break;
    case Operation::List:
        reply.values = store.list(request.name, namesPerPage + 1);
        reply.more = reply.values.size() > namesPerPage;
        if (reply.more) {
            reply.values.pop_back();
        }
        break;
    }
}

void fail(Reply& reply, DWORD status, const std::wstring& text) {
    RunTime::wipe(reply.string);
    reply = {.operation = reply.operation, .status = status, .text = text};
}

// What the sender of a message that cannot be read asked for, as far as that can be told.
Operation operationOf(std::span<const std::uint8_t> message) {
    constexpr std::size_t operationAt = 6;
    const unsigned code = message.size() > operationAt + 1
                              ? message[operationAt] | message[operationAt + 1] << 8
                              : 0U;
    return code >= static_cast<unsigned>(Operation::GetString) &&
                   code <= static_cast<unsigned>(Operation::List)
               ? static_cast<Operation>(code)
               : Operation::GetString;
}

PipeServer::Answer refusal(Operation operation, DWORD status, const std::wstring& why) {
    return {protocol::encode(Reply{.operation = operation, .status = status, .text = why}), why};
}

PipeServer::Answer refuse(PipeServer::Fault fault) {
    return fault == PipeServer::Fault::TooLong
               ? refusal(Operation::GetString, ERROR_INVALID_DATA, L"the message is too long")
               : refusal(Operation::GetString, ERROR_BUSY,
                         L"a request came before the reply to the last one was taken");
}

std::wstring pathOf(const std::wstring& name) {
    std::wstring chosen = name;
    if (chosen.empty() && registry::lookup(HKEY_LOCAL_MACHINE, configKey, name::pipeName, chosen,
                                           RegistryView::View32) != ERROR_SUCCESS) {
        chosen.clear();
    }
    return L"\\\\.\\pipe\\" + (chosen.empty() ? L"zoppipe" : chosen);
}

} // namespace

ConfigService::ConfigService(Options options)
    : path_(pathOf(options.pipeName)), store_(configKey),
      server_({.path = path_,
               .maxMessageBytes = protocol::maxMessageBytes,
               .maxConnections = options.maxConnections,
               .requestTimeout = options.requestTimeout,
               .replyTimeout = options.replyTimeout,
               .answer = [this](std::span<const std::uint8_t> message,
                                DWORD client) { return answer(store_, message, client); },
               .refuse = refuse}) {
    LogManager::getInstance().vAddLog(LogType::Information,
                                      L"The configuration service listens on " + path_);
}

ConfigService::~ConfigService() {
    stop();
}

void ConfigService::stop() noexcept {
    server_.stop();
}

PipeServer::Answer ConfigService::answer(const ConfigStore& store,
                                         std::span<const std::uint8_t> message, DWORD client) {
    try {
        const WipedRequest request(protocol::decodeRequest(message));
        WipedReply reply;
        reply.operation = request.operation;
        try {
            serve(store, request, client, reply);
        } catch (const vosexception& e) {
            fail(reply, e.get_errorCode(), e.message());
        } catch (const vexception& e) {
            fail(reply, ERROR_INTERNAL_ERROR, e.message());
        } catch (const std::bad_alloc&) {
            fail(reply, ERROR_NOT_ENOUGH_MEMORY, L"there is not enough memory");
        }
        try {
            return {protocol::encode(reply), {}};
        } catch (const protocol::ProtocolError& e) {
            fail(reply, ERROR_FILE_TOO_LARGE, L"the value does not fit into a message");
            return {protocol::encode(reply), {}};
        }
    } catch (const protocol::ProtocolError& e) {
        return refusal(operationOf(message), ERROR_INVALID_DATA, toWide(e.what()));
    }
}

} // namespace config
