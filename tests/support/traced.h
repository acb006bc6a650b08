// Switches tracing on in a redirected registry, with the recording provider, for one test.
#pragma once

#include "runtime/tracing.h"
#include "tests/support/registry_override.h"
#include "tests/support/tracing_provider/test_tracing_provider.h"

class Traced {
public:
    Traced() {
        RegistryOverride::setDword(L"opentracing_enabled", 1);
        OpenTracingDriver::StartSpan("warm up", 0, ""); // loads the provider
        takeTraces();
    }
    ~Traced() {
        setTracingProviderFault(TestProviderFault::None);
        takeTraces();
        RegistryOverride::remove(L"opentracing_enabled");
        OpenTracingDriver::StartSpan("off again", 0, "");
    }
    Traced(const Traced&) = delete;
    Traced& operator=(const Traced&) = delete;

private:
    RegistryOverride registry_;
};
