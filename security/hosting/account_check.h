// The Windows accounts and groups that a hosting needs: makes what is missing, from what the
// panel's database knows, and puts accounts into their groups. Done before permissions are written,
// which name the accounts.
//
//     HostingSecurity::AccountCheck check(UserManagement::UserInformation::createInstance());
//     const Hook warnings = check.warningEvent.hook([](const std::wstring& text) { ... });
//     check.checkDomainUser(L"d1", HostingSecurity::HostingKind::Domain);
//     check.checkFtpSubaccounts(L"ftp_subaccounts");
//
// A step that fails throws and leaves done what was done before. One thread at a time; each step is
// a cancellation point.
#pragma once

#include "runtime/accounts/factory.h"
#include "runtime/database/zop_database.h"
#include "runtime/event.h"
#include "security/hosting/security_manager.h"

#include <memory>
#include <optional>
#include <string>

namespace HostingSecurity {

class AccountCheck {
public:
    enum class Mode {
        Repair,
        Report, // changes nothing
    };

    explicit AccountCheck(std::shared_ptr<UserManagement::IUserInformation> information,
                          Mode mode = Mode::Repair);

    // What is missing, in words. Raised before it is made.
    Event<const std::wstring&> warningEvent;

    // The account of a domain or of a web user. Made with the password that the database has; in
    // "zopcln" afterwards, and without log-on by remote desktop. Throws vexception when the
    // database does not know the user, and for an account that is an administrator's: groups and
    // log-on of that one are left alone.
    void checkDomainUser(const std::wstring& user, HostingKind kind);
    // The account of an IIS application pool. Made with the password of the domain's user;
    // otherwise as above.
    void checkPoolUser(const std::wstring& user, const std::wstring& poolUser);
    // The group of FTP sub-accounts.
    void checkFtpSubaccounts(const std::wstring& groupName);

    // The application pool's account, by the database.
    std::wstring getAppPoolUser(const std::wstring& domain);
    // The same where the database knows it and the account is there; empty otherwise.
    std::wstring findPoolUser(const std::wstring& domain);

    // Whether every account looked for was there or has been made.
    bool isComplete() const noexcept { return complete_; }

private:
    bool reports() const noexcept { return mode_ == Mode::Report; }
    ZOPDatabase& database();
    void finishAccount(const std::wstring& user, bool isThere);

    std::shared_ptr<UserManagement::IUserInformation> information_;
    std::shared_ptr<UserManagement::IFactory> factory_;
    std::optional<ZOPDatabase> database_; // connected when it is first asked
    Mode mode_;
    bool complete_ = true;
};

} // namespace HostingSecurity
