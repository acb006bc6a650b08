// What the stand-ins for netapi32.dll and wtsapi32.dll keep: the users and groups of a pretended
// machine, in the registry below HKEY_CURRENT_USER\Software\ZopPanel\Accounts, or the key there
// that the environment variable ZOP_PANEL_ACCOUNTS names.
//
//     Users\<name>    rid, flags, rdp, administrator; password, full name, comment, description,
//     home Groups\<name>   global (1: one of a domain), comment
//         Members     an empty value for each member, named by its rid
//     controller      of the domain that the machine is in; absent: none
//     next rid
#pragma once

#include "runtime/auto_handle.h"

#include <functional>
#include <optional>
#include <string>
#include <windows.h>

namespace panel {

// Below the accounts' key; empty when it is not there and not to be made.
RunTime::AutoRegKey accountKey(const std::wstring& path, bool create = false);
inline std::wstring userPath(const std::wstring& name) {
    return L"Users\\" + name;
}
inline std::wstring groupPath(const std::wstring& name) {
    return L"Groups\\" + name;
}

std::optional<std::wstring> getText(const std::wstring& path, const wchar_t* value);
void setText(const std::wstring& path, const wchar_t* value, const wchar_t* text);
std::optional<DWORD> getNumber(const std::wstring& path, const wchar_t* value);
void setNumber(const std::wstring& path, const wchar_t* value, DWORD number);

void deleteAccount(const std::wstring& path);
// Of the keys right below a key.
void forEachName(const std::wstring& path, const std::function<void(const std::wstring&)>& visit);

} // namespace panel
