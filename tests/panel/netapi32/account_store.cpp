#include "tests/panel/netapi32/account_store.h"

namespace panel {

namespace {

std::wstring rootPath() {
    wchar_t name[256];
    const DWORD length = ::GetEnvironmentVariableW(L"ZOP_PANEL_ACCOUNTS", name, 256);
    return length > 0 && length < 256 ? name : L"Software\\ZopPanel\\Accounts";
}

} // namespace

RunTime::AutoRegKey accountKey(const std::wstring& path, bool create) {
    const std::wstring full = rootPath() + L"\\" + path;
    RunTime::AutoRegKey key;
    if (create) {
        ::RegCreateKeyExW(HKEY_CURRENT_USER, full.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                          key.put(), nullptr);
    } else {
        ::RegOpenKeyExW(HKEY_CURRENT_USER, full.c_str(), 0, KEY_ALL_ACCESS, key.put());
    }
    return key;
}

std::optional<std::wstring> getText(const std::wstring& path, const wchar_t* value) {
    wchar_t text[4096];
    DWORD size = sizeof text;
    const LSTATUS status =
        ::RegGetValueW(accountKey(path).get(), nullptr, value, RRF_RT_REG_SZ, nullptr, text, &size);
    return status == ERROR_SUCCESS ? std::optional<std::wstring>(text) : std::nullopt;
}

void setText(const std::wstring& path, const wchar_t* value, const wchar_t* text) {
    const std::wstring stored = text != nullptr ? text : L"";
    ::RegSetValueExW(accountKey(path, true).get(), value, 0, REG_SZ,
                     reinterpret_cast<const BYTE*>(stored.c_str()),
                     static_cast<DWORD>((stored.size() + 1) * sizeof(wchar_t)));
}

std::optional<DWORD> getNumber(const std::wstring& path, const wchar_t* value) {
    DWORD number = 0;
    DWORD size = sizeof number;
    const LSTATUS status = ::RegGetValueW(accountKey(path).get(), nullptr, value, RRF_RT_REG_DWORD,
                                          nullptr, &number, &size);
    return status == ERROR_SUCCESS ? std::optional(number) : std::nullopt;
}

void setNumber(const std::wstring& path, const wchar_t* value, DWORD number) {
    ::RegSetValueExW(accountKey(path, true).get(), value, 0, REG_DWORD,
                     reinterpret_cast<const BYTE*>(&number), sizeof number);
}

void deleteAccount(const std::wstring& path) {
    ::RegDeleteTreeW(HKEY_CURRENT_USER, (rootPath() + L"\\" + path).c_str());
}

void forEachName(const std::wstring& path, const std::function<void(const std::wstring&)>& visit) {
    const RunTime::AutoRegKey key = accountKey(path);
    wchar_t name[256];
    for (DWORD i = 0, length = 256; ::RegEnumKeyExW(key.get(), i, name, &length, nullptr, nullptr,
                                                    nullptr, nullptr) == ERROR_SUCCESS;
         ++i, length = 256) {
        visit(name);
    }
}

} // namespace panel
