// How the importer of a policy finds accounts by their names.
#pragma once

#include "security/sid.h"

#include <string>

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
    RunTime::Sid lookup(const std::wstring& account, const std::wstring& domain) override;
};

} // namespace DiskSecurity
