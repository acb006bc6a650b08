// One entry of a disk security policy: which rights an account is expected to have on a path.
#pragma once

#include "security/sid.h"

#include <cstdint>
#include <string>
#include <windows.h>

namespace DiskSecurity {

// AccounType 0: the account is a well-known one. Every other value: it is looked up by its name.
inline constexpr std::uint32_t wellKnownAccountType = 0;

struct PolicyAccount {
    std::uint32_t type = wellKnownAccountType;
    std::wstring name;   // as the file has it; empty for an account that only its SID tells
    std::wstring domain; // as the file has it
    RunTime::Sid sid;
};

struct PolicyEntry {
    PolicyAccount account;
    std::wstring path;    // as the file has it, with its variable (path_variables.h)
    std::wstring subPath; // below path; may be empty
    ACCESS_MASK accessMask = 0;
    std::uint8_t aceFlags = 0; // OBJECT_INHERIT_ACE, CONTAINER_INHERIT_ACE, INHERIT_ONLY_ACE
    std::uint32_t entryFlags = 0;
    std::wstring tag;
    std::wstring tag2;
};

} // namespace DiskSecurity
