#include "api/zop_database_parameters.h"

#include "api/call_frame.h"
#include "api/zop_database_exception.h"
#include "api/zop_database_parameters_native.h"

#include <algorithm>

namespace zopobsolete {

ZOPDatabaseParameters::ZOPDatabaseParameters()
    : native_(std::make_unique<Native>(VMySQLDatabase::Parameters())) {}

ZOPDatabaseParameters ZOPDatabaseParameters::fromConfiguration() {
    return callFrame<ZOPDatabaseException>(
        {"zopobsolete::ZOPDatabaseParameters::fromConfiguration", __LINE__, __LINE__ + 1}, [] {
            ZOPDatabaseParameters result;
            result.native_ = std::make_unique<Native>(VMySQLDatabase::configuredParameters());
            return result;
        });
}

ZOPDatabaseParameters::ZOPDatabaseParameters(const ZOPDatabaseParameters& other)
    : native_(std::make_unique<Native>(*other.native_)) {}

ZOPDatabaseParameters& ZOPDatabaseParameters::operator=(const ZOPDatabaseParameters& other) {
    native_ = std::make_unique<Native>(*other.native_);
    return *this;
}

ZOPDatabaseParameters::~ZOPDatabaseParameters() = default;

std::wstring ZOPDatabaseParameters::getHost() const {
    return native_->value.host;
}

void ZOPDatabaseParameters::setHost(const std::wstring& host) {
    native_->value.host = host;
}

std::uint16_t ZOPDatabaseParameters::getPort() const {
    return native_->value.port;
}

void ZOPDatabaseParameters::setPort(std::uint16_t port) {
    native_->value.port = port;
}

std::wstring ZOPDatabaseParameters::getLogin() const {
    return native_->value.user;
}

void ZOPDatabaseParameters::setLogin(const std::wstring& login) {
    native_->value.user = login;
}

std::wstring ZOPDatabaseParameters::getPassword() const {
    return native_->value.password;
}

void ZOPDatabaseParameters::setPassword(const std::wstring& password) {
    RunTime::wipe(native_->value.password); // a longer one would leave it behind
    native_->value.password = password;
}

std::wstring ZOPDatabaseParameters::getDatabase() const {
    return native_->value.database;
}

void ZOPDatabaseParameters::setDatabase(const std::wstring& database) {
    native_->value.database = database;
}

std::uint32_t ZOPDatabaseParameters::getConnectTimeout() const {
    return static_cast<std::uint32_t>(native_->value.connectTimeout.count());
}

void ZOPDatabaseParameters::setConnectTimeout(std::uint32_t seconds) {
    native_->value.connectTimeout = std::chrono::seconds(std::min(seconds, 3600U));
}

} // namespace zopobsolete
