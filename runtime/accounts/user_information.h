// Where the accounts of hostings live, and how their names are read. On most servers they are local
// ones; where the configuration value "active_directory_mode" is not 0 they are in the domain.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace UserManagement {

// The place where the accounts live. An object is used by one thread at a time.
class IUserInformation {
public:
    virtual ~IUserInformation() = default;

    // The server that account calls go to: of the domain, a writable controller, without
    // backslashes in front. Empty for local accounts, as those calls take it for this computer.
    // Throws vosexception "Unable to find a domain controller".
    virtual std::wstring getDomainServerName() = 0;

    // Names may come with a domain, which is left out. Throw vosexception when the system cannot
    // tell.
    virtual bool userExists(const std::wstring& name) = 0;
    virtual bool groupExists(const std::wstring& name) = 0;
};

// Functions may be called from any thread.
class UserInformation {
public:
    // By "active_directory_mode", which is read each time; an absent one is 0. Throws vosexception
    // when it cannot be read, rather than to take accounts of a domain for local ones.
    static std::unique_ptr<IUserInformation> createInstance();

    // "DOMAIN\user" and "user@domain" without their domain; a name without one as it is. Account
    // names have neither backslash nor "@" in them, so what follows the last backslash is the name
    // ("\user", "a\b\user"), and only where there is none, what precedes the last "@". Where that
    // leaves nothing ("DOMAIN\", "@domain") the text comes back unchanged.
    static std::wstring getNameWithoutDomain(const std::wstring& name);

    // What createInstance() makes from now on, so that a test needs no domain; empty for the real
    // ones. Returns what was there before.
    using Provider = std::function<std::unique_ptr<IUserInformation>()>;
    static Provider replaceProvider(Provider provider);
};

} // namespace UserManagement
