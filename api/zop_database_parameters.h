// Where a database is and who asks for it.
//
//     auto parameters = zopobsolete::ZOPDatabaseParameters::fromConfiguration();
//     parameters.setDatabase(L"panel_copy");
//     zopobsolete::ZOPMySQLDatabase database(parameters);
//
// A plain value of one thread. The object wipes its copy of the password; what a getter gives is
// the caller's.
#pragma once

#include "runtime/export.h"

#include <cstdint>
#include <memory>
#include <string>

namespace zopobsolete {

class ZOP_API ZOPDatabaseParameters {
public:
    // localhost, 3306, no login, no password, no database, the configured time-out.
    ZOPDatabaseParameters();
    // The panel's own database. Throws ZOPDatabaseException when the configuration cannot be read.
    static ZOPDatabaseParameters fromConfiguration();

    ZOPDatabaseParameters(const ZOPDatabaseParameters& other);
    ZOPDatabaseParameters& operator=(const ZOPDatabaseParameters& other);
    ~ZOPDatabaseParameters();

    std::wstring getHost() const;
    void setHost(const std::wstring& host);
    std::uint16_t getPort() const;
    void setPort(std::uint16_t port);
    std::wstring getLogin() const;
    void setLogin(const std::wstring& login);
    std::wstring getPassword() const;
    void setPassword(const std::wstring& password);
    std::wstring getDatabase() const; // empty: none is chosen
    void setDatabase(const std::wstring& database);
    // In seconds, for all of opening a connection; 0: the value "MySQLConnectionTimeout".
    std::uint32_t getConnectTimeout() const;
    void setConnectTimeout(std::uint32_t seconds);

private:
    friend class ZOPMySQLDatabase;
    struct Native;

    std::unique_ptr<Native> native_;
};

} // namespace zopobsolete
