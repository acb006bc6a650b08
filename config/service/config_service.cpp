#include "config/service/config_service.h"

#include "config/pipe_name.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/text.h"

#include <new>

namespace config {

namespace {

using protocol::Operation;
using protocol::Reply;
using protocol::Request;

// A page of the list: even with the longest names it stays a message.
constexpr std::size_t namesPerPage = 30;

void logChange(const Request& request, DWORD client) {
    LogManager::getInstance().vAddLog(
        LogType::Information,
        formatString(L"(%s) was set by process %lu", request.name.c_str(), client));
}

Reply serve(const ConfigStore& store, const Request& request, DWORD client) {
    Reply reply;
    reply.operation = request.operation;
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
    return reply;
}

Reply failure(Operation operation, DWORD status, const std::wstring& text) {
    Reply reply;
    reply.operation = operation;
    reply.status = status;
    reply.text = text;
    return reply;
}

Reply replyTo(const ConfigStore& store, const Request& request, DWORD client) {
    try {
        return serve(store, request, client);
    } catch (const vosexception& e) {
        return failure(request.operation, e.get_errorCode(), e.message());
    } catch (const vexception& e) {
        return failure(request.operation, ERROR_INTERNAL_ERROR, e.message());
    } catch (const std::bad_alloc&) {
        return failure(request.operation, ERROR_NOT_ENOUGH_MEMORY, L"there is not enough memory");
    }
}

PipeServer::Answer refuse(PipeServer::Fault fault) {
    const bool tooLong = fault == PipeServer::Fault::TooLong;
    const wchar_t* const why =
        tooLong ? L"its message is too long" : L"it sent again before it had taken its reply";
    return {protocol::encode(
                failure(Operation::GetString, tooLong ? ERROR_INVALID_DATA : ERROR_BUSY, why)),
            why};
}

} // namespace

ConfigService::ConfigService(const Options& options)
    : path_(options.pipeName.empty() ? configuredPipePath() : config::pipePath(options.pipeName)),
      store_(configKey),
      server_({.path = path_,
               .maxMessageBytes = protocol::maxMessageBytes,
               .maxConnections = options.maxConnections,
               .requestTimeout = options.requestTimeout,
               .replyTimeout = options.replyTimeout,
               .answer = [this](protocol::MessageView message,
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
    if (!stopped_.exchange(true)) {
        LogManager::getInstance().vAddLog(LogType::Information,
                                          L"The configuration service has stopped");
    }
}

PipeServer::Answer ConfigService::answer(const ConfigStore& store, protocol::MessageView message,
                                         DWORD client) {
    try {
        const Request request = protocol::decodeRequest(message);
        const Reply reply = replyTo(store, request, client);
        try {
            return {protocol::encode(reply), {}};
        } catch (const protocol::ProtocolError& e) { // what others wrote into the registry
            return {protocol::encode(
                        failure(request.operation, e.status(),
                                L"Unable to send (" + request.name + L"): " + toWide(e.what()))),
                    {}};
        }
    } catch (const protocol::ProtocolError& e) {
        return {protocol::encodeRefusal(message, e).value_or(protocol::Message()),
                toWide(e.what())};
    }
}

} // namespace config
