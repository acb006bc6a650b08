// Structured exceptions (access violations, divisions by zero, ...) as C++ exceptions:
//
//     SeTranslatorLocal translator;   // this thread, until the end of the block
//     try { *pointer = 0; } catch (const cwrpexception& e) { ... }   // destructors have run
//
// With MSVC this is _set_se_translator, and /EHa. With GCC it is the same thing by our own means:
// our handler stands in front of the C++ one on every C++ frame of the module, so it is asked in
// the order of the frames. Whatever the fault passes first on its way out and handles it (a
// __try of the system, a managed callback's own handler) keeps it; a fault in a system DLL that
// we called comes to us. It needs two things of the build, which come with the
// targets: -fnon-call-exceptions, and the linker's --wrap=__gxx_personality_seh0.
//
// Never translated: threads without a scope; exceptions of other languages; what belongs to a
// debugger; stack overflow, heap corruption and stack cookie failures, which a process must not
// survive. A fault inside a noexcept function, or a destructor, ends the process, like any
// exception that leaves one. So does one in precompiled C++ library code that handles exceptions
// itself (iostreams).
#pragma once

#include <cstdint>
#include <windows.h>

class SeTranslatorLocal {
public:
    // Throws. Runs after the fault, on the faulting thread and on top of its stack.
    using Translator = void (*)(std::uint32_t code, const EXCEPTION_RECORD& record);

    // Throws cwrpexception with the code.
    [[noreturn]] static void throwCwrpexception(std::uint32_t code, const EXCEPTION_RECORD& record);

    // Null turns translation off inside the scope. Scopes nest, and are local variables: each
    // must go before the one that was there when it came.
    explicit SeTranslatorLocal(Translator translator = &throwCwrpexception) noexcept;
    ~SeTranslatorLocal();
    SeTranslatorLocal(const SeTranslatorLocal&) = delete;
    SeTranslatorLocal& operator=(const SeTranslatorLocal&) = delete;
    static void* operator new(std::size_t) = delete;

private:
    friend struct SeDispatch;

    Translator translator_;
    SeTranslatorLocal* outer_;
    EXCEPTION_RECORD record_{}; // the fault being translated
#ifdef _MSC_VER
    void* outerSystemTranslator_;
#endif
};
