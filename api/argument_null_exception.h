// An argument that must be given was null. Nothing has been done then.
#pragma once

#include "api/exception.h"

namespace zopobsolete {

class ArgumentNullException : public Exception {
public:
    // paramName: a literal
    explicit ArgumentNullException(const wchar_t* paramName)
        : Exception(L"Value cannot be null. (Parameter '" + std::wstring(paramName) + L"')"),
          paramName_(paramName) {}

    // The name of the argument.
    const wchar_t* get_ParamName() const noexcept { return paramName_; }

private:
    const wchar_t* paramName_;
};

} // namespace zopobsolete
