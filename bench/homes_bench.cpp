// Times the move of many small homes of accounts, each of which has a mover of its own: what a home
// costs apart from its files. Prints milliseconds of the move, of the movers in it and of the
// commit, then the Win32 calls of a home.
//
//     scripts/sandbox.sh --database scripts/wine.sh build/release/bin/homes_bench.exe [HOMES]
//
// The homes go to another volume where the sandbox has one. Accounts are held in memory.
#include "bench/telling_failures.h"
#include "relocation/vhosts/user_list.h"
#include "runtime/accounts/user_information.h"
#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/support/account_fake.h"
#include "tests/support/database_fixture.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/temp_directory.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>
#include <windows.h>

namespace {

using Counts = std::map<std::string, long>;

struct Server : DatabaseFixture {
    using DatabaseFixture::configure;
    using DatabaseFixture::parameters;
};

std::wstring otherDrive() {
    wchar_t drive[8] = L"";
    ::GetEnvironmentVariableW(L"ZOP_TEST_TMPFS_DRIVE", drive, 8);
    return drive;
}

// Homes of two files each, their rows and their accounts.
class Homes {
public:
    explicit Homes(int count) {
        VMySQLDatabase database(Server::parameters());
        for (const wchar_t* table : {L"ftp_users", L"hosting", L"domains", L"sys_users"}) {
            database.execute(std::wstring(L"delete from ") + table);
        }
        for (int i = 0; i < count; ++i) {
            const std::wstring login = L"user" + std::to_wstring(i);
            const std::wstring home = L"vhosts\\" + login;
            database.execute(
                L"insert into sys_users (login, password, home, quota) values (?, '', ?, 0)",
                {login, old_.nice() + L"\\" + home});
            accounts_.state.users[login] = {.home = old_.nice() + L"\\" + home};
            old_.writeFile(home + L"\\index.html");
            old_.writeFile(home + L"\\web\\page.html");
        }
    }

    std::unique_ptr<UserList> newList() {
        const std::shared_ptr<UserManagement::IUserInformation> information =
            UserManagement::UserInformation::createInstance();
        return std::make_unique<UserList>(UserManagement::Factory::createInstance(information),
                                          information);
    }
    void move(UserList& list) const { list.move(old_ / L"vhosts", new_ / L"vhosts"); }

private:
    AccountFake accounts_;
    TempDirectory old_;
    TempDirectory new_{otherDrive()};
};

double millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

void time(int count) {
    Homes homes(count);
    const std::unique_ptr<UserList> list = homes.newList();
    std::chrono::steady_clock::time_point began;
    double movers = 0;
    const Hook hooks[] = {
        list->progressEvent_MoveUserHomeStart.hook(
            [&](bool&) { began = std::chrono::steady_clock::now(); }),
        list->progressEvent_MoveUserHomeEnd.hook(
            [&](bool&) { movers += millisecondsSince(began); }),
    };
    auto start = std::chrono::steady_clock::now();
    homes.move(*list);
    std::printf("move %.0f movers %.0f", millisecondsSince(start), movers);
    start = std::chrono::steady_clock::now();
    list->commit();
    std::printf(" commit %.0f\n", millisecondsSince(start));
}

Counts countMove(int count) {
    Homes homes(count);
    const std::unique_ptr<UserList> list = homes.newList();
    return countCalls([&] { homes.move(*list); });
}

// What is made once a move is subtracted.
void countEach() {
    constexpr int few = 10;
    constexpr int more = 40;
    const Counts before = countMove(few);
    Counts each = countMove(few + more);
    double sum = 0;
    for (auto& [name, calls] : each) {
        const auto once = before.find(name);
        const double calledEach =
            static_cast<double>(calls - (once == before.end() ? 0 : once->second)) / more;
        if (calledEach >= 0.05) {
            std::printf("%5.1f %s\n", calledEach, name.c_str());
            sum += calledEach;
        }
    }
    std::printf("%5.1f in all\n", sum);
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (std::getenv("ZOP_TEST_DB_PORT") == nullptr) {
        std::fputs("There is no database server: run by scripts/sandbox.sh --database.\n", stderr);
        return 2;
    }
    return tellingFailures([&] {
        const RegistryOverride registry;
        Server::configure(registry);
        time(count > 1 ? static_cast<int>(std::wcstol(arguments[1], nullptr, 10)) : 1000);
        countEach();
        return 0;
    });
}
