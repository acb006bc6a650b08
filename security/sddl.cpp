#include "security/sddl.h"

#include "runtime/exception.h"

#include <cstring>
#include <sddl.h>
#include <vector>

namespace RunTime {

LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> descriptorFromSddl(const std::wstring& text) {
    LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> descriptor;
    ::SetLastError(ERROR_INVALID_PARAMETER);
    // The system would read no further than to an embedded zero, and take the half for the whole.
    if (text.find(L'\0') != text.npos ||
        !::ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                                descriptor.put(), nullptr)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to convert a text to a security descriptor", code,
                    {L"", "RunTime::descriptorFromSddl", __LINE__});
    }
    return descriptor;
}

std::wstring sddlOf(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts) {
    LocalPtr<wchar_t> text;
    if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, parts,
                                                                text.put(), nullptr)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to convert a security descriptor to text", code,
                    {L"", "RunTime::sddlOf", __LINE__});
    }
    return text.get();
}

std::wstring sddlOf(const Ace& ace) {
    // A list of this one entry, in a descriptor of nothing else.
    const std::span<const unsigned char> bytes = ace.bytes();
    std::vector<ACL> buffer(2 + bytes.size() / sizeof(ACL));
    buffer[0] = {ACL_REVISION_DS, 0, static_cast<WORD>(sizeof(ACL) + bytes.size()), 1, 0};
    std::memcpy(&buffer[1], bytes.data(), bytes.size());
    const BYTE type = ace.type();
    const bool audit = type == SYSTEM_AUDIT_ACE_TYPE || type == SYSTEM_ALARM_ACE_TYPE ||
                       type == SYSTEM_AUDIT_OBJECT_ACE_TYPE ||
                       type == SYSTEM_ALARM_OBJECT_ACE_TYPE ||
                       type >= SYSTEM_AUDIT_CALLBACK_ACE_TYPE;
    SECURITY_DESCRIPTOR carrier{};
    carrier.Revision = SECURITY_DESCRIPTOR_REVISION;
    carrier.Control = audit ? SE_SACL_PRESENT : SE_DACL_PRESENT;
    (audit ? carrier.Sacl : carrier.Dacl) = buffer.data();
    const std::wstring text =
        sddlOf(&carrier, audit ? SACL_SECURITY_INFORMATION : DACL_SECURITY_INFORMATION);
    const std::size_t begin = text.find(L'('); // "D:" or "S:" before it
    if (begin == text.npos) { // the system may leave an entry out that the text form lacks
        _throwError(L"Unable to convert a security descriptor to text", ERROR_INVALID_ACL,
                    {L"", "RunTime::sddlOf", __LINE__});
    }
    return text.substr(begin);
}

} // namespace RunTime
