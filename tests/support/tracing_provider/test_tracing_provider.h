// How a test reads what the recording tracing provider was told, and makes it misbehave.
#pragma once

#include <string>
#include <windows.h>

enum class TestProviderFault : int {
    None,
    NoSpan, // gives no spans
    Crash,  // an access violation in every function but finish
};

using TestTracingProviderTakeFunction = const char*(__cdecl*)();
using TestTracingProviderSetFaultFunction = void(__cdecl*)(TestProviderFault);

inline HMODULE tracingProviderModule() {
    return ::GetModuleHandleW(L"opentracingprovider.dll");
}

// Everything recorded since the last call, one line each: "start NAME LINE [PARENT]",
// "tag NAME KEY [VALUE]", "error NAME [TEXT]", "finish NAME". The provider must be loaded.
inline std::string takeTraces() {
    const auto take = reinterpret_cast<TestTracingProviderTakeFunction>(reinterpret_cast<void*>(
        ::GetProcAddress(tracingProviderModule(), "TestTracingProviderTake")));
    return take();
}

inline void setTracingProviderFault(TestProviderFault fault) {
    const auto set = reinterpret_cast<TestTracingProviderSetFaultFunction>(reinterpret_cast<void*>(
        ::GetProcAddress(tracingProviderModule(), "TestTracingProviderSetFault")));
    set(fault);
}
