// The configuration service in this process, on a pipe of its own, over the registry that a
// RegistryOverride or Traced of the test has redirected.
#pragma once

#include "config/service/config_service.h"
#include "tests/support/registry_override.h"

#include <memory>
#include <string>

class LocalConfigService {
public:
    LocalConfigService() {
        RegistryOverride::setString(L"ZOP_pipe",
                                    L"zop-test-" + std::to_wstring(::GetCurrentProcessId()));
        RegistryOverride::setDword(L"PipeConnectTryCount", 1);
        service_ = std::make_unique<config::ConfigService>(config::ConfigService::Options{});
    }

    void stop() { service_.reset(); }

private:
    std::unique_ptr<config::ConfigService> service_;
};
