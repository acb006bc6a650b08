// How the importer of a policy finds accounts by their names.
#pragma once

#include "security/sid.h"

#include <string>
#include <utility>

namespace DiskSecurity {

class AccountLookup {
public:
    virtual ~AccountLookup() = default;
    // domain may be empty. Throws VNoneMappedException when there is no such account.
    virtual RunTime::Sid lookup(const std::wstring& account, const std::wstring& domain) = 0;
};

// Asks the system: users, groups and well-known accounts, of this machine, of its domain and of
// those that it trusts. "Unable to look up the account (%s)".
class SystemAccountLookup : public AccountLookup {
public:
    // server     whose accounts are found first, such as a domain's controller; empty for this
    //            machine
    // usersOnly  finds no group
    explicit SystemAccountLookup(std::wstring server = {}, bool usersOnly = false)
        : server_(std::move(server)), usersOnly_(usersOnly) {}
    RunTime::Sid lookup(const std::wstring& account, const std::wstring& domain) override;

private:
    std::wstring server_;
    bool usersOnly_;
};

} // namespace DiskSecurity
