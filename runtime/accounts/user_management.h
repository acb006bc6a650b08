// Users and groups of Windows, as hostings have them: local ones, or those of the domain where the
// configuration says so (runtime/accounts/user_information.h).
//
//     const std::shared_ptr<UserManagement::IUserInformation> information =
//         UserManagement::UserInformation::createInstance();
//     const auto factory = UserManagement::Factory::createInstance(information);
//     if (!information->userExists(login)) {
//         UserManagement::NewUser user;
//         user.name = login;
//         user.password = password;
//         factory->createUser(user);
//     }
//     factory->getGroup(L"ftp_subaccounts")->addMember(login);
//
// Names may come with a domain ("DOMAIN\user", "user@domain"), which is left out. Every change
// takes effect at once. Failures are thrown as vosexception and its subclasses, whose messages have
// the account's name and never a password. Objects are used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>
#include <windows.h>

namespace UserManagement {

class IUserInformation;

// A new account. The password is wiped when the object goes.
struct NewUser {
    std::wstring name;
    std::wstring password;
    std::wstring fullName;
    std::wstring comment;     // the account's own comment
    std::wstring description; // what lists of accounts show

    NewUser() = default;
    NewUser(const NewUser&) = delete;
    NewUser& operator=(const NewUser&) = delete;
    ~NewUser();
};

class IUser {
public:
    virtual ~IUser() = default;

    virtual const std::wstring& getName() const noexcept = 0; // without domain

    virtual void setPassword(const std::wstring& password) = 0;
    virtual std::wstring getFullName() = 0;
    virtual void setFullName(const std::wstring& fullName) = 0;
    virtual std::wstring getComment() = 0;
    virtual void setComment(const std::wstring& comment) = 0;
    virtual std::wstring getDescription() = 0;
    virtual void setDescription(const std::wstring& description) = 0;
    virtual std::wstring getHomeDirectory() = 0;
    // The path of the home directory, empty for none. Nothing is created or moved on disk.
    virtual void setHomeDirectory(const std::wstring& home) = 0;

    virtual bool getFlagPasswordNeverExpires() = 0;
    virtual void setFlagPasswordNeverExpires(bool set) = 0;
    virtual bool getFlagCannotChangePassword() = 0;
    virtual void setFlagCannotChangePassword(bool set) = 0;
    // Whether the account has an administrator's rights on the server that keeps it.
    virtual bool isAdministrator() = 0;
    virtual bool isEnabled() = 0;
    virtual void enable(bool enabled) = 0;
    // Whether the account may log on by remote desktop: 0 for no, any other number for yes.
    virtual void allowUserRDPLogon(DWORD allow) = 0;

    // Bytes that the account's files may take on the volume that holds path; none without a limit.
    virtual std::optional<std::uint64_t> getQuota(const std::wstring& path) = 0;
    virtual void setQuota(const std::wstring& path, std::uint64_t bytes) = 0;
    // Takes the account's limit on that volume away. One that there is not is no error.
    virtual void removeQuota(const std::wstring& path) = 0;
};

class IGroup {
public:
    virtual ~IGroup() = default;

    virtual const std::wstring& getName() const noexcept = 0;
    virtual std::wstring getComment() = 0;
    virtual void setComment(const std::wstring& comment) = 0;
    // Users that are members, without domain, in the system's order.
    virtual std::vector<std::wstring> getMembers() = 0;
    // A user that is a member already, or is none any more, is no error.
    virtual void addMember(const std::wstring& user) = 0;
    virtual void removeMember(const std::wstring& user) = 0;
};

class IFactory {
public:
    virtual ~IFactory() = default;

    // The password does not expire. Throws where the account exists already, and where the system
    // refuses the password; no account is left behind by a failure.
    virtual std::shared_ptr<IUser> createUser(const NewUser& user) = 0;
    // Throws where there is no such account or group.
    virtual std::shared_ptr<IUser> getUser(const std::wstring& name) = 0;
    virtual void deleteUser(const std::wstring& name) = 0;
    virtual std::shared_ptr<IGroup> createGroup(const std::wstring& name,
                                                const std::wstring& comment) = 0;
    virtual std::shared_ptr<IGroup> getGroup(const std::wstring& name) = 0;
    virtual void deleteGroup(const std::wstring& name) = 0;
};

} // namespace UserManagement
