// The error that callers of the public classes see. Whatever goes wrong inside, exactly one of
// these comes out.
#pragma once

#include "runtime/export.h"

#include <exception>
#include <memory>
#include <string>

namespace zopobsolete {

// Carries one text: what failed and why, followed by a line for each place the failure passed,
// the public method last. An immutable value: copies share the text and never throw.
class ZOP_API Exception : public std::exception {
public:
    // "Unexpected error": for a failure that could not even be described.
    Exception() noexcept;
    explicit Exception(const std::wstring& message);
    Exception(const Exception&) noexcept;
    Exception& operator=(const Exception&) noexcept;
    ~Exception() override;

    const std::wstring& message() const noexcept;

    // The same text in UTF-8.
    const char* what() const noexcept override;

private:
    struct Text;
    std::shared_ptr<const Text> text_;
};

} // namespace zopobsolete
