// What the calls of the NetAPI for accounts have in common.
#pragma once

#include "runtime/auto_ptr.h"
#include "runtime/exception.h"

#include <lm.h>
#include <string>

namespace UserManagement {

// A user's names and SID, as the server that keeps the account has them.
using UserSid = RunTime::NetBuffer<USER_INFO_23, LPBYTE>;

// The server as the calls take it: null for this computer.
inline const wchar_t* serverOf(const std::wstring& name) noexcept {
    return name.empty() ? nullptr : name.c_str();
}

// The system's structures ask for texts to write to, but read them only.
inline wchar_t* textOf(const std::wstring& text) noexcept {
    return const_cast<wchar_t*>(text.c_str());
}

// The account's name without its domain. Throws ArgumentException for an empty one, and for one
// that the system would cut at a zero character.
std::wstring accountName(const std::wstring& name);
// The same check for any other text; what says which text it is.
void checkText(const std::wstring& text, const wchar_t* what);

// Looks the user up on the server; a status of the NetAPI comes back.
NET_API_STATUS findUser(const std::wstring& server, const std::wstring& name, UserSid& found);

// A domain has groups of two kinds, each with calls of its own; a computer has local ones alone.
enum class GroupKind { Missing, Local, Global };
// Throws vosexception when the server cannot tell.
GroupKind findGroup(const std::wstring& server, const std::wstring& name);

// what  such as L"Unable to create the user", behind which the name comes, and where the system has
//       no text for the status, or there is something to be done about it, what that is.
[[noreturn]] void throwForAccount(const wchar_t* what, const std::wstring& name, DWORD status,
                                  const vexception::CallStackInfo& frame);

} // namespace UserManagement
