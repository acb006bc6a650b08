// The error that callers of the database classes see; also caught as the Exception of all classes.
#pragma once

#include "api/exception.h"

namespace zopobsolete {

class ZOP_API ZOPDatabaseException : public Exception {
public:
    ZOPDatabaseException() noexcept; // "Unexpected error"
    explicit ZOPDatabaseException(const std::wstring& message);
    ZOPDatabaseException(const ZOPDatabaseException&) noexcept;
    ZOPDatabaseException& operator=(const ZOPDatabaseException&) noexcept;
    ~ZOPDatabaseException() override;
};

} // namespace zopobsolete
