// HKEY_LOCAL_MACHINE of this process, replaced by an empty key for a test. Both registry views
// are then the same place.
#pragma once

#include "runtime/auto_handle.h"
#include "runtime/registry/config_values.h"

#include <gtest/gtest.h>
#include <string>

class RegistryOverride {
public:
    RegistryOverride() : path_(L"Software\\ZopTests\\" + std::to_wstring(::GetCurrentProcessId())) {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());
        EXPECT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, nullptr, 0,
                                                   KEY_ALL_ACCESS, nullptr, root_.put(), nullptr));
        EXPECT_EQ(ERROR_SUCCESS, ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, root_.get()));
    }
    ~RegistryOverride() {
        ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
        root_.reset();
        ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());
    }
    RegistryOverride(const RegistryOverride&) = delete;
    RegistryOverride& operator=(const RegistryOverride&) = delete;

    // Values of the panel's configuration key.
    static void setDword(const wchar_t* name, DWORD value) {
        set(name, REG_DWORD, &value, sizeof value);
    }
    static void setString(const wchar_t* name, const std::wstring& value) {
        set(name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    }
    static void remove(const wchar_t* name) { ::RegDeleteValueW(configKey().get(), name); }

private:
    static RunTime::AutoRegKey configKey() {
        RunTime::AutoRegKey key;
        EXPECT_EQ(ERROR_SUCCESS,
                  ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, config::configKey, 0, nullptr, 0,
                                    KEY_ALL_ACCESS | KEY_WOW64_32KEY, nullptr, key.put(), nullptr));
        return key;
    }
    static void set(const wchar_t* name, DWORD type, const void* data, DWORD size) {
        EXPECT_EQ(ERROR_SUCCESS, ::RegSetValueExW(configKey().get(), name, 0, type,
                                                  static_cast<const BYTE*>(data), size));
    }

    std::wstring path_;
    RunTime::AutoRegKey root_;
};
