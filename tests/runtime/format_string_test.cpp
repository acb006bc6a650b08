#include "runtime/format_string.h"

#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"

namespace {

// Failures of the two calls, each with the frame it is reported with.
void expectFailure(const std::wstring& message, const std::string& function, int line,
                   const wchar_t* format) {
    try {
        formatString(format, 1);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const ArgumentException& e) {
        EXPECT_EQ(message, e.message());
        ASSERT_EQ(1u, e.frames().size());
        EXPECT_EQ(L"", e.frames().front().text);
        EXPECT_EQ(function, e.frames().front().function);
        EXPECT_EQ(line, e.frames().front().line);
    }
}

} // namespace

TEST(FormatStringTest, StringsAreWideAndAnyLengthFits) {
    const std::wstring path(40000, L'\u4e2d');
    EXPECT_EQ(L"<" + path + L"|-7|4294967295|0xc0000005|narrow>",
              formatString(L"<%s|%d|%lu|0x%x|%hs>", path.c_str(), -7, 4294967295ul, 0xC0000005u,
                           "narrow"));
    EXPECT_EQ(L"9223372036854775807", formatString(L"%lld", 9223372036854775807ll));
    EXPECT_EQ(L"", formatString(L"%s", L""));
    EXPECT_EQ(L"20260102_030405.dmp",
              formatString(L"%04d%02d%02d_%02d%02d%02d.dmp", 2026, 1, 2, 3, 4, 5));
}

TEST(FormatStringTest, FailuresBecomeArgumentExceptions) {
    const std::wstring measuring = L"_scwprintf() failed: invalid arguments";
    expectFailure(measuring, "getFormatStringSize", 601, nullptr);
    {
        FaultPoint fault("_vscwprintf");
        fault.result = static_cast<std::uintptr_t>(-1);
        fault.failAt = 0;
        expectFailure(measuring, "getFormatStringSize", 601, L"%d");
    }
    FaultPoint fault("_vsnwprintf");
    fault.result = static_cast<std::uintptr_t>(-1);
    fault.failAt = 0;
    expectFailure(L"swprintf() failed: invalid arguments", "formatString", 623, L"%d");
}
