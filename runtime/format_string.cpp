#include "runtime/format_string.h"

#include "runtime/exception.h"

#include <cstdio>
#include <cwchar>

namespace {

std::size_t getFormatStringSize(const wchar_t* format, std::va_list arguments) {
    // A null format would reach the runtime's invalid parameter handler, which may end the process.
    const int size = format == nullptr ? -1 : ::_vscwprintf(format, arguments);
    if (size < 0) {
        throw ArgumentException(L"_scwprintf() failed: invalid arguments",
                                {L"", "getFormatStringSize", 601});
    }
    return static_cast<std::size_t>(size);
}

// Ends a copy of an argument list on every way out.
struct ArgumentCopy {
    explicit ArgumentCopy(std::va_list from) { va_copy(list, from); }
    ~ArgumentCopy() { va_end(list); }
    ArgumentCopy(const ArgumentCopy&) = delete;
    ArgumentCopy& operator=(const ArgumentCopy&) = delete;
    std::va_list list{};
};

} // namespace

std::wstring formatString(const wchar_t* format, ...) {
    std::va_list first;
    va_start(first, format);
    ArgumentCopy arguments(first);
    va_end(first);
    return vformatString(format, arguments.list);
}

std::wstring vformatString(const wchar_t* format, std::va_list arguments) {
    ArgumentCopy measured(arguments);
    std::wstring result(getFormatStringSize(format, measured.list), L'\0');
    // _vsnwprintf, not vswprintf: with MinGW vswprintf takes %s for a narrow string and
    // _vscwprintf for a wide one, so a path would be measured whole and printed as its first
    // letter.
    const int printed = ::_vsnwprintf(result.data(), result.size() + 1, format, arguments);
    if (printed < 0 || static_cast<std::size_t>(printed) != result.size()) {
        throw ArgumentException(L"swprintf() failed: invalid arguments",
                                {L"", "formatString", 623});
    }
    return result;
}
