#include "api/call_frame.h"

#include "runtime/cwrpexception.h"
#include "runtime/exception.h"
#include "runtime/heap_corruption_handler.h"
#include "runtime/se_translator.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "runtime/tracing.h"

#include <comdef.h>

namespace zopobsolete::call_frame {

namespace {

using Span = OpenTracingDriver::ISpanContextProvider;

vexception::CallStackInfo frameOf(const CallSite& site) {
    return {site.text != nullptr ? std::wstring_view(*site.text) : std::wstring_view(),
            site.function, site.catchLine};
}

// Runs the payload; returns the text of what went wrong, empty when nothing did.
std::wstring runPayload(const CallSite& site, const Payload& payload, Span& span) {
    const SeTranslatorLocal translator;
    const ThreadCancelation::CancelationPoint cancellable(true);
    try {
        try {
            ThreadCancelation::check(); // a request that came before the call ends it here
            payload.run(payload.object);
            if (span.isActive()) {
                span.tag("if_error", {});
            }
        } catch (...) {
            span.markError({});
            throw;
        }
    } catch (const std::exception& e) {
        span.tag("std::exception", e.what());
        return vexception(toWide(e.what()), frameOf(site)).what();
    } catch (vexception& e) {
        span.tag("vexception", toUtf8(e.what()));
        e += frameOf(site);
        return e.what();
    } catch (const _com_error& e) {
        const wchar_t* text = e.ErrorMessage();
        const std::wstring message = text != nullptr ? text : L"";
        span.tag("_com_error", toUtf8(message));
        return vexception(message, frameOf(site)).what();
    } catch (const cwrpexception& e) {
        const std::wstring message = e.get_ErrorMessage();
        span.tag("cwrpexception", toUtf8(message));
        return vexception(message, frameOf(site)).what();
    } catch (...) {
        span.tag("...", "unknown");
        return vexception(L"Unexpected error", frameOf(site)).what();
    }
    return {};
}

} // namespace

void run(const CallSite& site, const Payload& payload, ThrowPublic throwPublic) {
    // For the whole process, from its first public call until the library is unloaded. It does
    // nothing unless the heap is found corrupted, and writes nothing unless a place is configured.
    static const HeapCorruptionHandler heapCorruptionHandler(true);
    std::unique_ptr<Span> span;
    std::wstring message;
    bool described = true;
    try {
        span = OpenTracingDriver::StartSpan(site.function, site.line, {});
        message = runPayload(site, payload, *span);
    } catch (...) { // only memory can run out here; even then nothing native may leave the method
        described = false;
    }
    if (!described || !message.empty()) {
        throwPublic(described ? &message : nullptr);
    }
}

} // namespace zopobsolete::call_frame
