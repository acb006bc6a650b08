// What the library asks the panel's database, and what it writes there. docs/database.md has the
// tables.
//
// Record sets, threads and errors are those of the VDatabase behind it (runtime/database/
// database.h). A transaction is begun there, too.
#pragma once

#include "runtime/database/database.h"

#include <memory>
#include <string>
#include <vector>

class ZOPDatabase {
public:
    // An account as the panel stores it. The password is wiped when the object goes.
    struct UserInfo {
        std::wstring login;
        std::wstring password;
        std::wstring home;

        UserInfo() = default;
        UserInfo(const UserInfo&) = default;
        UserInfo& operator=(const UserInfo&) = delete;
        ~UserInfo();
    };

    explicit ZOPDatabase(std::shared_ptr<VDatabase> database);

    // Connects to the panel's database by the parameters that the configuration has. Throws
    // VDatabase::ConnectException, and vexception for a configuration that cannot be read.
    static ZOPDatabase connect();

    VDatabase& database() const noexcept { return *database_; }

    // What the library needs of the database and does not find: "sys_users", "hosting.www_root".
    std::vector<std::wstring> missing();

    // Throws vexception when the panel does not know the account.
    UserInfo getUserInfo(const std::wstring& user);
    // The account under which IIS runs the application pool of a domain. Throws vexception when
    // there is no such domain, or it has no hosting or no pool.
    std::wstring getAppPoolUser(const std::wstring& domain);
    // The FTP accounts that domains have besides their own: login; NULL where an account has gone.
    std::unique_ptr<VRecordSet> enumFtpDomainSubFtpUsers();

    // All accounts: login, home, quota (bytes, an unsigned decimal number; 0: none).
    std::unique_ptr<VRecordSet> enumUsers();
    // All domains: id, name, htype ("none": without hosting).
    std::unique_ptr<VRecordSet> enumDomains();
    // All hostings: dom_id, www_root.
    std::unique_ptr<VRecordSet> enumHostings();

    // Both pass over an account or hosting that there is not.
    void setUserHome(const std::wstring& login, const std::wstring& home);
    void setWwwRoot(const std::wstring& domainId, const std::wstring& root);

    // Makes the panel collect anew what it knows of this server: its configuration and its system.
    void forgetSynchronisation();

private:
    std::shared_ptr<VDatabase> database_;
};
