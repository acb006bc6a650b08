#include "runtime/heap_corruption_handler.h"

#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>
#include <regex>

namespace {

constexpr DWORD heapCorruption = 0xC0000374;
constexpr DWORD otherCode = 0xE0000001;

class HeapCorruptionHandlerTest : public testing::Test {
protected:
    RegistryOverride registry_;
    TempDirectory folder_;
};

// The last handler of the chain: lets the raise return, where the process would end otherwise.
LONG CALLBACK goOn(EXCEPTION_POINTERS* exception) {
    const DWORD code = exception->ExceptionRecord->ExceptionCode;
    return code == heapCorruption || code == otherCode ? EXCEPTION_CONTINUE_EXECUTION
                                                       : EXCEPTION_CONTINUE_SEARCH;
}

struct Survivor : VectoredExceptionHandler {
    Survivor() { handle_ = ::AddVectoredExceptionHandler(0, &goOn); }
};

} // namespace

TEST_F(HeapCorruptionHandlerTest, WritesADumpForHeapCorruptionOnly) {
    RegistryOverride::setString(L"CrashDumpDirectory", folder_.nice());
    const HeapCorruptionHandler handler(true);
    const Survivor survivor;
    ::RaiseException(otherCode, 0, 0, nullptr);
    EXPECT_TRUE(folder_.list().empty());

    SYSTEMTIME before;
    ::GetLocalTime(&before);
    ::RaiseException(heapCorruption, 0, 0, nullptr);
    const std::vector<std::wstring> names = folder_.list();
    ASSERT_EQ(1u, names.size());
    EXPECT_TRUE(std::regex_match(names[0], std::wregex(LR"(zopnative_\d+_\d{8}_\d{6}\.dmp)")));
    EXPECT_NE(std::wstring::npos, names[0].find(L"_" + std::to_wstring(before.wYear)));
    EXPECT_EQ("MDMP", folder_.readFile(names[0]).substr(0, 4));
}

TEST_F(HeapCorruptionHandlerTest, NothingIsWrittenUnlessItIsEnabledTwice) {
    const Survivor survivor;
    {
        const HeapCorruptionHandler handler(true);
        ::RaiseException(heapCorruption, 0, 0, nullptr); // no directory named
        RegistryOverride::setString(L"CrashDumpDirectory", folder_.nice() + L"\\missing");
        ::RaiseException(heapCorruption, 0, 0, nullptr);
    }
    RegistryOverride::setString(L"CrashDumpDirectory", folder_.nice());
    ::RaiseException(heapCorruption, 0, 0, nullptr); // unregistered
    const HeapCorruptionHandler off(false);
    ::RaiseException(heapCorruption, 0, 0, nullptr);
    EXPECT_TRUE(folder_.list().empty());
}

TEST_F(HeapCorruptionHandlerTest, ProcessStillEnds) {
    EXPECT_EXIT(
        {
            const HeapCorruptionHandler handler(true);
            ::RaiseException(heapCorruption, EXCEPTION_NONCONTINUABLE, 0, nullptr);
        },
        testing::ExitedWithCode(static_cast<int>(heapCorruption)), "");
}
