#include "runtime/tracing.h"

#include "runtime/auto_handle.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/se_translator.h"
#include "runtime/tracing_provider.h"

#include <atomic>
#include <windows.h>

namespace {

// Runs a piece of the machinery, from which nothing may get out: not even its crash.
template <class Function>
void harmless(Function&& function) noexcept {
    const SeTranslatorLocal translator;
    try {
        function();
    } catch (...) { // a trace that is lost harms nobody; there is no one to tell either
    }
}

bool readEnabled() noexcept {
    RunTime::AutoRegKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, config::configKey, 0, KEY_READ | KEY_WOW64_32KEY,
                        key.put()) != ERROR_SUCCESS) {
        return false;
    }
    DWORD type = REG_NONE;
    DWORD value = 0;
    DWORD size = sizeof value;
    const LSTATUS status = ::RegQueryValueExW(key.get(), config::name::opentracingEnabled, nullptr,
                                              &type, reinterpret_cast<BYTE*>(&value), &size);
    return status == ERROR_SUCCESS && type == REG_DWORD && size == sizeof value && value != 0;
}

enum : int { unknown, off, on };
std::atomic<int> lastRead{unknown};

bool readAndRemember() noexcept {
    const bool enabled = readEnabled();
    lastRead.store(enabled ? on : off, std::memory_order_relaxed);
    return enabled;
}

// Full path of a file beside the module that this code is in; empty when that is unknown.
std::wstring besideThisModule(const wchar_t* name) {
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                  GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              reinterpret_cast<const wchar_t*>(&readEnabled), &module)) {
        return {};
    }
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length =
            ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0 || path.size() >= 0x10000) {
            return {};
        }
        if (length < path.size()) {
            path.resize(length);
            break;
        }
        path.resize(path.size() * 2);
    }
    const std::size_t slash = path.rfind(L'\\');
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash + 1) + name;
}

// Never by the ordinary search: that ends in the current directory and in PATH, where anyone may
// have put a DLL for an administrator's process to load.
HMODULE loadProvider() {
    constexpr const wchar_t* name = L"opentracingprovider.dll";
    const std::wstring path = besideThisModule(name);
    HMODULE module = nullptr;
    if (!path.empty()) {
        module = ::LoadLibraryExW(path.c_str(), nullptr,
                                  LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    }
    if (module == nullptr) {
        module = ::LoadLibraryExW(
            name, nullptr, LOAD_LIBRARY_SEARCH_APPLICATION_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    }
    return module; // stays loaded: spans may be open until the process ends
}

template <class Function>
Function resolve(HMODULE module, const char* name) {
    return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

class Provider {
public:
    Provider() noexcept {
        harmless([this] { open(); });
        if (tracer_ == nullptr) {
            LogManager::getInstance().vAddLog(
                LogType::Warning, L"Tracing is enabled and its provider cannot be used");
        }
    }

    OpenTracingSpan* start(const char* name, std::int32_t line, const char* parent) noexcept {
        OpenTracingSpan* span = nullptr;
        if (tracer_ != nullptr) {
            harmless([&] { span = getSpanContext_(tracer_, name, line, parent); });
        }
        return span;
    }

    std::string injectCurrent() {
        std::string text(256, '\0');
        while (tracer_ != nullptr) {
            const std::uint32_t length =
                injectCurrentSpan_(tracer_, text.data(), static_cast<std::uint32_t>(text.size()));
            if (length < text.size()) {
                text.resize(length);
                return text;
            }
            if (length > 0x10000) {
                break; // nothing that anyone would put on a command line
            }
            text.resize(std::size_t{length} + 1);
        }
        return {};
    }

private:
    void open() {
        const HMODULE module = loadProvider();
        if (module == nullptr) {
            return;
        }
        const auto getTracer =
            resolve<OpenTracingProviderGetTracerFunction>(module, "OpenTracingProviderGetTracer");
        getSpanContext_ = resolve<OpenTracingProviderGetSpanContextFunction>(
            module, "OpenTracingProviderGetSpanContext");
        injectCurrentSpan_ = resolve<OpenTracingProviderInjectCurrentSpanFunction>(
            module, "OpenTracingProviderInjectCurrentSpan");
        if (getTracer != nullptr && getSpanContext_ != nullptr && injectCurrentSpan_ != nullptr) {
            tracer_ = getTracer("zopnative");
        }
    }

    OpenTracingTracer* tracer_ = nullptr;
    OpenTracingProviderGetSpanContextFunction getSpanContext_ = nullptr;
    OpenTracingProviderInjectCurrentSpanFunction injectCurrentSpan_ = nullptr;
};

// Loaded by the first call that finds tracing enabled.
Provider& provider() noexcept {
    static Provider instance;
    return instance;
}

class OpenTracingSpanContext final : public OpenTracingDriver::ISpanContextProvider {
public:
    explicit OpenTracingSpanContext(OpenTracingSpan* span) noexcept : span_(span) {}
    ~OpenTracingSpanContext() override {
        harmless([this] { span_->finish(span_); });
    }
    OpenTracingSpanContext(const OpenTracingSpanContext&) = delete;
    OpenTracingSpanContext& operator=(const OpenTracingSpanContext&) = delete;

    bool isActive() const noexcept override { return true; }
    void markError(const std::string& text) noexcept override {
        harmless([&] { span_->markError(span_, text.c_str()); });
    }
    void tag(const std::string& key, const std::string& value) noexcept override {
        harmless([&] { span_->tag(span_, key.c_str(), value.c_str()); });
    }

private:
    OpenTracingSpan* span_;
};

// Null when the provider gave no span.
std::unique_ptr<OpenTracingDriver::ISpanContextProvider> start(const char* name, std::int32_t line,
                                                               const char* parent) noexcept {
    std::unique_ptr<OpenTracingDriver::ISpanContextProvider> result;
    OpenTracingSpan* span = provider().start(name, line, parent);
    if (span != nullptr) {
        harmless([&] { result = std::make_unique<OpenTracingSpanContext>(span); });
        if (!result) {
            harmless([&] { span->finish(span); });
        }
    }
    return result;
}

} // namespace

std::unique_ptr<OpenTracingDriver::ISpanContextProvider>
OpenTracingDriver::StartSpan(const std::string& name, std::int32_t line,
                             const std::string& parent) {
    std::unique_ptr<ISpanContextProvider> span;
    if (readAndRemember()) {
        span = start(name.c_str(), line, parent.c_str());
    }
    if (!span) {
        span = std::make_unique<OpenTracingSpanContextNone>();
    }
    return span;
}

std::unique_ptr<OpenTracingDriver::ISpanContextProvider>
OpenTracingDriver::StartInternalSpan(const char* name, std::int32_t line) noexcept {
    const int read = lastRead.load(std::memory_order_relaxed);
    const bool enabled = read == unknown ? readAndRemember() : read == on;
    return enabled ? start(name, line, "") : nullptr;
}

std::string OpenTracingDriver::InjectCurrentSpan() noexcept {
    std::string text;
    if (lastRead.load(std::memory_order_relaxed) == on) {
        harmless([&] { text = provider().injectCurrent(); });
    }
    return text;
}
