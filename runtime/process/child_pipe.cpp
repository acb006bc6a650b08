#include "runtime/process/child_pipe.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <atomic>
#include <random>

namespace RunTime {

namespace {

constexpr DWORD pipeBytes = 64 * 1024;

// Only a named pipe can be overlapped. Whoever found the name and connected before us would be its
// only other end, and our own attempt then fails.
std::wstring uniqueName() {
    static std::atomic<unsigned> counter{0};
    std::random_device device;
    return formatString(L"\\\\.\\pipe\\zop-child-%lu-%u-%08x%08x", ::GetCurrentProcessId(),
                        counter++, device(), device());
}

} // namespace

ChildPipe::ChildPipe(Direction direction) : event_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (!event_) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to create a pipe", code,
                    {L"", "RunTime::ChildPipe::ChildPipe", __LINE__});
    }
    const bool inbound = direction == Direction::FromChild;
    const std::wstring name = uniqueName();
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    ours_.reset(::CreateNamedPipeW(name.c_str(),
                                   (inbound ? PIPE_ACCESS_INBOUND : PIPE_ACCESS_OUTBOUND) |
                                       FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
                                   PIPE_TYPE_BYTE | PIPE_REJECT_REMOTE_CLIENTS, 1, pipeBytes,
                                   pipeBytes, 0, nullptr));
    if (ours_) {
        // The rights that an anonymous pipe would give: some programs ask what their output is.
        const DWORD access =
            inbound ? GENERIC_WRITE | FILE_READ_ATTRIBUTES : GENERIC_READ | FILE_WRITE_ATTRIBUTES;
        childEnd_.reset(
            ::CreateFileW(name.c_str(), access, 0, &inherit, OPEN_EXISTING, 0, nullptr));
    }
    if (!childEnd_) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to create a pipe", code,
                    {L"", "RunTime::ChildPipe::ChildPipe", __LINE__});
    }
    overlapped_.hEvent = event_.get();
}

ChildPipe::~ChildPipe() {
    cancel();
}

bool ChildPipe::isClosed(DWORD code) const noexcept {
    return code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_PIPE_NOT_CONNECTED;
}

bool ChildPipe::finish(DWORD& count, bool wait) {
    if (!::GetOverlappedResult(ours_.get(), &overlapped_, &count, wait ? TRUE : FALSE)) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_IO_INCOMPLETE) {
            return false;
        }
        pending_ = false;
        if (code == ERROR_OPERATION_ABORTED) {
            return false;
        }
        if (!isClosed(code)) {
            _throwError(L"Unable to transfer through a pipe", code,
                        {L"", "RunTime::ChildPipe::finish", __LINE__});
        }
        close();
        return false;
    }
    pending_ = false;
    return true;
}

void ChildPipe::started(BOOL done) {
    const DWORD code = done ? ERROR_SUCCESS : ::GetLastError();
    if (code == ERROR_SUCCESS || code == ERROR_IO_PENDING) {
        pending_ = true;
        return;
    }
    if (!isClosed(code)) {
        _throwError(L"Unable to transfer through a pipe", code,
                    {L"", "RunTime::ChildPipe::started", __LINE__});
    }
    close();
}

void ChildPipe::cancel() noexcept {
    if (pending_) {
        DWORD count = 0;
        ::CancelIoEx(ours_.get(), &overlapped_);
        ::GetOverlappedResult(ours_.get(), &overlapped_, &count, TRUE);
        pending_ = false;
    }
}

void ChildPipe::close() noexcept {
    cancel();
    ours_.reset();
}

ChildOutput::ChildOutput(std::size_t limit)
    : ChildPipe(Direction::FromChild), limit_(limit), buffer_(pipeBytes) {}

void ChildOutput::serve() {
    DWORD count = 0;
    if (isOpen() && pending_ && finish(count, false)) {
        keep(count);
    }
    if (isOpen() && !pending_) {
        read();
    }
}

void ChildOutput::drain() {
    DWORD count = 0;
    if (pending_) {
        ::CancelIoEx(ours_.get(), &overlapped_); // it may have been done already: finish() tells
        if (finish(count, true)) {
            keep(count);
        }
    }
    DWORD left = 0; // no more than this: what the program left running may go on printing
    if (isOpen() && !::PeekNamedPipe(ours_.get(), nullptr, 0, nullptr, &left, nullptr)) {
        left = 0; // the end of the pipe
    }
    while (isOpen() && left > 0) {
        read();
        if (isOpen() && finish(count, true)) {
            keep(count);
            left -= std::min(left, count);
        }
    }
    close();
}

void ChildOutput::keep(DWORD count) {
    const std::size_t room = limit_ - bytes_.size();
    bytes_.append(buffer_.data(), std::min<std::size_t>(room, count));
    truncated_ = truncated_ || count > room;
}

void ChildOutput::read() {
    started(::ReadFile(ours_.get(), buffer_.data(), static_cast<DWORD>(buffer_.size()), nullptr,
                       &overlapped_));
}

ChildInput::ChildInput(std::string_view bytes) : ChildPipe(Direction::ToChild), left_(bytes) {}

void ChildInput::serve() {
    DWORD count = 0;
    if (isOpen() && pending_ && finish(count, false)) {
        left_.remove_prefix(count);
    }
    if (isOpen() && !pending_) {
        if (left_.empty()) {
            close();
            return;
        }
        started(::WriteFile(ours_.get(), left_.data(),
                            static_cast<DWORD>(std::min<std::size_t>(left_.size(), pipeBytes)),
                            nullptr, &overlapped_));
    }
}

} // namespace RunTime
