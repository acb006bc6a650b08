// What the permissions below the root of a hosting are to be: XML in the vocabulary of the disk
// security policy (docs/hosting-security.md), whose paths begin with "[Root]" and whose accounts
// may be placeholders.
//
//     const HostingTemplate domain = loadDomainSecurity();
//     for (const DiskSecurity::PolicyEntry& entry : domain.expand({.user = L"d1"})) { ... }
//
// A template is text until it is expanded: what its accounts are, only a hosting tells. A value;
// may be read by several threads.
#pragma once

#include "security/disk/account_lookup.h"
#include "security/disk/policy_entry.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace HostingSecurity {

// Which template applies.
enum class HostingKind {
    Forwarding, // a domain without an account of its own
    Domain,
    Webuser,
};

// The accounts that a template names by placeholder. Where one is empty, the entries for it are
// left out.
struct HostingAccounts {
    std::wstring user;
    std::wstring parent;   // the domain's user, for a web user
    std::wstring poolUser; // of the domain's IIS application pool
};

// What EntryFlags of a template say.
namespace entryFlag {
inline constexpr std::uint32_t denies = 1;   // the entry takes the rights away
inline constexpr std::uint32_t protects = 2; // the item inherits nothing from above
// The item and all below it have permissions of their own (another hosting's): left alone. What the
// entry says besides does not count.
inline constexpr std::uint32_t foreign = 4;
inline constexpr std::uint32_t all = 7;
} // namespace entryFlag

class HostingTemplate {
public:
    // Reads and checks. Throw vexception as DiskSecurity::ConfigImporter does.
    static HostingTemplate fromFile(const std::wstring& path);
    static HostingTemplate fromBytes(std::string xml, std::wstring name);

    // As a new file, which may be edited and loaded. "Unable to create file (%s)", "Unable to write
    // file (%s)".
    void save(const std::wstring& path) const;

    const std::wstring& name() const noexcept { return name_; } // of the file, for messages

    // The entries with their accounts found. Entries for an account that is not given, and for a
    // group by placeholder that does not exist, have an empty SID: they name an item, and nobody.
    // Throws VNoneMappedException for any other account that does not exist.
    std::vector<DiskSecurity::PolicyEntry> expand(const HostingAccounts& accounts) const;

private:
    HostingTemplate(std::string xml, std::wstring name)
        : xml_(std::move(xml)), name_(std::move(name)) {}

    std::string xml_;
    std::wstring name_;
};

// The installed template, "etc\HostingSecurity\domain.xml" (webuser.xml, forwarding.xml) below the
// product root; the library's own where there is no such file, or no product root. Throw as
// HostingTemplate::fromFile for a file that is there and is not in order.
HostingTemplate loadDomainSecurity();
HostingTemplate loadWebuserSecurity();
// For a root that is a path and nothing more: a forwarding domain, which has no account.
HostingTemplate loadPathSecurity();
HostingTemplate loadSecurity(HostingKind kind);

// Throws vexception for paths that a template must not have: they begin with "[Root]", and "*"
// stands for a whole name.
void vetTemplatePaths(const std::wstring& path, const std::wstring& subPath);

// What finds accounts from now on, so that a test needs none; empty for the system, which looks
// them up where the panel keeps them (in the domain, in Active Directory mode). Returns what was
// there before. Not while another thread expands.
using LookupProvider = std::function<std::shared_ptr<DiskSecurity::AccountLookup>()>;
LookupProvider replaceAccountLookup(LookupProvider replacement);

} // namespace HostingSecurity
