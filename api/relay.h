// Runs the listeners of a public object from inside a native operation:
//
//     relay("zopobsolete::DataLocationProxy::errorEvent_Handler", __LINE__,
//           [&] { owner.ErrorEvent.raise(error); });
//
// They run in a span of their own. What one of them does wrong fails the operation like any other
// error: as a vexception with its text, whatever it threw.
#pragma once

#include "runtime/exception.h"
#include "runtime/native_span.h"

#include <cstdint>

namespace zopobsolete {

// Only while an exception is handled: throws it on as one of ours, with the frame added.
[[noreturn]] void rethrowAsNative(const vexception::CallStackInfo& frame);

// name  the qualified name of the handler, a literal
template <class Raise>
void relay(const char* name, std::int32_t line, Raise&& raise) {
    const NativeSpan span(name, line);
    try {
        raise();
    } catch (...) {
        rethrowAsNative({L"", name, line});
    }
}

} // namespace zopobsolete
