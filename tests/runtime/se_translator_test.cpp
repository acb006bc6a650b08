#include "runtime/cwrpexception.h"
#include "runtime/se_translator.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

// A resource whose release shows that destructors ran on the way out of a fault.
struct Guard {
    explicit Guard(int& counter) : counter_(counter) { ++counter_; }
    ~Guard() { --counter_; }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    int& counter_;
};

template <class T>
__attribute__((noinline)) T hidden(T value) { // from the optimiser
    asm volatile("" : "+r"(value));
    return value;
}

__attribute__((noinline)) int leafRead(const int* p) {
    return *p;
}

// A leaf has no unwind data at all when it is written in assembly.
extern "C" int zopTestBareLeaf(const int* p);
asm(".text\n.globl zopTestBareLeaf\nzopTestBareLeaf:\n mov (%rcx), %eax\n ret\n");

template <class Fault>
__attribute__((noinline)) void withGuards(int& alive, Fault fault) {
    const Guard outer(alive);
    const std::string text(100, 'x'); // owns heap memory
    {
        const Guard inner(alive);
        fault();
    }
    ADD_FAILURE() << "went on after the fault " << text.size();
}

template <class Fault>
void expectTranslated(std::uint32_t code, Fault fault) {
    int alive = 0;
    const SeTranslatorLocal translator;
    try {
        withGuards(alive, fault);
    } catch (const cwrpexception& e) {
        EXPECT_EQ(code, e.get_ErrorCode());
        EXPECT_EQ(0, alive) << "a destructor did not run";
        return;
    }
    ADD_FAILURE() << "not translated";
}

} // namespace

TEST(SeTranslatorTest, AccessViolationsBecomeExceptions) {
    expectTranslated(EXCEPTION_ACCESS_VIOLATION, [] { *hidden<volatile int*>(nullptr) = 1; });
    expectTranslated(EXCEPTION_ACCESS_VIOLATION, [] { (void)*hidden<volatile int*>(nullptr); });
    expectTranslated(EXCEPTION_ACCESS_VIOLATION,
                     [] { (void)*hidden(reinterpret_cast<volatile int*>(0x8000000000000000)); });
    expectTranslated(EXCEPTION_ACCESS_VIOLATION, [] { hidden(leafRead(hidden<int*>(nullptr))); });
    expectTranslated(EXCEPTION_ACCESS_VIOLATION, [] { zopTestBareLeaf(hidden<int*>(nullptr)); });
}

TEST(SeTranslatorTest, CallsToNowhereBecomeExceptions) {
    expectTranslated(EXCEPTION_ACCESS_VIOLATION, [] { hidden<void (*)()>(nullptr)(); });
    static int data[4] = {};
    expectTranslated(EXCEPTION_ACCESS_VIOLATION,
                     [] { hidden(reinterpret_cast<void (*)()>(&data))(); });
}

TEST(SeTranslatorTest, DivisionByZeroBecomesAnException) {
    expectTranslated(EXCEPTION_INT_DIVIDE_BY_ZERO, [] { hidden(hidden(7) / hidden(0)); });
}

TEST(SeTranslatorTest, FaultsInSystemLibrariesBecomeExceptions) {
    expectTranslated(EXCEPTION_ACCESS_VIOLATION, [] {
        auto* length = reinterpret_cast<std::size_t (*)(const wchar_t*)>(
            reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"msvcrt.dll"), "wcslen")));
        hidden(length(hidden(reinterpret_cast<const wchar_t*>(16))));
    });
}

TEST(SeTranslatorTest, RaisedExceptionsAreTranslatedContinuableOrNot) {
    expectTranslated(0xE0001234, [] { ::RaiseException(0xE0001234, 0, 0, nullptr); });
    expectTranslated(0xE0001234,
                     [] { ::RaiseException(0xE0001234, EXCEPTION_NONCONTINUABLE, 0, nullptr); });
}

TEST(SeTranslatorTest, TheSameThreadCanFaultAgainAndAgain) {
    for (int i = 0; i < 1000; ++i) {
        expectTranslated(EXCEPTION_ACCESS_VIOLATION, [] { *hidden<volatile int*>(nullptr) = 1; });
    }
}
