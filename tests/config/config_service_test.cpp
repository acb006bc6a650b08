// The service over a real pipe, with a registry of the test's own.
#include "config/service/config_service.h"

#include "runtime/exception.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/text.h"
#include "tests/config/pipe_client.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/import_patch.h"
#include "tests/support/process_counters.h"
#include "tests/support/registry_override.h"

#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <sddl.h>
#include <stdexcept>
#include <thread>

namespace config {

namespace {

using namespace std::chrono_literals;
using protocol::Operation;
using protocol::Reply;
using protocol::Request;
using Clock = std::chrono::steady_clock;

std::string textOf(const Reply& reply) {
    return toUtf8(reply.text);
}

class ConfigServiceTest : public ::testing::Test {
protected:
    static std::wstring pipeName() { return L"zoptest" + std::to_wstring(::GetCurrentProcessId()); }
    static ConfigService::Options options() {
        ConfigService::Options result;
        result.pipeName = pipeName();
        return result;
    }
    // A refusal repeats the operation that was asked for, known or not.
    static Reply decodeRefusal(protocol::Message message) {
        if (message.size() > 7) {
            message[6] = static_cast<std::uint8_t>(Operation::GetString);
            message[7] = 0;
        }
        return protocol::decodeReply(message);
    }
    // What a message that is no request is answered with, as the last thing on the connection.
    static Reply refusalOf(PipeClient& client, protocol::MessageView message) {
        EXPECT_TRUE(client.send(message));
        const auto reply = client.receive();
        EXPECT_TRUE(client.isEnded());
        return reply ? decodeRefusal(*reply) : Reply{};
    }

    RegistryOverride registry_;
};

// Past the import table.
template <class Function>
Function systemFunction(const wchar_t* dll, const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(dll), name)));
}

std::string describe(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts) {
    RunTime::LocalPtr<wchar_t> text;
    EXPECT_TRUE(::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1,
                                                                       parts, text.put(), nullptr));
    return toUtf8(text.get());
}

void storeBinary(const wchar_t* name) {
    RunTime::AutoRegKey key;
    ASSERT_EQ(ERROR_SUCCESS,
              ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, configKey, 0, KEY_SET_VALUE, key.put()));
    ASSERT_EQ(ERROR_SUCCESS, ::RegSetValueExW(key.get(), name, 0, REG_BINARY, nullptr, 0));
}

} // namespace

TEST_F(ConfigServiceTest, AnswersEveryOperation) {
    static std::string keySecurity; // Wine keeps none when it makes a key
    const ImportPatch recorder(
        "RegCreateKeyExW",
        +[](HKEY hive, LPCWSTR name, DWORD reserved, LPWSTR type, DWORD options, REGSAM access,
            const SECURITY_ATTRIBUTES* security, HKEY* key, DWORD* disposition) -> LSTATUS {
            if (security != nullptr) {
                keySecurity = describe(security->lpSecurityDescriptor, DACL_SECURITY_INFORMATION);
            }
            return systemFunction<decltype(&::RegCreateKeyExW)>(L"advapi32.dll", "RegCreateKeyExW")(
                hive, name, reserved, type, options, access, nullptr, key, disposition);
        });
    ConfigService service(options());
    EXPECT_EQ(toUtf8(service.pipePath()), toUtf8(L"\\\\.\\pipe\\" + pipeName()));
    PipeClient client(service.pipePath());

    // There is no key yet: the service makes it, and closes it to users.
    EXPECT_EQ(client.ask({Operation::GetString, L"a"}).status, DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_TRUE(client.ask({Operation::List}).values.empty());
    const std::wstring texts[] = {L"", L"C:\\panel \u65E5", std::wstring(500'000, L'x')};
    for (const std::wstring& text : texts) {
        EXPECT_EQ(client.ask({Operation::SetString, L"a", text}).status, 0U);
        EXPECT_TRUE(client.ask({Operation::GetString, L"A"}).string == text);
    }
    for (const std::uint32_t number : {0U, 7U, 0xFFFFFFFFU}) {
        EXPECT_EQ(client.ask({Operation::SetDWORD, L"n", {}, number}).status, 0U);
        EXPECT_EQ(client.ask({Operation::GetDWORD, L"n"}).dword, number);
    }

    EXPECT_EQ(keySecurity, "D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)");

    struct Case {
        Request request;
        DWORD status;
        const char* says;
    };
    storeBinary(L"b");
    registry_.setString(L"", L"the key's own value is not listed");
    const Reply list = client.ask({Operation::List, L"A"}); // behind "a", in any case
    ASSERT_EQ(list.values.size(), 2U);
    EXPECT_TRUE(list.values[0].name == L"b" && list.values[0].type == REG_BINARY);
    EXPECT_TRUE(list.values[1].name == L"n" && list.values[1].type == REG_DWORD);
    EXPECT_FALSE(list.more);

    const Case cases[] = {
        {{Operation::GetString, L"none"}, ERROR_FILE_NOT_FOUND, "(none)"},
        {{Operation::GetDWORD, L"none"}, ERROR_FILE_NOT_FOUND, "(none)"},
        {{Operation::GetString, L"n"}, ERROR_DATATYPE_MISMATCH, "(n) as a string"},
        {{Operation::GetDWORD, L"a"}, ERROR_DATATYPE_MISMATCH, "(a) as a number"},
        {{Operation::GetString, L"b"}, ERROR_DATATYPE_MISMATCH, "(b) as a string"},
        {{Operation::GetString, L"Packages\\x"}, ERROR_INVALID_PARAMETER, "backslash"},
        {{Operation::SetString, L"Packages\\x", L"y"}, ERROR_INVALID_PARAMETER, "backslash"},
        {{Operation::SetDWORD, L"\\", {}, 1}, ERROR_INVALID_PARAMETER, "backslash"},
    };
    for (const Case& wrong : cases) {
        const Reply reply = client.ask(wrong.request);
        EXPECT_EQ(reply.status, wrong.status) << textOf(reply);
        EXPECT_NE(textOf(reply).find(wrong.says), std::string::npos) << textOf(reply);
    }

    for (const DWORD yes : {0UL, 1UL, 5UL}) {
        registry_.setDword(name::virtualEnvironment, yes);
        EXPECT_EQ(client.ask({Operation::IsVE}).dword, yes != 0 ? 1U : 0U);
    }
    registry_.remove(name::virtualEnvironment);
    EXPECT_EQ(client.ask({Operation::IsVE}).status, 0U);
    registry_.setString(name::virtualEnvironment, L"yes");
    EXPECT_EQ(client.ask({Operation::IsVE}).status, DWORD{ERROR_DATATYPE_MISMATCH});
}

// Each bad client is told why where that is possible, and loses its connection; the good one keeps
// its own and is answered at once all the time.
TEST_F(ConfigServiceTest, ABadClientHurtsOnlyItself) {
    ConfigService::Options quick = options();
    quick.requestTimeout = 2s;
    quick.replyTimeout = 2s;
    ConfigService service(quick);
    std::mutex mutex;
    std::wstring log;
    const auto listener =
        LogManager::getInstance().addListener([&](LogType, const std::wstring& text) {
            const std::lock_guard lock(mutex);
            log += text + L"\n";
        });
    const auto logged = [&](const wchar_t* line) {
        const std::lock_guard lock(mutex);
        return log.find(line) != log.npos;
    };

    std::atomic<long> answered{0};
    std::jthread good([&](const std::stop_token& stop) {
        PipeClient client(service.pipePath());
        while (!stop.stop_requested()) {
            EXPECT_EQ(client.ask({Operation::SetString, L"a", L"Secret1"}).status, 0U);
            EXPECT_EQ(client.ask({Operation::GetString, L"a"}).string.size(), 7U);
            ++answered;
        }
    });

    const auto valid = protocol::encode(Request{Operation::SetString, L"b", L"Secret2"});
    auto otherVersion = valid;
    otherVersion[4] = 9;
    auto otherOperation = valid;
    otherOperation[6] = 77;
    auto otherMagic = valid;
    otherMagic[0] ^= 1;
    auto longer = valid;
    longer.push_back(0);
    struct Case {
        const char* what;
        protocol::Message message;
        DWORD status;
        const char* says;
    };
    const Case cases[] = {
        {"unknown version", otherVersion, ERROR_REVISION_MISMATCH, "version 1 is"},
        {"unknown operation", otherOperation, ERROR_NOT_SUPPORTED, "operation 77"},
        {"truncated", {valid.begin(), valid.end() - 1}, ERROR_INVALID_DATA, "as long"},
        {"too much", longer, ERROR_INVALID_DATA, "as long"},
        {"oversized", protocol::Message(protocol::maxMessageBytes + 1, 1), ERROR_INVALID_DATA,
         "too long"},
        {"vast", protocol::Message(3 * protocol::maxMessageBytes, 1), ERROR_INVALID_DATA,
         "too long"},
    };
    for (const Case& wrong : cases) {
        SCOPED_TRACE(wrong.what);
        PipeClient bad(service.pipePath());
        const Reply reply = refusalOf(bad, wrong.message);
        EXPECT_EQ(reply.status, wrong.status);
        EXPECT_NE(textOf(reply).find(wrong.says), std::string::npos) << textOf(reply);
    }
    for (const protocol::Message& alien : {protocol::Message(), otherMagic}) {
        PipeClient bad(service.pipePath());
        EXPECT_TRUE(bad.send(alien));
        EXPECT_TRUE(bad.isEnded()) << "an answer to what is no request";
    }
    {
        PipeClient leaves(service.pipePath());
        EXPECT_TRUE(leaves.send(valid));
    }
    { // silent
        const auto start = Clock::now();
        PipeClient silent(service.pipePath());
        const long before = answered;
        EXPECT_TRUE(silent.isEnded());
        EXPECT_GE(Clock::now() - start, 1900ms);
        EXPECT_GE(answered, before + 2) << "the good one had to wait for it";
        PipeClient kept(service.pipePath()); // after a request there is no such limit
        kept.ask({Operation::IsVE});
        PipeClient next(service.pipePath());
        EXPECT_TRUE(next.isEnded());
        EXPECT_EQ(kept.ask({Operation::IsVE}).status, 0U);
    }
    { // takes nothing
        PipeClient greedy(service.pipePath());
        greedy.ask({Operation::SetString, L"long", std::wstring(400'000, L'x')});
        EXPECT_TRUE(greedy.send(protocol::encode(Request{Operation::GetString, L"long"})));
        for (int i = 0; i < 20 && !logged(L"it does not take its reply"); ++i) {
            EXPECT_TRUE(PipeClient(service.pipePath()).isEnded()); // takes as long
        }
        EXPECT_TRUE(greedy.isEnded());
    }
    good.request_stop();
    good.join();
    EXPECT_GE(answered, 20);

    EXPECT_FALSE(logged(L"Secret")) << "what a value holds was logged";
    for (const wchar_t* line : {L"(a) was set by process", L"version 9", L"too long",
                                L"it sends no request", L"it does not take its reply"}) {
        EXPECT_TRUE(logged(line)) << toUtf8(line) << "\n" << toUtf8(log);
    }
}

TEST_F(ConfigServiceTest, AClientThatDoesNotWaitForItsReplyIsRefused) {
    // The server is held in its first answer until the client has sent twice.
    static RunTime::AutoHandle sentTwice;
    sentTwice.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const ImportPatch held(
        "PeekNamedPipe",
        +[](HANDLE pipe, void* buffer, DWORD size, DWORD* read, DWORD* available,
            DWORD* left) -> BOOL {
            ::WaitForSingleObject(sentTwice.get(), 10'000);
            return systemFunction<decltype(&::PeekNamedPipe)>(L"kernel32.dll", "PeekNamedPipe")(
                pipe, buffer, size, read, available, left);
        });
    ConfigService service(options());
    PipeClient hasty(service.pipePath());
    EXPECT_TRUE(hasty.send(protocol::encode(Request{Operation::IsVE})));
    EXPECT_TRUE(hasty.send(protocol::encode(Request{Operation::IsVE})));
    ::SetEvent(sentTwice.get());
    const auto reply = hasty.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(protocol::decodeReply(*reply).status, DWORD{ERROR_BUSY});
    EXPECT_TRUE(hasty.isEnded());
}

TEST_F(ConfigServiceTest, AtTheLimitTheConnectionThatIsIdleLongestGoes) {
    ConfigService::Options few = options();
    few.maxConnections = 4;
    ConfigService service(few);
    std::vector<std::unique_ptr<PipeClient>> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(std::make_unique<PipeClient>(service.pipePath()));
        clients.back()->ask({Operation::IsVE});
    }
    clients[0]->ask({Operation::IsVE}); // now the second is the oldest
    PipeClient fifth(service.pipePath());
    EXPECT_EQ(fifth.ask({Operation::IsVE}).status, 0U);
    EXPECT_TRUE(clients[1]->isEnded());
    for (const int kept : {0, 2, 3}) {
        EXPECT_EQ(clients[static_cast<std::size_t>(kept)]->ask({Operation::IsVE}).status, 0U);
    }
    // None is idle: each still has a reply to take.
    fifth.ask({Operation::SetString, L"long", std::wstring(300'000, L'x')});
    for (PipeClient* busy : {clients[0].get(), clients[2].get(), clients[3].get(), &fifth}) {
        EXPECT_TRUE(busy->send(protocol::encode(Request{Operation::GetString, L"long"})));
        for (DWORD waiting = 0; waiting == 0;) {
            ASSERT_TRUE(::PeekNamedPipe(busy->get(), nullptr, 0, nullptr, &waiting, nullptr));
        }
    }
    const auto start = Clock::now();
    EXPECT_TRUE(PipeClient(service.pipePath()).isEnded());
    EXPECT_LT(Clock::now() - start, few.requestTimeout);
    for (PipeClient* busy : {clients[0].get(), clients[2].get(), clients[3].get(), &fifth}) {
        EXPECT_TRUE(busy->receive().has_value());
    }
    // Many at once, none of which waits for another.
    std::atomic<int> served{0};
    std::vector<std::jthread> crowd;
    for (int i = 0; i < 8; ++i) {
        crowd.emplace_back([&] {
            for (int request = 0; request < 20; ++request) {
                try {
                    PipeClient client(service.pipePath());
                    served += client.ask({Operation::IsVE}).status == 0;
                } catch (const std::runtime_error&) { // made room for another one
                }
            }
        });
    }
    crowd.clear();
    EXPECT_GE(served, 80);
}

TEST_F(ConfigServiceTest, AStopEndsAllAndLeavesNothingBehind) {
    const auto session = [&] {
        ConfigService service(options());
        PipeClient idle(service.pipePath());
        idle.ask({Operation::IsVE});
        PipeClient silent(service.pipePath());
        PipeClient asking(service.pipePath());
        asking.ask({Operation::SetString, L"long", std::wstring(300'000, L'x')});
        asking.send(protocol::encode(Request{Operation::GetString, L"long"}));
        std::jthread other([&] { service.stop(); });
        service.stop();
        EXPECT_TRUE(idle.isEnded());
        EXPECT_TRUE(silent.isEnded());
        EXPECT_FALSE(::WaitNamedPipeW(service.pipePath().c_str(), 1));
        EXPECT_EQ(::GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    };
    const ProcessCounters growth = growthOver(10, session);
    EXPECT_LT(growth.handles, 5); // a leak makes ten
    EXPECT_LT(growth.blocks, 5);
}

TEST_F(ConfigServiceTest, OnlyAdministratorsOfThisMachineAreAdmitted) {
    struct Call {
        DWORD open, mode;
    };
    static std::vector<Call> calls;
    calls.clear();
    const ImportPatch recorder(
        "CreateNamedPipeW",
        +[](LPCWSTR name, DWORD open, DWORD mode, DWORD instances, DWORD out, DWORD in,
            DWORD timeout, SECURITY_ATTRIBUTES* security) -> HANDLE {
            calls.push_back({open, mode});
            return systemFunction<decltype(&::CreateNamedPipeW)>(
                L"kernel32.dll", "CreateNamedPipeW")(name, open, mode, instances, out, in, timeout,
                                                     security);
        });
    ConfigService service(options());
    PipeClient client(service.pipePath());
    client.ask({Operation::IsVE});
    PipeClient second(service.pipePath());
    second.ask({Operation::IsVE});
    service.stop();
    ASSERT_EQ(calls.size(), 3U);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ((calls[i].open & FILE_FLAG_FIRST_PIPE_INSTANCE) != 0, i == 0);
        EXPECT_TRUE(calls[i].mode & PIPE_REJECT_REMOTE_CLIENTS);
        EXPECT_TRUE(calls[i].mode & PIPE_TYPE_MESSAGE);
    }
    constexpr SECURITY_INFORMATION parts = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    std::vector<BYTE> descriptor(4096);
    DWORD size = 0;
    ASSERT_TRUE(::GetKernelObjectSecurity(second.get(), parts, descriptor.data(), 4096, &size));
    EXPECT_EQ(describe(descriptor.data(), parts), "O:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)");
}

// Whichever call fails when it starts: an error that names what could not be done, or a service
// that works; and nothing left.
TEST_F(ConfigServiceTest, AStartThatFailsSaysWhyAndLeavesNothing) {
    const auto sweep = [&] {
        long faults = 0;
        for (long n = 1, fired = 1; fired != 0; ++n) {
            std::unique_ptr<ConfigService> service;
            const FaultOutcome outcome = runWithFault(n, ERROR_ACCESS_DENIED, [&] {
                service = std::make_unique<ConfigService>(options());
            });
            SCOPED_TRACE(outcome.text());
            fired = outcome.fired;
            faults += fired;
            if (service) {
                PipeClient client(service->pipePath());
                EXPECT_EQ(client.ask({Operation::IsVE}).status, 0U);
            } else {
                EXPECT_NE(outcome.error.find("Unable to"), std::string::npos);
            }
        }
        EXPECT_GE(faults, 5);
    };
    EXPECT_LT(growthOver(10, sweep).handles, 5);

    const auto withoutThread = [&] {
        FaultPoint thread("_beginthreadex");
        thread.failAt = 0;
        EXPECT_THROW(ConfigService{options()}, vosexception);
    };
    EXPECT_LT(growthOver(10, withoutThread).handles, 5);

    FaultPoint taken("CreateNamedPipeW");
    taken.failAt = 0;
    taken.result = reinterpret_cast<std::uintptr_t>(INVALID_HANDLE_VALUE);
    try {
        ConfigService service(options());
        ADD_FAILURE() << "two services have one name";
    } catch (const VAccessDeniedException& e) {
        EXPECT_NE(e.message().find(L"another program has that name"), std::wstring::npos);
    }
}

// The service outlives what the system refuses it later.
TEST_F(ConfigServiceTest, AFailureAtAConnectionEndsThatConnectionOnly) {
    for (const char* function : {"CreateNamedPipeW", "CreateIoCompletionPort", "ConnectNamedPipe",
                                 "ReadFile", "WriteFile"}) {
        SCOPED_TRACE(function);
        ConfigService service(options());
        PipeClient first(service.pipePath());
        first.ask({Operation::IsVE});
        PipeClient(service.pipePath()).ask({Operation::IsVE}); // now the server reads from first
        {
            FaultPoint fault(function);
            fault.code = ERROR_NO_SYSTEM_RESOURCES;
            fault.result = std::string(function) == "CreateNamedPipeW"
                               ? reinterpret_cast<std::uintptr_t>(INVALID_HANDLE_VALUE)
                               : 0;
            // Of ReadFile and WriteFile the client calls the first itself.
            fault.failAt = *function == 'R' || *function == 'W' ? 1 : 0;
            try {
                PipeClient turnedAway(service.pipePath());
                turnedAway.ask({Operation::IsVE});
            } catch (const std::runtime_error&) {
            }
            EXPECT_TRUE(fault.fired());
        }
        EXPECT_EQ(first.ask({Operation::IsVE}).status, 0U);
        PipeClient next(service.pipePath());
        EXPECT_EQ(next.ask({Operation::IsVE}).status, 0U);
    }
}

} // namespace config
