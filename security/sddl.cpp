#include "security/sddl.h"

#include "runtime/exception.h"

#include <sddl.h>

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

} // namespace RunTime
