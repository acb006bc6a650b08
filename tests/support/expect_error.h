// Checks that a call fails with exactly the error it should. A failure points at the caller's line.
#pragma once

#include "runtime/exception.h"
#include "runtime/text.h"

#include <gtest/gtest.h>
#include <source_location>
#include <string>
#include <type_traits>
#include <typeinfo>

// The system's text for a code as Windows has it, line ends removed: tests compare with this,
// since the wording differs between systems.
inline std::wstring systemTextOf(DWORD code) {
    wchar_t text[1024];
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code,
                         MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), text, 1024, nullptr);
    std::wstring result(text, length);
    result.erase(result.find_last_not_of(L"\r\n") + 1);
    return result;
}

// The message of a vosexception.
inline std::wstring systemMessageOf(DWORD code, const std::wstring& detail) {
    return systemTextOf(code) + L" (Error code " + std::to_wstring(code) + L") at " + detail;
}

// fn must throw exactly Class (not a subclass) with this message.
template <class Class, class Function>
void expectError(const std::wstring& text, Function&& fn,
                 std::source_location location = std::source_location::current()) {
    const ::testing::ScopedTrace trace(location.file_name(), static_cast<int>(location.line()),
                                       "expected this error");
    try {
        fn();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const vexception& e) {
        EXPECT_STREQ(typeid(Class).name(), typeid(e).name());
        EXPECT_EQ(toUtf8(text), toUtf8(e.message()));
    }
}

// The same for a vosexception with this code and this detail, thrown with the site of its failure.
template <class Class, class Function>
void expectError(DWORD code, const std::wstring& text, Function&& fn,
                 std::source_location location = std::source_location::current()) {
    static_assert(std::is_base_of_v<vosexception, Class>, "a code needs a vosexception");
    const auto watched = [&] {
        try {
            fn();
        } catch (const vosexception& e) {
            EXPECT_EQ(code, e.get_errorCode());
            EXPECT_FALSE(e.frames().empty()) << "the failing site is not recorded";
            throw;
        }
    };
    expectError<Class>(systemMessageOf(code, text), watched, location);
}
