// A structured exception (access violation, division by zero, ...) as a C++ value. Thrown where a
// SeTranslatorLocal scope asks for it; stands apart from vexception.
#pragma once

#include "runtime/format_string.h"

#include <cstdint>
#include <string>

class cwrpexception {
public:
    explicit cwrpexception(std::uint32_t code) noexcept : code_(code) {}

    std::uint32_t get_ErrorCode() const noexcept { return code_; }

    // The code in lower-case hexadecimal, such as 0xc0000005 for an access violation.
    std::wstring get_ErrorMessage() const {
        return formatString(L"C structured exception: 0x%x", code_);
    }

private:
    std::uint32_t code_;
};
