#include "tests/config/pipe_client.h"

#include <stdexcept>

using namespace config;

namespace {

constexpr DWORD patience = 10'000;

[[noreturn]] void fail(const char* what, DWORD code) {
    throw std::runtime_error(std::string(what) + ": " + std::to_string(code));
}

} // namespace

PipeClient::PipeClient(const std::wstring& path)
    : done_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)), buffer_(protocol::maxMessageBytes) {
    for (;;) {
        pipe_.reset(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        if (pipe_) {
            break;
        }
        if (::GetLastError() != ERROR_PIPE_BUSY || !::WaitNamedPipeW(path.c_str(), patience)) {
            fail("no pipe", ::GetLastError());
        }
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (!::SetNamedPipeHandleState(pipe_.get(), &mode, nullptr, nullptr)) {
        fail("no message mode", ::GetLastError());
    }
}

bool PipeClient::send(protocol::MessageView message) {
    OVERLAPPED operation{};
    operation.hEvent = done_.get();
    DWORD bytes = 0;
    const BOOL started = ::WriteFile(pipe_.get(), message.data(),
                                     static_cast<DWORD>(message.size()), nullptr, &operation);
    return finish(started, operation, bytes);
}

std::optional<PipeClient::Message> PipeClient::receive() {
    OVERLAPPED operation{};
    operation.hEvent = done_.get();
    DWORD bytes = 0;
    const BOOL started = ::ReadFile(pipe_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()),
                                    nullptr, &operation);
    if (!finish(started, operation, bytes)) {
        return std::nullopt;
    }
    return Message(buffer_.begin(), buffer_.begin() + bytes);
}

protocol::Reply PipeClient::ask(const protocol::Request& request) {
    std::optional<Message> reply;
    if (!send(protocol::encode(request)) || !(reply = receive())) {
        throw std::runtime_error("the connection has ended");
    }
    return protocol::decodeReply(*reply);
}

bool PipeClient::finish(BOOL started, OVERLAPPED& operation, DWORD& bytes) {
    DWORD code = started ? ERROR_SUCCESS : ::GetLastError();
    if (code == ERROR_IO_PENDING) {
        if (::WaitForSingleObject(done_.get(), patience) != WAIT_OBJECT_0) {
            ::CancelIoEx(pipe_.get(), &operation);
            ::GetOverlappedResult(pipe_.get(), &operation, &bytes, TRUE);
            fail("the server does nothing", ERROR_TIMEOUT);
        }
        code = ERROR_SUCCESS;
    }
    if (code == ERROR_SUCCESS && !::GetOverlappedResult(pipe_.get(), &operation, &bytes, FALSE)) {
        code = ::GetLastError();
    }
    if (code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_PIPE_NOT_CONNECTED) {
        return false;
    }
    if (code != ERROR_SUCCESS) {
        fail("the pipe fails", code);
    }
    return true;
}
