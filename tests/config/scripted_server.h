// A server on a pipe that answers as a test wants it to, good or bad. One connection at a time, on
// a thread of its own.
#pragma once

#include "runtime/auto_handle.h"
#include "runtime/auto_ptr.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <sddl.h>
#include <string>
#include <thread>
#include <vector>
#include <windows.h>

struct Answer {
    enum What { Send, BreakOff, KeepSilent } what = Send;
    std::vector<std::uint8_t> bytes{};
};

class ScriptedServer {
public:
    using Script = std::function<Answer(const std::vector<std::uint8_t>& request)>;

    // security in the descriptor language; null: the creator's own, as a stranger's pipe has it
    ScriptedServer(const std::wstring& path, Script script, const wchar_t* security = L"O:BA",
                   DWORD type = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE)
        : script_(std::move(script)), stop_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
          done_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        RunTime::LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> descriptor;
        SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
        if (security != nullptr) {
            EXPECT_TRUE(::ConvertStringSecurityDescriptorToSecurityDescriptorW(
                security, SDDL_REVISION_1, descriptor.put(), nullptr));
            attributes.lpSecurityDescriptor = descriptor.get();
        }
        pipe_.reset(::CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                       type, 1, 65536, 65536, 0,
                                       security != nullptr ? &attributes : nullptr));
        EXPECT_TRUE(pipe_) << "CreateNamedPipeW: " << ::GetLastError();
        thread_ = std::thread([this] { run(); });
    }
    ~ScriptedServer() { stop(); }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    // Waits for the thread; what it counted is then final.
    void stop() {
        ::SetEvent(stop_.get());
        if (thread_.joinable()) {
            thread_.join();
        }
        pipe_.reset();
    }

    std::atomic<int> connections{0};
    std::atomic<int> requests{0};
    std::atomic<long> bytesReceived{0};

private:
    void run() {
        DWORD bytes = 0;
        while (transfer(bytes, [&](OVERLAPPED* o) { return connect(o); }) ||
               ::WaitForSingleObject(stop_.get(), 0) != WAIT_OBJECT_0) {
            ++connections;
            std::vector<std::uint8_t> request(1 << 20);
            while (transfer(bytes, [&](OVERLAPPED* o) {
                return ::ReadFile(pipe_.get(), request.data(), 1 << 20, nullptr, o);
            })) {
                bytesReceived += static_cast<long>(bytes);
                ++requests;
                const Answer answer = script_(
                    {request.begin(), request.begin() + static_cast<std::ptrdiff_t>(bytes)});
                if (answer.what == Answer::BreakOff) {
                    break;
                }
                if (answer.what == Answer::Send) {
                    transfer(bytes, [&](OVERLAPPED* o) {
                        return ::WriteFile(pipe_.get(), answer.bytes.data(),
                                           static_cast<DWORD>(answer.bytes.size()), nullptr, o);
                    });
                }
            }
            ::DisconnectNamedPipe(pipe_.get());
        }
    }

    bool connect(OVERLAPPED* overlapped) {
        if (::ConnectNamedPipe(pipe_.get(), overlapped)) {
            return true;
        }
        const DWORD code = ::GetLastError(); // a client is there already, or was
        return (code == ERROR_PIPE_CONNECTED || code == ERROR_NO_DATA) &&
               ::SetEvent(overlapped->hEvent);
    }

    // False when it failed or the server is to stop.
    template <class Start>
    bool transfer(DWORD& bytes, Start start) {
        OVERLAPPED overlapped{};
        overlapped.hEvent = done_.get();
        ::ResetEvent(done_.get());
        if (!start(&overlapped) && ::GetLastError() != ERROR_IO_PENDING) {
            return false;
        }
        // What has been done comes before the end: nothing that was sent goes uncounted.
        const HANDLE events[] = {done_.get(), stop_.get()};
        if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0) {
            ::CancelIoEx(pipe_.get(), &overlapped);
            ::GetOverlappedResult(pipe_.get(), &overlapped, &bytes, TRUE);
            return false;
        }
        return ::GetOverlappedResult(pipe_.get(), &overlapped, &bytes, FALSE);
    }

    Script script_;
    RunTime::AutoHandle stop_;
    RunTime::AutoHandle done_;
    RunTime::AutoHandle pipe_;
    std::thread thread_;
};
