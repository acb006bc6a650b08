// The accounts of a machine, held in memory: for its life, UserInformation and Factory make objects
// that work on these. They must not outlive the fake.
//
//     AccountFake accounts;
//     accounts.state.users[L"d1"] = {.password = L"secret", .home = L"C:\\vhosts\\d1"};
//     const AccountFake::State before = accounts.state;
//     accounts.failCall = L"setHomeDirectory"; // its second call fails
//     accounts.failAt = 2;
//     ...
//     EXPECT_EQ(accounts.state, before);
//
// Names are compared without regard to letter case, and may come with a domain, as on Windows. What
// Windows refuses is refused with its codes: 2221 for a missing user, 2224 for one that exists,
// 2220 and 1379 for groups, 1387 for a member that is no user.
#pragma once

#include "runtime/accounts/factory.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>
#include <windows.h>

class AccountFake {
public:
    struct NameLess {
        bool operator()(const std::wstring& first, const std::wstring& second) const noexcept {
            return _wcsicmp(first.c_str(), second.c_str()) < 0;
        }
    };
    struct User {
        std::wstring password = {};
        std::wstring fullName = {};
        std::wstring comment = {};
        std::wstring description = {};
        std::wstring home = {};
        bool administrator = false;
        bool rdpLogon = true;
        std::map<std::wstring, std::uint64_t> quotas = {}; // by drive: L"C:"

        bool operator==(const User&) const = default;
    };
    struct Group {
        std::wstring comment = {};
        std::set<std::wstring, NameLess> members = {};

        bool operator==(const Group&) const = default;
    };
    struct State {
        std::map<std::wstring, User, NameLess> users;
        std::map<std::wstring, Group, NameLess> groups;

        bool operator==(const State&) const = default;
    };

    AccountFake();
    ~AccountFake();
    AccountFake(const AccountFake&) = delete;
    AccountFake& operator=(const AccountFake&) = delete;

    State state;

    // Every call so far, in order, the reading ones as well: its name, the account and the value
    // (no passwords), such as L"setHomeDirectory d1 D:\\vhosts\\d1".
    std::vector<std::wstring> calls;
    long count(std::wstring_view name) const {
        return static_cast<long>(
            std::count_if(calls.begin(), calls.end(), [&](const std::wstring& call) {
                return call.substr(0, call.find(L' ')) == name;
            }));
    }

    // The call that fails, counted from 1 among those of the name, or among all where there is no
    // name; 0: none. It changes nothing. Set again, it counts from then on.
    struct FailAt {
        FailAt& operator=(long n) noexcept {
            left = n;
            fired = false;
            return *this;
        }
        long left = 0;
        bool fired = false;
    } failAt;
    std::wstring failCall;

    // For the objects that work on the fake: records the call, and fails it when it is its turn.
    void enter(std::wstring_view call, const std::wstring& account, const std::wstring& value = {});

private:
    UserManagement::UserInformation::Provider oldInformation_;
    UserManagement::Factory::Provider oldFactory_;
};

// What a failed comparison shows.
std::ostream& operator<<(std::ostream& out, const AccountFake::State& state);
