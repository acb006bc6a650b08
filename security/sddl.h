// The text form of security descriptors and their parts, as the system reads and writes it.
#pragma once

#include "runtime/auto_ptr.h"
#include "security/ace.h"

#include <string>
#include <windows.h>

namespace RunTime {

// A self-relative descriptor. "Unable to convert a text to a security descriptor".
LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> descriptorFromSddl(const std::wstring& text);

// The named parts of a descriptor of either kind that it has. "Unable to convert a security
// descriptor to text": the text form lacks some types of entries.
std::wstring sddlOf(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts);

// One entry: "(A;OICI;FA;;;BA)". Errors as above.
std::wstring sddlOf(const Ace& ace);

} // namespace RunTime
