// TarvoSrvClient and the real service, in one process.
#include "config/config_service_exception.h"
#include "config/service/config_service.h"
#include "config/tarvo_srv_client.h"
#include "runtime/registry/config_values.h"
#include "runtime/text.h"
#include "tests/support/registry_override.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <optional>

using namespace std::chrono_literals;

namespace {

class ClientServiceTest : public testing::Test {
protected:
    void start() { service_.emplace(config::ConfigService::Options{.pipeName = name}); }

    DWORD statusOf(const std::function<void()>& call) {
        try {
            call();
            return ERROR_SUCCESS;
        } catch (const ConfigServiceException& e) {
            EXPECT_FALSE(e.frames().front().text.empty());
            return e.status();
        }
    }

    RegistryOverride registry_;
    const std::wstring name =
        L"zop_client_service_test_" + std::to_wstring(::GetCurrentProcessId());
    std::optional<config::ConfigService> service_;
    TarvoSrvClient client{{name, 10s}};
};

} // namespace

TEST_F(ClientServiceTest, ValuesGoThereAndBack) {
    start();
    RegistryOverride::setDword(config::name::virtualEnvironment, 1);
    EXPECT_TRUE(client.isVE());
    RegistryOverride::setDword(config::name::virtualEnvironment, 0);
    EXPECT_FALSE(client.isVE());
    const std::wstring texts[] = {L"", L"[passwd]AAAA", L"C:\\Program Files\\Panel \x20AC \xD83D",
                                  std::wstring(300'000, L'x')};
    for (const std::wstring& text : texts) {
        client.setString(L"Some value", text);
        EXPECT_EQ(text, client.getString(L"some VALUE"));
    }
    for (const DWORD number : {0UL, 1UL, 0xFFFFFFFFUL}) {
        client.setDWORD(L"Number", number);
        EXPECT_EQ(number, client.getDWORD(L"Number"));
    }
    using Failure = ConfigServiceException;
    EXPECT_EQ(Failure::noSuchValue, statusOf([&] { client.getString(L"absent"); }));
    EXPECT_EQ(Failure::noSuchValue, statusOf([&] { client.getDWORD(L"absent"); }));
    EXPECT_EQ(Failure::wrongType, statusOf([&] { client.getDWORD(L"Some value"); }));
    EXPECT_EQ(Failure::wrongType, statusOf([&] { client.getString(L"Number"); }));
}

TEST_F(ClientServiceTest, ListsAreWholeHoweverManyPagesTheyTake) {
    start();
    std::vector<std::wstring> names;
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
TEST_F(ClientServiceTest, ARestartIsSurvivedInMidUse) {
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
                            status == ConfigServiceException::notRunning)
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
    RegistryOverride::setDword(config::name::pipeConnectTryCount, 1);
    EXPECT_EQ(ConfigServiceException::notRunning, statusOf([&] { client.isVE(); }));
}
