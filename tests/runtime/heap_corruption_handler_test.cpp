#include "runtime/heap_corruption_handler.h"

#include "tests/support/registry_override.h"

#include <filesystem>
#include <fstream>
#include <regex>

namespace {

constexpr DWORD heapCorruption = 0xC0000374;
constexpr DWORD otherCode = 0xE0000001;

class HeapCorruptionHandlerTest : public testing::Test {
protected:
    HeapCorruptionHandlerTest() {
        wchar_t temp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, temp);
        folder_ = std::wstring(temp) + L"zop_dumps_" + std::to_wstring(::GetCurrentProcessId());
        ::CreateDirectoryW(folder_.c_str(), nullptr);
    }
    ~HeapCorruptionHandlerTest() override {
        for (const std::wstring& name : dumps()) {
            ::DeleteFileW((folder_ + L"\\" + name).c_str());
        }
        ::RemoveDirectoryW(folder_.c_str());
    }

    std::vector<std::wstring> dumps() const {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW data;
        const RunTime::AutoFindHandle find(::FindFirstFileW((folder_ + L"\\*").c_str(), &data));
        for (BOOL more = find ? TRUE : FALSE; more; more = ::FindNextFileW(find.get(), &data)) {
            if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
                names.emplace_back(data.cFileName);
            }
        }
        return names;
    }

    RegistryOverride registry_;
    std::wstring folder_;
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
    RegistryOverride::setString(L"CrashDumpDirectory", folder_);
    const HeapCorruptionHandler handler(true);
    const Survivor survivor;
    ::RaiseException(otherCode, 0, 0, nullptr);
    EXPECT_TRUE(dumps().empty());

    SYSTEMTIME before;
    ::GetLocalTime(&before);
    ::RaiseException(heapCorruption, 0, 0, nullptr);
    const std::vector<std::wstring> names = dumps();
    ASSERT_EQ(1u, names.size());
    EXPECT_TRUE(std::regex_match(names[0], std::wregex(LR"(zopnative_\d+_\d{8}_\d{6}\.dmp)")));
    EXPECT_NE(std::wstring::npos, names[0].find(L"_" + std::to_wstring(before.wYear)));
    std::ifstream file(std::filesystem::path(folder_ + L"\\" + names[0]), std::ios::binary);
    char signature[5] = {};
    file.read(signature, 4);
    EXPECT_STREQ("MDMP", signature);
}

TEST_F(HeapCorruptionHandlerTest, NothingIsWrittenUnlessItIsEnabledTwice) {
    const Survivor survivor;
    {
        const HeapCorruptionHandler handler(true);
        ::RaiseException(heapCorruption, 0, 0, nullptr); // no directory named
        RegistryOverride::setString(L"CrashDumpDirectory", folder_ + L"\\missing");
        ::RaiseException(heapCorruption, 0, 0, nullptr);
    }
    RegistryOverride::setString(L"CrashDumpDirectory", folder_);
    ::RaiseException(heapCorruption, 0, 0, nullptr); // unregistered
    const HeapCorruptionHandler off(false);
    ::RaiseException(heapCorruption, 0, 0, nullptr);
    EXPECT_TRUE(dumps().empty());
}

TEST_F(HeapCorruptionHandlerTest, ProcessStillEnds) {
    EXPECT_EXIT(
        {
            const HeapCorruptionHandler handler(true);
            ::RaiseException(heapCorruption, EXCEPTION_NONCONTINUABLE, 0, nullptr);
        },
        testing::ExitedWithCode(static_cast<int>(heapCorruption)), "");
}
