#include "config/service/config_store.h"

#include "config/service/hypervisor.h"
#include "runtime/auto_handle.h"
#include "runtime/auto_ptr.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"

#include <algorithm>
#include <sddl.h>

namespace config {

namespace {

// The configuration holds passwords, and what is made below HKEY_LOCAL_MACHINE may otherwise be
// read by everybody.
constexpr wchar_t keySecurity[] = L"D:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)";

bool isName(const std::wstring& name) {
    return protocol::isValueName(name) && name.find(L'\\') == std::wstring::npos;
}

void checkName(const std::wstring& name) {
    if (!isName(name)) {
        _throwError(L"Unable to use that name: a value's name is not empty, and has neither a "
                    L"backslash nor a zero character",
                    ERROR_INVALID_PARAMETER, {L"", "config::ConfigStore::checkName", __LINE__});
    }
}

// The registry names no code for a value of another type.
template <class Value>
void lookup(const std::wstring& key, const std::wstring& name, Value& value, const wchar_t* type) {
    checkName(name);
    LSTATUS status = ERROR_DATATYPE_MISMATCH;
    std::wstring detail = L"Unable to read (" + name + L")";
    try {
        status = registry::lookup(HKEY_LOCAL_MACHINE, key, name, value, RegistryView::View32);
    } catch (const vosexception&) {
        throw;
    } catch (const vexception&) {
        detail += L" as a " + std::wstring(type);
    }
    if (status != ERROR_SUCCESS) {
        _throwError(detail.c_str(), static_cast<DWORD>(status),
                    {L"", "config::ConfigStore::lookup", __LINE__});
    }
}

} // namespace

ConfigStore::ConfigStore(std::wstring key) : key_(std::move(key)) {}

void ConfigStore::getString(const std::wstring& name, std::wstring& value) const {
    lookup(key_, name, value, L"string");
}

DWORD ConfigStore::getDWORD(const std::wstring& name) const {
    DWORD value = 0;
    lookup(key_, name, value, L"number");
    return value;
}

void ConfigStore::setString(const std::wstring& name, const std::wstring& value) const {
    checkName(name);
    if (value.find(L'\0') != std::wstring::npos) {
        _throwError((L"Unable to set (" + name + L") to a text with a zero character").c_str(),
                    ERROR_INVALID_PARAMETER, {L"", "config::ConfigStore::setString", __LINE__});
    }
    createKey();
    registry::setString(HKEY_LOCAL_MACHINE, key_, name, value, RegistryView::View32);
}

void ConfigStore::setDWORD(const std::wstring& name, DWORD value) const {
    checkName(name);
    createKey();
    registry::setDWORD(HKEY_LOCAL_MACHINE, key_, name, value, RegistryView::View32);
}

std::vector<protocol::ListedValue> ConfigStore::list(const std::wstring& behind,
                                                     std::size_t count) const {
    std::vector<protocol::ListedValue> result;
    if (!registry::keyExists(HKEY_LOCAL_MACHINE, key_, RegistryView::View32)) {
        return result;
    }
    for (registry::ValueName& value :
         registry::values(HKEY_LOCAL_MACHINE, key_, RegistryView::View32)) {
        if (isName(value.name) && protocol::compareNames(behind, value.name) < 0) {
            result.push_back({std::move(value.name), value.type});
        }
    }
    std::sort(result.begin(), result.end(), [](const auto& first, const auto& second) {
        return protocol::compareNames(first.name, second.name) < 0;
    });
    if (result.size() > count) {
        result.erase(result.begin() + static_cast<std::ptrdiff_t>(count), result.end());
    }
    return result;
}

bool ConfigStore::isVE() const {
    try {
        return getDWORD(name::virtualEnvironment) != 0;
    } catch (const VFileNotFoundException&) {
        return runsUnderHypervisor();
    }
}

void ConfigStore::createKey() const {
    if (registry::keyExists(HKEY_LOCAL_MACHINE, key_, RegistryView::View32)) {
        return;
    }
    RunTime::LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> descriptor;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(keySecurity, SDDL_REVISION_1,
                                                                descriptor.put(), nullptr)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to make the security descriptor of the configuration key", code,
                    {L"", "config::ConfigStore::createKey", __LINE__});
    }
    SECURITY_ATTRIBUTES security{sizeof(security), descriptor.get(), FALSE};
    RunTime::AutoRegKey key;
    const LSTATUS status =
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, key_.c_str(), 0, nullptr, 0,
                          KEY_SET_VALUE | KEY_WOW64_32KEY, &security, key.put(), nullptr);
    if (status != ERROR_SUCCESS) {
        _throwError(
            formatString(L"Unable to create the configuration key (%s)", key_.c_str()).c_str(),
            static_cast<DWORD>(status), {L"", "config::ConfigStore::createKey", __LINE__});
    }
}

} // namespace config
