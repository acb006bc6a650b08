// The span of a native operation inside a public one:
//
//     const NativeSpan span("RunTime::Directory::remove", __LINE__);
//
// Ends with the block, marked as failed when an exception ends it. Cheap while tracing is off.
#pragma once

#include "runtime/text.h"
#include "runtime/tracing.h"

#include <exception>

class NativeSpan {
public:
    NativeSpan(const char* name, std::int32_t line) noexcept
        : span_(OpenTracingDriver::StartInternalSpan(name, line)) {}
    ~NativeSpan() {
        if (span_ && std::uncaught_exceptions() > exceptions_) {
            span_->markError({});
        }
    }
    NativeSpan(const NativeSpan&) = delete;
    NativeSpan& operator=(const NativeSpan&) = delete;

    bool isActive() const noexcept { return span_ != nullptr && span_->isActive(); }

    // A step failed and the operation goes on, as a rollback does.
    void markFailure(const std::wstring& text) const noexcept {
        if (isActive()) {
            try {
                span_->tag("if_error", toUtf8(text));
            } catch (...) { // no memory for the text: the step has been reported elsewhere
                span_->markError({});
            }
        }
    }

private:
    std::unique_ptr<OpenTracingDriver::ISpanContextProvider> span_;
    int exceptions_ = std::uncaught_exceptions();
};
