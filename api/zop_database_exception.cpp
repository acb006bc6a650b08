#include "api/zop_database_exception.h"

namespace zopobsolete {

ZOPDatabaseException::ZOPDatabaseException() noexcept = default;

ZOPDatabaseException::ZOPDatabaseException(const std::wstring& message) : Exception(message) {}

ZOPDatabaseException::ZOPDatabaseException(const ZOPDatabaseException&) noexcept = default;

ZOPDatabaseException&
ZOPDatabaseException::operator=(const ZOPDatabaseException&) noexcept = default;

ZOPDatabaseException::~ZOPDatabaseException() = default;

} // namespace zopobsolete
