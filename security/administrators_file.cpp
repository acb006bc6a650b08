#include "security/administrators_file.h"

#include "runtime/files/file.h"
#include "security/acl.h"
#include "security/sddl.h"
#include "security/sid.h"

#include <algorithm>
#include <iterator>

namespace RunTime {

void createAdministratorsDirectory(const std::wstring& path) {
    const auto descriptor = descriptorFromSddl(L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)");
    SECURITY_ATTRIBUTES security = {sizeof(security), descriptor.get(), FALSE};
    createDirectory(path, &security);
}

AutoHandle createAdministratorsFile(const std::wstring& path, DWORD access, DWORD share,
                                    DWORD disposition, DWORD flags) {
    const auto descriptor = descriptorFromSddl(L"D:P(A;;FA;;;SY)(A;;FA;;;BA)");
    SECURITY_ATTRIBUTES security = {sizeof(security), descriptor.get(), FALSE};
    return AutoHandle(::CreateFileW(path.c_str(), access, share, &security, disposition,
                                    flags | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

bool isAdministratorsOwn(const DescriptorBytes& descriptor) {
    constexpr ACCESS_MASK changes =
        FILE_WRITE_DATA | FILE_APPEND_DATA | WRITE_DAC | WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;
    const Sid trusted[] = {Sid::wellKnown(WinLocalSystemSid),
                           Sid::wellKnown(WinBuiltinAdministratorsSid), Sid::current()};
    const auto isTrusted = [&](const Sid& sid) {
        return std::ranges::find(trusted, sid) != std::end(trusted);
    };
    const DescriptorParts parts = partsOf(descriptor);
    if (parts.owner.empty() || !isTrusted(Sid::fromBytes(parts.owner)) ||
        aclLength(parts.dacl) == 0) {
        return false;
    }
    const Acl list = Acl::fromBytes(parts.dacl);
    for (const Ace ace : list) {
        Sid trustee;
        trustee.copy(ace.sid());
        if (ace.effect() != AceEffect::Denies && !isTrusted(trustee) &&
            (ace.sid() == nullptr || (ace.mask() & changes) != 0)) {
            return false;
        }
    }
    return true;
}

} // namespace RunTime
