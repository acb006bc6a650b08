#include "runtime/tracing.h"

#include "runtime/native_span.h"
#include "tests/support/traced.h"

#include <stdexcept>
#include <thread>

// In a process of its own: other tests load the provider, and it stays.
TEST(TracingTest, ProviderIsLoadedByTheFirstCallThatFindsTracingEnabled) {
    EXPECT_EXIT(
        {
            const RegistryOverride registry;
            const auto loadedAfterACall = [] {
                const bool active = OpenTracingDriver::StartSpan("s", 1, "")->isActive();
                const NativeSpan inner("inner", 2);
                return active || inner.isActive() || tracingProviderModule() != nullptr;
            };
            int result = loadedAfterACall() ? 1 : 0;
            RegistryOverride::setDword(L"opentracing_enabled", 0);
            result |= loadedAfterACall() ? 2 : 0;
            RegistryOverride::setString(L"opentracing_enabled", L"1"); // not a DWORD
            result |= loadedAfterACall() ? 4 : 0;
            RegistryOverride::setDword(L"opentracing_enabled", 1);
            result |= loadedAfterACall() ? 0 : 8;
            ::ExitProcess(static_cast<UINT>(result));
        },
        testing::ExitedWithCode(0), "");
}

TEST(TracingTest, SpansTagsAndErrorsReachTheProvider) {
    const Traced traced;
    {
        const auto span = OpenTracingDriver::StartSpan("outer", 68, "");
        EXPECT_TRUE(span->isActive());
        span->tag("key", "value");
        EXPECT_EQ("id:outer", OpenTracingDriver::InjectCurrentSpan());
        std::thread([parent = OpenTracingDriver::InjectCurrentSpan()] {
            OpenTracingDriver::StartSpan("elsewhere", 7, parent);
        }).join();
        try {
            const NativeSpan inner("inner", 9);
            inner.markFailure(L"Unable to restore \u00e9");
            throw std::runtime_error("leaves the span");
        } catch (const std::runtime_error&) {
        }
        const NativeSpan unharmed("unharmed", 10);
    }
    EXPECT_EQ("start outer 68 []\ntag outer key [value]\n"
              "start elsewhere 7 [id:outer]\nfinish elsewhere\n"
              "start inner 9 [outer]\ntag inner if_error [Unable to restore \xC3\xA9]\n"
              "error inner []\nfinish inner\n"
              "start unharmed 10 [outer]\nfinish unharmed\nfinish outer\n",
              takeTraces());
    EXPECT_EQ("", OpenTracingDriver::InjectCurrentSpan());
    const std::string longName(1000, 'n');
    const auto span = OpenTracingDriver::StartSpan(longName, 1, "");
    EXPECT_EQ("id:" + longName, OpenTracingDriver::InjectCurrentSpan());
}

TEST(TracingTest, SwitchIsReadForEveryPublicCallAndFollowedByTheInnerSpans) {
    const Traced traced;
    RegistryOverride::setDword(L"opentracing_enabled", 0);
    EXPECT_TRUE(NativeSpan("inner", 1).isActive()) << "goes by the last public call";
    EXPECT_FALSE(OpenTracingDriver::StartSpan("public", 2, "")->isActive());
    EXPECT_FALSE(NativeSpan("inner", 3).isActive());
    EXPECT_EQ("start inner 1 []\nfinish inner\n", takeTraces());
}

TEST(TracingTest, ProviderThatFailsOrCrashesCostsOnlyItsSpans) {
    const Traced traced;
    setTracingProviderFault(TestProviderFault::NoSpan);
    EXPECT_FALSE(OpenTracingDriver::StartSpan("none", 1, "")->isActive());
    setTracingProviderFault(TestProviderFault::None);
    const auto span = OpenTracingDriver::StartSpan("span", 1, "");
    setTracingProviderFault(TestProviderFault::Crash);
    span->tag("key", "value");
    span->markError("text");
    EXPECT_EQ("", OpenTracingDriver::InjectCurrentSpan());
    EXPECT_FALSE(OpenTracingDriver::StartSpan("crash", 1, "")->isActive());
    EXPECT_EQ("start span 1 []\ntag span key [value]\nerror span [text]\n", takeTraces());
}
