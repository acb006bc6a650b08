// Times reads of configuration values: through the service, directly from the registry, and a bare
// exchange of messages of that size over a pipe, the least that a service could cost. The four take
// turns; printed are the medians of eleven turns in microseconds a read, and the ratios.
//
// It writes two values into the panel's configuration key: for a registry of its own only.
#include "bench/telling_failures.h"
#include "config/protocol.h"
#include "config/service/config_service.h"
#include "config/tarvo_srv_client.h"
#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <windows.h>

namespace {

constexpr int turns = 11;
constexpr int readsPerTurn = 1000;

double microseconds() {
    LARGE_INTEGER now;
    LARGE_INTEGER second;
    ::QueryPerformanceCounter(&now);
    ::QueryPerformanceFrequency(&second);
    return static_cast<double>(now.QuadPart) * 1e6 / static_cast<double>(second.QuadPart);
}

RunTime::AutoHandle checked(HANDLE handle) {
    RunTime::AutoHandle owner(handle);
    if (!owner) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to open the pipe", code, {L"", "config_bench", __LINE__});
    }
    return owner;
}

// Both ends of a pipe; the server's answers every message with the same one and does nothing else.
class BarePipe {
public:
    BarePipe(const std::wstring& path, config::protocol::Message reply)
        : reply_(std::move(reply)),
          server_(checked(::CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX,
                                             PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 1, 65536,
                                             65536, 0, nullptr))),
          client_(checked(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                        OPEN_EXISTING, 0, nullptr))) {
        DWORD mode = PIPE_READMODE_MESSAGE;
        ::SetNamedPipeHandleState(client_.get(), &mode, nullptr, nullptr);
        thread_ = std::thread([this] { serve(); });
    }
    ~BarePipe() {
        client_.reset(); // which ends the server
        thread_.join();
    }
    BarePipe(const BarePipe&) = delete;
    BarePipe& operator=(const BarePipe&) = delete;

    void exchange(config::protocol::Message& request) {
        std::array<std::uint8_t, 256> reply{};
        DWORD bytes = 0;
        if (!::TransactNamedPipe(client_.get(), request.data(), static_cast<DWORD>(request.size()),
                                 reply.data(), reply.size(), &bytes, nullptr)) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to exchange messages", code, {L"", "config_bench", __LINE__});
        }
    }

private:
    void serve() {
        std::array<std::uint8_t, 256> request{};
        DWORD bytes = 0;
        while (::ReadFile(server_.get(), request.data(), request.size(), &bytes, nullptr) &&
               ::WriteFile(server_.get(), reply_.data(), static_cast<DWORD>(reply_.size()), &bytes,
                           nullptr)) {
        }
    }

    config::protocol::Message reply_;
    RunTime::AutoHandle server_;
    RunTime::AutoHandle client_;
    std::thread thread_;
};

void run() {
    using namespace config::protocol;
    registry::setDWORD(HKEY_LOCAL_MACHINE, config::configKey, config::name::debug, 1,
                       RegistryView::View32, registry::MissingKey::Create);
    registry::setString(HKEY_LOCAL_MACHINE, config::configKey, config::name::productRoot,
                        L"C:\\Program Files\\Panel", RegistryView::View32);
    const std::wstring name = L"zop_config_bench_" + std::to_wstring(::GetCurrentProcessId());
    const config::ConfigService service({.pipeName = name});
    TarvoSrvClient client({name});
    BarePipe bare(L"\\\\.\\pipe\\" + name + L"_bare",
                  encode(Reply{.operation = Operation::GetDWORD, .dword = 1}));
    Message request = encode(Request{Operation::GetDWORD, config::name::debug});

    struct Way {
        const char* name;
        std::function<void()> read;
        std::array<double, turns> times{};
    };
    Way ways[] = {{"bare exchange", [&] { bare.exchange(request); }},
                  {"getDWORD", [&] { client.getDWORD(config::name::debug); }},
                  {"getString", [&] { client.getString(config::name::productRoot); }},
                  {"registry", [] {
                       DWORD value = 0;
                       registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::debug,
                                        value, RegistryView::View32);
                   }}};
    for (int turn = -1; turn < turns; ++turn) { // the first one warms up
        for (Way& way : ways) {
            const double start = microseconds();
            for (int i = 0; i < readsPerTurn; ++i) {
                way.read();
            }
            way.times[static_cast<std::size_t>(std::max(turn, 0))] =
                (microseconds() - start) / readsPerTurn;
        }
    }
    const auto median = [](Way& way) {
        std::sort(way.times.begin(), way.times.end());
        return way.times[turns / 2];
    };
    const double least = median(ways[0]);
    for (Way& way : ways) {
        const double time = median(way);
        std::printf("%-14s %8.1f us %8.0f a second %6.2f\n", way.name, time, 1e6 / time,
                    time / least);
    }
}

} // namespace

int wmain() {
    return tellingFailures([&] {
        run();
        return 0;
    });
}
