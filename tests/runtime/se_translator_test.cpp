#include "runtime/cwrpexception.h"
#include "runtime/se_translator.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
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

// A frame with a handler of its own, as a managed callback or a __try of the system has. It lets
// a raise of foreignCode return.
std::atomic<DWORD> foreignCode = 0;
extern "C" EXCEPTION_DISPOSITION zopTestForeignHandler(PEXCEPTION_RECORD record, void*, PCONTEXT,
                                                       PDISPATCHER_CONTEXT) {
    return record->ExceptionCode == foreignCode ? ExceptionContinueExecution
                                                : ExceptionContinueSearch;
}
extern "C" void zopTestForeignCall(void (*function)());
asm(R"(
    .text
    .globl zopTestForeignCall
    .seh_proc zopTestForeignCall
zopTestForeignCall:
    sub $40, %rsp
    .seh_stackalloc 40
    .seh_endprologue
    .seh_handler zopTestForeignHandler, @except
    call *%rcx
    nop
    add $40, %rsp
    ret
    .seh_endproc
)");

void raiseForeign() {
    ::RaiseException(foreignCode, 0, 0, nullptr);
}

// Whether our frames, in a scope with this translator, let a raise of the code pass outwards.
bool passesBy(DWORD code, SeTranslatorLocal::Translator translator) {
    static SeTranslatorLocal::Translator current;
    static bool passed;
    current = translator;
    foreignCode = code;
    zopTestForeignCall([] {
        const SeTranslatorLocal scope(current);
        try {
            raiseForeign();
            passed = true;
        } catch (const cwrpexception&) {
            passed = false;
        }
    });
    return passed;
}

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

TEST(SeTranslatorTest, FaultsBecomeExceptionsWhereverTheyHappen) {
    constexpr DWORD violation = EXCEPTION_ACCESS_VIOLATION;
    static int data[4] = {};
    expectTranslated(violation, [] { *hidden<volatile int*>(nullptr) = 1; });
    expectTranslated(violation, [] { (void)*hidden<volatile int*>(nullptr); });
    expectTranslated(violation,
                     [] { (void)*hidden(reinterpret_cast<volatile int*>(0x8000000000000000)); });
    expectTranslated(violation, [] { hidden(leafRead(hidden<int*>(nullptr))); });
    expectTranslated(violation, [] { zopTestBareLeaf(hidden<int*>(nullptr)); });
    expectTranslated(violation, [] { hidden<void (*)()>(nullptr)(); });
    expectTranslated(violation, [] { hidden(reinterpret_cast<void (*)()>(&data))(); });
    expectTranslated(violation, [] { // in a library of the system
        auto* length = reinterpret_cast<std::size_t (*)(const wchar_t*)>(
            reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"msvcrt.dll"), "wcslen")));
        hidden(length(hidden(reinterpret_cast<const wchar_t*>(16))));
    });
    expectTranslated(EXCEPTION_INT_DIVIDE_BY_ZERO, [] { hidden(hidden(7) / hidden(0)); });
    for (int i = 0; i < 1000; ++i) { // again and again on one thread
        expectTranslated(0xE0001234, [] { ::RaiseException(0xE0001234, 0, 0, nullptr); });
    }
    expectTranslated(0xE0001234,
                     [] { ::RaiseException(0xE0001234, EXCEPTION_NONCONTINUABLE, 0, nullptr); });
}

TEST(SeTranslatorTest, InnerScopeDecidesAndTheOuterOneComesBack) {
    struct Inner {};
    struct Outer {
        std::uintptr_t address;
    };
    const auto fault = [] { *hidden(reinterpret_cast<volatile int*>(0x40)) = 1; };
    const SeTranslatorLocal outer([](std::uint32_t, const EXCEPTION_RECORD& record) {
        throw Outer{record.ExceptionInformation[1]};
    });
    {
        const SeTranslatorLocal inner(
            [](std::uint32_t, const EXCEPTION_RECORD&) { throw Inner{}; });
        EXPECT_THROW(fault(), Inner);
    }
    try {
        fault();
        ADD_FAILURE() << "not translated";
    } catch (const Outer& e) {
        EXPECT_EQ(0x40u, e.address);
    }
}

TEST(SeTranslatorTest, HandlersOfFramesNearerToTheFaultComeFirst) {
    const SeTranslatorLocal translator;
    foreignCode = 0xE000AAAA;
    zopTestForeignCall(&raiseForeign); // handled there
    EXPECT_THROW(zopTestForeignCall([] { *hidden<volatile int*>(nullptr) = 1; }), cwrpexception);
}

TEST(SeTranslatorTest, CppExceptionsPassAsTheyAre) {
    const SeTranslatorLocal translator;
    EXPECT_THROW(throw std::string("text"), std::string);
    try {
        try {
            *hidden<volatile int*>(nullptr) = 1;
        } catch (const cwrpexception&) {
            throw; // rethrown, and faulting while another exception is being handled
        }
    } catch (...) {
        EXPECT_THROW((*hidden<volatile int*>(nullptr) = 1), cwrpexception);
    }
}

TEST(SeTranslatorTest, WhatIsNotOursGoesOnToTheOuterFrames) {
    constexpr auto translator = &SeTranslatorLocal::throwCwrpexception;
    EXPECT_FALSE(passesBy(0xE0001234, translator));
    EXPECT_TRUE(passesBy(0xE0001234, nullptr)) << "translation is off in that scope";
    for (const DWORD code : {0xE06D7363ul, 0xE0434352ul, 0xC0000374ul, 0xC00000FDul, 0x406D1388ul,
                             0x80000003ul, 0x40010006ul}) {
        EXPECT_TRUE(passesBy(code, translator)) << code;
    }
}

TEST(SeTranslatorTest, OtherThreadsAreLeftAlone) {
    const SeTranslatorLocal translator;
    foreignCode = 0xE000AAAA;
    static bool passed;
    passed = false;
    std::thread([] {
        zopTestForeignCall([] {
            try {
                raiseForeign();
                passed = true;
            } catch (...) {
            }
        });
    }).join();
    EXPECT_TRUE(passed);
}
