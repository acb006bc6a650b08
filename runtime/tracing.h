// Tracing spans around the library's operations. Off unless a registry value turns it on; what
// becomes of the spans is the business of a provider DLL (tracing_provider.h). Nothing here ever
// fails a call: a provider that is missing, refuses or crashes costs its spans, no more.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

class OpenTracingDriver {
public:
    // One open span; destroying it ends the span. Belongs to the thread that opened it.
    class ISpanContextProvider {
    public:
        virtual ~ISpanContextProvider() = default;
        virtual bool isActive() const noexcept = 0;
        virtual void markError(const std::string& text) noexcept = 0;
        virtual void tag(const std::string& key, const std::string& value) noexcept = 0;
    };

    // Opens the span of a public operation. Reads the registry value each time, so tracing can be
    // switched while the process runs; never null. parent is a text of InjectCurrentSpan(), or
    // empty for a child of the span that is open on this thread.
    static std::unique_ptr<ISpanContextProvider>
    StartSpan(const std::string& name, std::int32_t line, const std::string& parent);

    // Opens a span inside an operation, going by what the last StartSpan of the process found in
    // the registry. Null while tracing is off, at the cost of one atomic read.
    static std::unique_ptr<ISpanContextProvider> StartInternalSpan(const char* name,
                                                                   std::int32_t line) noexcept;

    // The identity of the span open on this thread, for StartSpan on another thread or in another
    // process. Empty while there is none.
    static std::string InjectCurrentSpan() noexcept;
};

// The span that does nothing, while tracing is off.
class OpenTracingSpanContextNone final : public OpenTracingDriver::ISpanContextProvider {
public:
    bool isActive() const noexcept override { return false; }
    void markError(const std::string&) noexcept override {}
    void tag(const std::string&, const std::string&) noexcept override {}
};
