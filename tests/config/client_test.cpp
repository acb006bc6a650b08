// TarvoSrvClient against servers that behave well and badly.
#include "config/config_service_exception.h"
#include "config/protocol.h"
#include "config/service/config_service.h"
#include "config/tarvo_srv_client.h"
#include "runtime/registry/config_values.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "tests/config/scripted_server.h"
#include "tests/support/import_patch.h"
#include "tests/support/process_counters.h"
#include "tests/support/registry_override.h"

#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <optional>

using namespace config::protocol;
using namespace std::chrono_literals;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Failure = ConfigServiceException;

Bytes bytesOf(const Message& message) {
    return {message.begin(), message.end()};
}

Answer answer(const Reply& reply) {
    return {Answer::Send, bytesOf(encode(reply))};
}

// What a healthy service would say: a value's name is its string, and the length its number.
Answer echo(const Bytes& message) {
    const Request request = decodeRequest(message);
    Reply reply;
    reply.operation = request.operation;
    reply.string = request.operation == Operation::GetString ? request.name : L"";
    reply.dword = static_cast<std::uint32_t>(request.name.size());
    if (request.operation == Operation::List) {
        reply.more = request.name.empty();
        reply.values = {{reply.more ? L"Alpha" : L"beta", REG_SZ}};
    }
    return answer(reply);
}

class ClientTest : public testing::Test {
protected:
    ClientTest() { RegistryOverride::setDword(config::name::pipeConnectTryCount, 1); }
    ~ClientTest() override { ThreadCancelation::clear(::GetCurrentThreadId()); }

    ScriptedServer server(ScriptedServer::Script script) { return {path, std::move(script)}; }

    RegistryOverride registry_;
    const std::wstring name = L"zop_client_test_" + std::to_wstring(::GetCurrentProcessId());
    const std::wstring path = L"\\\\.\\pipe\\" + name;
    TarvoSrvClient client{{name, 5s}};
};

// What a caller learns of a failure: "status message: cause", the cause from the first frame.
template <class Call>
std::string failureOf(Call call) {
    try {
        call();
        return "it did not fail";
    } catch (const Failure& e) {
        EXPECT_FALSE(e.frames().front().text.empty());
        EXPECT_THAT(e.frames().front().function, testing::StartsWith("TarvoSrvClient::"));
        return std::to_string(e.status()) + " " + toUtf8(e.message()) + ": " +
               toUtf8(e.frames().front().text);
    } catch (const vexception& e) {
        return "another exception: " + toUtf8(e.what());
    }
}

std::string failureOf(TarvoSrvClient& client) {
    return failureOf([&] { client.getDWORD(L"Debug"); });
}

// With the real service, in this process.
class ClientAndServiceTest : public ClientTest {
protected:
    void start() { service_.emplace(config::ConfigService::Options{.pipeName = name}); }

    template <class Call>
    DWORD statusOf(Call call) {
        const std::string failure = failureOf(call);
        return static_cast<DWORD>(std::strtoul(failure.c_str(), nullptr, 10));
    }

    std::optional<config::ConfigService> service_;
};

// A failure of that call with this status and, somewhere in the cause, this text.
auto failsWith(DWORD status, const std::string& cause = "") {
    return testing::AllOf(
        testing::StartsWith(std::to_string(status) + " Unable to call getDWORD(Debug): "),
        testing::HasSubstr(cause));
}

} // namespace

TEST_F(ClientTest, CallsShareOneConnectionAndOneTransactionEach) {
    std::vector<Request> asked;
    auto service = server([&](const Bytes& message) {
        asked.push_back(decodeRequest(message));
        return echo(message);
    });
    EXPECT_EQ(1u, client.getDWORD(L"x"));
    FaultPoint transactions("TransactNamedPipe");
    FaultPoint keys("RegOpenKeyExW");
    EXPECT_EQ(L"FTPPassword", client.getString(L"FTPPassword"));
    client.setString(L"PRODUCT_ROOT_D", L"C:\\panel");
    client.setDWORD(L"Debug", 0xFFFFFFFF);
    EXPECT_TRUE(client.getDWORD(L"Debug") == 5 && !client.isVE());
    EXPECT_EQ(5, transactions.calls);
    EXPECT_EQ(0, keys.calls);
    const auto values = client.list();
    ASSERT_EQ(2u, values.size());
    EXPECT_EQ(L"beta", values[1].name);
    const std::wstring large(400'000, L'x');
    client.setString(L"large", large);
    service.stop();
    EXPECT_EQ(1, service.connections);
    ASSERT_EQ(9u, asked.size());
    EXPECT_EQ(L"C:\\panel", asked[2].string);
    EXPECT_EQ(0xFFFFFFFF, asked[3].dword);
    EXPECT_EQ(L"Alpha", asked[7].name) << "the list is continued behind its last name";
    EXPECT_EQ(large, asked[8].string);
}

TEST_F(ClientTest, LongAnswersArriveWhole) {
    std::atomic<std::size_t> length = 0;
    auto service = server([&](const Bytes&) {
        Reply reply;
        reply.string.assign(length, L'y');
        return answer(reply);
    });
    const std::size_t most = (maxMessageBytes - headerBytes - 4) / sizeof(wchar_t);
    for (const std::size_t size : {std::size_t{0}, std::size_t{2037}, std::size_t{2038},
                                   std::size_t{2039}, std::size_t{100'000}, most}) {
        length = size;
        EXPECT_EQ(std::wstring(size, L'y'), client.getString(L"x"));
    }
}

TEST_F(ClientTest, EveryOperationHasItsMessage) {
    auto service = server([](const Bytes& message) {
        Reply reply;
        reply.operation = decodeRequest(message).operation;
        reply.status = ERROR_DATATYPE_MISMATCH;
        reply.text = L"of another type";
        return answer(reply);
    });
    const auto check = [&](const std::string& message, auto call) {
        EXPECT_EQ("1629 " + message + ": of another type", failureOf(call));
    };
    check("Unable to call getString(a b)", [&] { client.getString(L"a b"); });
    check("Unable to call getDWORD(Debug)", [&] { client.getDWORD(L"Debug"); });
    check("Unable to call setDWORD(Debug = 17)", [&] { client.setDWORD(L"Debug", 17); });
    check("Unable to call isVE()", [&] { client.isVE(); });
    check("Unexpected error", [&] { client.list(); });
    check("Unexpected error", [&] { client.setString(L"FTPPassword", L"Tr0ub4dor"); });
    service.stop();
    EXPECT_EQ(1, service.connections) << "a refusal is an answer; the connection is sound";
}

TEST_F(ClientTest, BadArgumentsNeverReachThePipe) {
    for (const std::wstring& bad :
         {std::wstring(), std::wstring(maxNameLength + 1, L'n'), std::wstring(L"a\0b", 3)}) {
        EXPECT_THAT(failureOf([&] { client.getString(bad); }), testing::StartsWith("87 "));
    }
    for (const std::wstring& bad : {std::wstring(L"a\0b", 3), std::wstring(600'000, L'x')}) {
        EXPECT_THAT(failureOf([&] { client.setString(L"n", bad); }),
                    testing::StartsWith("87 Unexpected error: "));
    }
    EXPECT_THAT(failureOf(client), failsWith(Failure::notRunning, "sc start zopconfigsvc"));
}

TEST_F(ClientTest, StrangersLearnNothing) {
    // Null: what a program gets that says nothing about security. Wine gives that no owner at all.
    for (const wchar_t* security : {(const wchar_t*)nullptr, L"O:BU", L"O:LS", L"O:NS", L"O:WD",
                                    L"O:S-1-5-21-1-2-3-500", L"O:S-1-5-32"}) {
        ScriptedServer squatter(path, echo, security);
        EXPECT_THAT(failureOf(client),
                    failsWith(Failure::untrustedServer, "does not belong to the system"));
        while (squatter.connections == 0) { // it has to have seen the client to read from it
            std::this_thread::yield();
        }
        squatter.stop();
        EXPECT_EQ(0, squatter.bytesReceived);
    }
    for (const wchar_t* security : {L"O:SY", L"O:BA"}) {
        ScriptedServer service(path, echo, security);
        EXPECT_EQ(5u, client.getDWORD(L"Debug"));
        EXPECT_GT(service.bytesReceived, 0);
    }
}

TEST_F(ClientTest, NonsenseIsRefusedAndTheNextCallConnectsAnew) {
    Bytes reply;
    auto service = server([&](const Bytes& message) {
        return reply.empty() ? echo(message) : Answer{Answer::Send, reply};
    });
    const Bytes good = echo(bytesOf(encode(Request{Operation::GetDWORD, L"x"}))).bytes;
    Bytes otherVersion = good;
    otherVersion[4] = 2;
    Bytes longer = good;
    longer.push_back(0);
    const struct {
        Bytes bytes;
        DWORD status;
        const char* cause;
    } cases[] = {
        {Bytes(100, 'x'), Failure::badMessage, "mark"},
        {Bytes(good.begin(), good.end() - 1), Failure::badMessage, "header"},
        {longer, Failure::badMessage, "header"},
        {otherVersion, Failure::otherVersion, "version 2"},
        {Bytes(maxMessageBytes + 1, 'x'), Failure::badMessage, "longer than any message"},
        {answer({Operation::IsVE}).bytes, Failure::badMessage, "another request"},
    };
    int connections = 0;
    for (const auto& row : cases) {
        reply = row.bytes;
        EXPECT_THAT(failureOf(client), failsWith(row.status, row.cause));
        reply.clear();
        EXPECT_EQ(5u, client.getDWORD(L"Debug"));
        EXPECT_EQ(++connections + 1, service.connections);
    }
    reply = answer({.operation = Operation::List, .values = {{L"b", 1}}, .more = true}).bytes;
    EXPECT_EQ("13 Unexpected error: the list does not go on behind where it ended",
              failureOf([&] { client.list(); }));
}

TEST_F(ClientTest, ABrokenCallIsRepeatedOnce) {
    std::atomic<int> broken = 0;
    const auto script = [&](const Bytes& message) {
        return broken-- > 0 ? Answer{Answer::BreakOff} : echo(message);
    };
    {
        auto first = server(script);
        EXPECT_EQ(5u, client.getDWORD(L"Debug"));
    }
    auto second = server(script); // the service was started again
    EXPECT_EQ(5u, client.getDWORD(L"Debug"));
    broken = 1; // it ends while it works on a request
    EXPECT_EQ(5u, client.getDWORD(L"Debug"));
    EXPECT_EQ(2, second.connections);
    EXPECT_EQ(3, second.requests);
    broken = 2;
    EXPECT_THAT(failureOf(client), failsWith(ERROR_PIPE_NOT_CONNECTED, "broke the connection off"));
    EXPECT_EQ(5, second.requests);
    second.stop();
    EXPECT_THAT(failureOf(client), failsWith(Failure::notRunning, "not running"));
}

TEST_F(ClientTest, ASilentOrBusyServiceEndsTheCallInTime) {
    std::atomic<bool> silent = true;
    auto service = server([&](const Bytes& message) {
        const bool unheard = silent && decodeRequest(message).name == L"Debug";
        return unheard ? Answer{Answer::KeepSilent} : echo(message);
    });
    TarvoSrvClient hasty({name, 1500ms});
    const auto timed = [](auto call) {
        const ULONGLONG start = ::GetTickCount64();
        call();
        const ULONGLONG time = ::GetTickCount64() - start;
        EXPECT_TRUE(time >= 1480 && time < 10'000) << time;
    };
    timed([&] {
        EXPECT_THAT(failureOf(hasty), failsWith(Failure::timedOut, "did not answer in time"));
    });
    silent = false;
    EXPECT_EQ(5u, hasty.getDWORD(L"Debug")) << "the late answer is not taken for this one's";
    TarvoSrvClient second({name, 1500ms}); // the one instance is taken
    timed([&] { EXPECT_THAT(failureOf(second), failsWith(Failure::timedOut, "busy")); });
    auto waiting = std::async(std::launch::async, [&] { return client.getDWORD(L"other"); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(200ms));
    silent = true;
    EXPECT_THAT(failureOf(hasty), failsWith(Failure::timedOut, "answer")); // gives the instance up
    silent = false;
    EXPECT_EQ(5u, waiting.get());
}

TEST_F(ClientTest, CancellationEndsAWaitingCallSoon) {
    std::promise<void> asked;
    auto service = server([&](const Bytes& message) {
        if (decodeRequest(message).name != L"hang") {
            return echo(message);
        }
        asked.set_value();
        return Answer{Answer::KeepSilent};
    });
    TarvoSrvClient patient({name, 60s});
    TarvoSrvClient second({name, 60s});
    const auto cancelled = [](TarvoSrvClient& at, const wchar_t* value) {
        const ThreadCancelation::CancelationPoint point;
        const ULONGLONG start = ::GetTickCount64();
        EXPECT_THROW(at.getDWORD(value), CanceledException);
        return ::GetTickCount64() - start;
    };
    std::promise<DWORD> started;
    auto hanging = std::async(std::launch::async, [&] {
        started.set_value(::GetCurrentThreadId());
        cancelled(patient, L"hang");
    });
    const DWORD thread = started.get_future().get();
    asked.get_future().wait();
    // Others wait meanwhile, for their turn or for the pipe.
    for (TarvoSrvClient* other : {&patient, &second}) {
        std::promise<DWORD> id;
        auto call = std::async(std::launch::async, [&] {
            id.set_value(::GetCurrentThreadId());
            return cancelled(*other, L"x");
        });
        const DWORD waiting = id.get_future().get();
        EXPECT_EQ(std::future_status::timeout, call.wait_for(100ms));
        ThreadCancelation::request(waiting);
        EXPECT_LT(call.get(), 30'000u);
    }
    ThreadCancelation::request(thread);
    EXPECT_EQ(std::future_status::ready, hanging.wait_for(30s));
    EXPECT_EQ(1u, patient.getDWORD(L"x"));
}

TEST_F(ClientTest, AbsentPipesAreTriedAsOftenAsConfigured) {
    FaultPoint opens("CreateFileW");
    for (const DWORD attempts : {1UL, 3UL}) {
        RegistryOverride::setDword(config::name::pipeConnectTryCount, attempts);
        opens.calls = 0;
        EXPECT_THAT(failureOf(client), failsWith(Failure::notRunning, "zopconfigsvc --console"));
        EXPECT_EQ(static_cast<long>(attempts), opens.calls);
    }
    TarvoSrvClient configured({L"", 5s});
    RegistryOverride::setString(config::name::pipeName, name);
    auto service = server(echo);
    EXPECT_EQ(5u, configured.getDWORD(L"Debug"));
    service.stop();
    for (const wchar_t* bad : {L"\\\\server\\pipe\\zoppipe", L"a\\b", L"\\\\.\\pipe\\", L"..",
                               L"\\\\.\\pipe\\../c", L"//./pipe/x"}) {
        RegistryOverride::setString(config::name::pipeName, bad);
        EXPECT_THAT(failureOf(configured), failsWith(ERROR_BAD_CONFIGURATION, toUtf8(bad)));
    }
    RegistryOverride::setDword(config::name::pipeName, 1);
    EXPECT_THAT(failureOf(configured), failsWith(ERROR_BAD_CONFIGURATION, "ZOP_pipe"));
}

TEST_F(ClientTest, FailingSystemCallsFailTheCallAndLeakNothing) {
    auto service = server(echo);
    const struct {
        const char* function;
        std::uintptr_t result;
    } points[] = {{"CreateEventW", 0},
                  {"CreateFileW", ~std::uintptr_t{0}},
                  {"GetSecurityInfo", ERROR_NOT_ENOUGH_MEMORY},
                  {"SetNamedPipeHandleState", 0},
                  {"TransactNamedPipe", 0}};
    const auto round = [&] {
        for (const auto& point : points) {
            TarvoSrvClient fresh({name, 5s});
            FaultPoint fault(point.function);
            fault.failAt = 0;
            fault.code = ERROR_NOT_ENOUGH_MEMORY;
            fault.result = point.result;
            EXPECT_THAT(failureOf(fresh), failsWith(ERROR_NOT_ENOUGH_MEMORY)) << point.function;
            fault.failAt = -1;
            EXPECT_FALSE(fresh.isVE()) << point.function;
        }
    };
    const ProcessCounters growth = growthOver(5, round);
    EXPECT_LT(growth.handles, 5) << "one a round at least; the server has some now and then";
    EXPECT_LT(growth.blocks, 5);
}

TEST_F(ClientAndServiceTest, ListsAreWholeHoweverManyPagesTheyTake) {
    start();
    std::vector<std::wstring> names = {config::name::pipeConnectTryCount};
    for (int i = 0; i < 100; ++i) { // more than a page, in the order in which they are listed
        names.push_back(L"value " + std::to_wstring(1000 + i));
        RegistryOverride::setDword(names.back().c_str(), 1);
    }
    RegistryOverride::setString(L"", L"the default value, which has no name");
    std::vector<std::wstring> listed;
    for (const TarvoSrvClient::Value& value : client.list()) {
        EXPECT_EQ(DWORD{REG_DWORD}, value.type);
        listed.push_back(value.name);
    }
    EXPECT_EQ(names, listed);
}

// The service goes and comes back under the feet of several threads. What fails meanwhile says that
// it is not running, nothing else fails, and no answer is another call's.
TEST_F(ClientAndServiceTest, ARestartIsSurvivedInMidUse) {
    start();
    std::atomic<bool> over = false;
    std::atomic<int> answers = 0;
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 3; ++thread) {
        threads.push_back(std::async(std::launch::async, [&, thread] {
            const std::wstring value = L"of thread " + std::to_wstring(thread);
            for (DWORD i = 0; !over; ++i) {
                const DWORD status = statusOf([&] {
                    client.setDWORD(value, i);
                    EXPECT_EQ(i, client.getDWORD(value));
                    ++answers;
                });
                EXPECT_TRUE(status == ERROR_SUCCESS || status == ERROR_PIPE_NOT_CONNECTED ||
                            status == Failure::notRunning)
                    << status;
            }
        }));
    }
    for (int restart = 0; restart < 5; ++restart) {
        for (const int before = answers; answers < before + 20;) {
            std::this_thread::yield();
        }
        service_.reset();
        start();
    }
    EXPECT_EQ(ERROR_SUCCESS, statusOf([&] { client.setDWORD(L"after all", 1); }));
    over = true;
    for (auto& thread : threads) {
        thread.get();
    }
    service_.reset();
    EXPECT_EQ(Failure::notRunning, statusOf([&] { client.isVE(); }));
}
