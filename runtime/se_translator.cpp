#include "runtime/se_translator.h"

#include "runtime/cwrpexception.h"

#include <cfloat>
#include <cstddef>
#include <exception>

#ifdef _MSC_VER
#include <eh.h>
#endif

namespace {

// A slot of the system, not thread_local: it is read inside exception dispatch, also on threads
// that never had a scope, where the compiler's emulation would have to allocate.
DWORD currentSlot() noexcept {
    static const DWORD slot = ::TlsAlloc();
    return slot;
}
const DWORD slotOfCurrent = currentSlot();

SeTranslatorLocal* currentScope() noexcept {
    const DWORD code = ::GetLastError(); // TlsGetValue clears it, the faulting code may want it
    auto* scope = static_cast<SeTranslatorLocal*>(::TlsGetValue(slotOfCurrent));
    ::SetLastError(code);
    return scope;
}

bool isFloatingPoint(DWORD code) noexcept {
    return (code >= EXCEPTION_FLT_DENORMAL_OPERAND && code <= EXCEPTION_FLT_UNDERFLOW) ||
           code == 0xC00002B4 || code == 0xC00002B5; // STATUS_FLOAT_MULTIPLE_FAULTS, _TRAPS
}

// Not ours to turn into C++ exceptions.
bool isLeftAlone(DWORD code) noexcept {
    switch (code) {
    case 0xE06D7363: // C++ of MSVC
    case 0xE0434352: // the .NET runtime, now and
    case 0xE0434F4D: // before version 4
    case 0x20474343: // GCC: throw,
    case 0x21474343: // unwind,
    case 0x22474343: // forced unwind
    case 0x406D1388: // names a thread
    case EXCEPTION_BREAKPOINT:
    case EXCEPTION_SINGLE_STEP:
    case 0x4000001E: // the same two inside WOW64
    case 0x4000001F:
    case EXCEPTION_STACK_OVERFLOW: // no stack to throw on
    case 0xC0000374:               // heap corruption: whatever ran next would make it worse
    case 0xC0000409:               // stack cookie, fast fail
        return true;
    default:
        return (code & 0xFFFF0000) == 0x40010000; // a debugger's: output, Ctrl+C and the like
    }
}

} // namespace

void SeTranslatorLocal::throwCwrpexception(std::uint32_t code, const EXCEPTION_RECORD&) {
    throw cwrpexception(code);
}

struct SeDispatch {
    // Runs the translator of the scope, in place of the instruction that faulted.
    [[noreturn]] static void run(SeTranslatorLocal* scope) {
        const EXCEPTION_RECORD record = scope->record_;
        if (isFloatingPoint(record.ExceptionCode)) {
            ::_clearfp(); // or the next x87 instruction would fault again
        }
        scope->translator_(record.ExceptionCode, record);
        std::terminate(); // the fault has been consumed: there is no way back
    }

#ifdef _MSC_VER
    static void __cdecl translate(unsigned int code, EXCEPTION_POINTERS* pointers) {
        SeTranslatorLocal* scope = currentScope();
        if (scope != nullptr && scope->translator_ != nullptr && !isLeftAlone(code)) {
            scope->record_ = *pointers->ExceptionRecord;
            run(scope);
        }
    }
#else
    static bool redirect(const EXCEPTION_RECORD& record, CONTEXT& context) noexcept;
#endif
};

SeTranslatorLocal::SeTranslatorLocal(Translator translator) noexcept
    : translator_(translator), outer_(currentScope()) {
    ::TlsSetValue(currentSlot(), this);
#ifdef _MSC_VER
    outerSystemTranslator_ = reinterpret_cast<void*>(::_set_se_translator(&SeDispatch::translate));
#endif
}

SeTranslatorLocal::~SeTranslatorLocal() {
    ::TlsSetValue(currentSlot(), outer_);
#ifdef _MSC_VER
    ::_set_se_translator(reinterpret_cast<_se_translator_function>(outerSystemTranslator_));
#endif
}

#ifndef _MSC_VER

extern "C" {
// Where a faulting thread goes on, with the scope in rcx: to "faulted" with the address to report
// in r11, or to "called" where the stack already ends in a return address.
void zopSeTranslateFaulted();
void zopSeTranslateCalled();

[[noreturn]] void zopSeTranslate(SeTranslatorLocal* scope) {
    SeDispatch::run(scope);
}

EXCEPTION_DISPOSITION __real___gxx_personality_seh0(PEXCEPTION_RECORD, void*, PCONTEXT,
                                                    PDISPATCHER_CONTEXT);
EXCEPTION_DISPOSITION __wrap___gxx_personality_seh0(PEXCEPTION_RECORD record, void* frame,
                                                    PCONTEXT context,
                                                    PDISPATCHER_CONTEXT dispatcher) {
    constexpr DWORD unwinding = 0x02 | 0x04 | 0x20 | 0x40; // also: exit, target, collided
    if ((record->ExceptionFlags & unwinding) == 0 && !isLeftAlone(record->ExceptionCode) &&
        SeDispatch::redirect(*record, *context)) {
        if ((record->ExceptionFlags & EXCEPTION_NONCONTINUABLE) != 0) {
            ::RtlRestoreContext(context, nullptr); // returning would be refused
        }
        return ExceptionContinueExecution;
    }
    return __real___gxx_personality_seh0(record, frame, context, dispatcher);
}
}

// The frame that seems to have been called from the faulting instruction. Its stack pointer may
// have been anything, hence rbp. The call of a function that never returns needs something
// after it, or its return address would belong to the next function.
asm(R"(
    .text
    .globl zopSeTranslateFaulted
zopSeTranslateFaulted:
    push %r11
    jmp zopSeTranslateCalled

    .globl zopSeTranslateCalled
    .def zopSeTranslateCalled; .scl 2; .type 32; .endef
    .seh_proc zopSeTranslateCalled
zopSeTranslateCalled:
    push %rbp
    .seh_pushreg %rbp
    mov %rsp, %rbp
    .seh_setframe %rbp, 0
    .seh_endprologue
    and $-16, %rsp
    sub $32, %rsp
    call zopSeTranslate
    ud2
    .seh_endproc
)");

bool SeDispatch::redirect(const EXCEPTION_RECORD& record, CONTEXT& context) noexcept {
    SeTranslatorLocal* scope = currentScope();
    if (scope == nullptr || scope->translator_ == nullptr) {
        return false;
    }
    ULONG_PTR low = 0;
    ULONG_PTR high = 0;
    ::GetCurrentThreadStackLimits(&low, &high);
    if (context.Rsp % 8 != 0 || context.Rsp <= low || context.Rsp >= high) {
        return false; // a wild stack pointer: nothing can be thrown from there
    }
    scope->record_ = record;
    context.Rcx = reinterpret_cast<DWORD64>(scope);
    const bool jumpedAstray = record.ExceptionCode == EXCEPTION_ACCESS_VIOLATION &&
                              record.NumberParameters >= 2 && record.ExceptionInformation[0] == 8 &&
                              record.ExceptionInformation[1] == context.Rip;
    if (jumpedAstray) {
        context.Rip = reinterpret_cast<DWORD64>(&zopSeTranslateCalled);
    } else {
        // The unwinder takes one off a return address before it looks for the handlers in force
        // there, since a call may be the last instruction of its range.
        context.R11 = context.Rip + 1;
        context.Rip = reinterpret_cast<DWORD64>(&zopSeTranslateFaulted);
    }
    context.EFlags &= ~0x500u; // direction, trap
    return true;
}

#endif
