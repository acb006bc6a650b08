// NtfsFake: security descriptors, kept byte for byte.
#include "tests/support/ntfs_fake_state.h"

#include <sddl.h>
#include <stdexcept>

namespace ntfs {

namespace {

constexpr SECURITY_INFORMATION allParts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                          DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;

// What a directory that was made before the fake gives to its children.
constexpr wchar_t standard[] =
    L"O:BAG:SYD:AI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)";

std::string sidBytes(PSID sid) {
    return sid == nullptr ? std::string()
                          : std::string(static_cast<char*>(sid), REAL(GetLengthSid)(sid));
}

std::optional<std::string> aclBytes(BOOL present, PACL acl) {
    if (!present) {
        return std::nullopt;
    }
    return acl == nullptr ? std::string() : std::string(reinterpret_cast<char*>(acl), acl->AclSize);
}

Descriptor parse(PSECURITY_DESCRIPTOR from) {
    Descriptor result;
    PSID owner = nullptr, group = nullptr;
    PACL dacl = nullptr, sacl = nullptr;
    BOOL defaulted = FALSE, hasDacl = FALSE, hasSacl = FALSE;
    DWORD revision = 0;
    REAL(GetSecurityDescriptorOwner)(from, &owner, &defaulted);
    REAL(GetSecurityDescriptorGroup)(from, &group, &defaulted);
    REAL(GetSecurityDescriptorDacl)(from, &hasDacl, &dacl, &defaulted);
    REAL(GetSecurityDescriptorSacl)(from, &hasSacl, &sacl, &defaulted);
    REAL(GetSecurityDescriptorControl)(from, &result.control, &revision);
    result.control &= static_cast<WORD>(~SE_SELF_RELATIVE);
    result.owner = sidBytes(owner);
    result.group = sidBytes(group);
    result.dacl = aclBytes(hasDacl, dacl);
    result.sacl = aclBytes(hasSacl, sacl);
    return result;
}

// Wine's texts know no null list of access.
constexpr wchar_t nullList[] = L"NO_ACCESS_CONTROL";

Descriptor fromText(std::wstring sddl) {
    const std::size_t null = sddl.find(nullList);
    if (null != sddl.npos) {
        sddl.erase(null, std::size(nullList) - 1);
    }
    PSECURITY_DESCRIPTOR made = nullptr;
    if (!REAL(ConvertStringSecurityDescriptorToSecurityDescriptorW)(sddl.c_str(), SDDL_REVISION_1,
                                                                    &made, nullptr)) {
        throw std::runtime_error("not a descriptor: " + toUtf8(sddl));
    }
    Descriptor result = parse(made);
    REAL(LocalFree)(made);
    if (null != sddl.npos) {
        result.dacl = std::string();
    }
    return result;
}

// What a child gets of its directory's list: entries meant for its kind, marked as inherited.
std::string inheritedAcl(const std::string& parent, bool directory) {
    std::string entries;
    WORD count = 0;
    for (std::size_t at = sizeof(ACL); at + sizeof(ACE_HEADER) <= parent.size();) {
        ACE_HEADER ace;
        std::memcpy(&ace, parent.data() + at, sizeof ace);
        std::string copy = parent.substr(at, ace.AceSize);
        at += ace.AceSize;
        const bool forFiles = (ace.AceFlags & OBJECT_INHERIT_ACE) != 0;
        const bool forDirectories = (ace.AceFlags & CONTAINER_INHERIT_ACE) != 0;
        if (!(directory ? forDirectories || forFiles : forFiles)) {
            continue;
        }
        BYTE flags = ace.AceFlags & (OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);
        if (!directory || (ace.AceFlags & NO_PROPAGATE_INHERIT_ACE) != 0) {
            flags = 0;
        } else if (!forDirectories) {
            flags |= INHERIT_ONLY_ACE;
        }
        copy[1] = static_cast<char>(flags | INHERITED_ACE);
        entries += copy;
        ++count;
    }
    const ACL header = {ACL_REVISION, 0, static_cast<WORD>(sizeof(ACL) + entries.size()), count, 0};
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + entries;
}

Descriptor inheritedFrom(const UnixFile& file, bool directory) {
    const std::string path = file.path();
    const Extra* parent = extraAt(path.substr(0, path.rfind('/')));
    Descriptor result = fromText(standard);
    const Descriptor from = parent != nullptr && parent->security ? *parent->security : result;
    result.dacl = inheritedAcl(from.dacl.value_or(std::string()), directory);
    result.control = SE_DACL_PRESENT | SE_DACL_AUTO_INHERITED;
    return result;
}

bool canRead(const OpenFile& file, SECURITY_INFORMATION parts) {
    if ((parts & SACL_SECURITY_INFORMATION) != 0 && (file.access & ACCESS_SYSTEM_SECURITY) == 0) {
        return fail(ERROR_PRIVILEGE_NOT_HELD);
    }
    return file.may(READ_CONTROL) || fail(ERROR_ACCESS_DENIED);
}

BOOL WINAPI getKernelSecurity(HANDLE handle, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR out,
                              DWORD size, LPDWORD needed) {
    const Lock lock;
    OpenFile* file = state->find(handle);
    if (file == nullptr) {
        return REAL(GetKernelObjectSecurity)(handle, parts, out, size, needed);
    }
    if (!canRead(*file, parts)) {
        return FALSE;
    }
    const std::string bytes = securityOf(file->file).selfRelative(parts);
    *needed = static_cast<DWORD>(bytes.size());
    if (bytes.size() > size) {
        return fail(ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(out, bytes.data(), bytes.size());
    return TRUE;
}

// One list's bits of the control word. AUTO_INHERITED is only kept when it is asked for.
void setControl(WORD& control, WORD given, SECURITY_INFORMATION parts, bool dacl) {
    const WORD present = dacl ? SE_DACL_PRESENT : SE_SACL_PRESENT;
    const WORD inherited = dacl ? SE_DACL_AUTO_INHERITED : SE_SACL_AUTO_INHERITED;
    const WORD asked = dacl ? SE_DACL_AUTO_INHERIT_REQ : SE_SACL_AUTO_INHERIT_REQ;
    const WORD guarded = dacl ? SE_DACL_PROTECTED : SE_SACL_PROTECTED;
    const auto guard =
        dacl ? PROTECTED_DACL_SECURITY_INFORMATION : PROTECTED_SACL_SECURITY_INFORMATION;
    const auto open =
        dacl ? UNPROTECTED_DACL_SECURITY_INFORMATION : UNPROTECTED_SACL_SECURITY_INFORMATION;
    const auto bits = static_cast<WORD>(present | inherited | guarded);
    control = static_cast<WORD>((control & ~bits) | (given & (present | guarded)));
    control |= (given & asked) != 0 ? given & inherited : 0;
    control |= (parts & guard) != 0 ? guarded : 0;
    control &= (parts & open) != 0 ? static_cast<WORD>(~guarded) : 0xFFFF;
}

DWORD applySecurity(OpenFile& file, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR descriptor) {
    const Descriptor given = parse(descriptor);
    const bool owner = (parts & (OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION)) != 0;
    const bool dacl = (parts & DACL_SECURITY_INFORMATION) != 0;
    const bool sacl = (parts & SACL_SECURITY_INFORMATION) != 0;
    if ((owner && !file.may(WRITE_OWNER)) || (dacl && !file.may(WRITE_DAC))) {
        return ERROR_ACCESS_DENIED;
    }
    if (sacl && (file.access & ACCESS_SYSTEM_SECURITY) == 0) {
        return ERROR_PRIVILEGE_NOT_HELD;
    }
    Descriptor& kept = securityOf(file.file);
    if ((parts & OWNER_SECURITY_INFORMATION) != 0) {
        if (given.owner != kept.owner && given.owner != fromText(L"O:BA").owner &&
            !hasPrivilege(L"SeRestorePrivilege")) {
            return ERROR_INVALID_OWNER;
        }
        kept.owner = given.owner;
    }
    kept.group = (parts & GROUP_SECURITY_INFORMATION) != 0 ? given.group : kept.group;
    if (dacl) {
        kept.dacl = given.dacl;
        setControl(kept.control, given.control, parts, true);
    }
    if (sacl) {
        kept.sacl = given.sacl;
        setControl(kept.control, given.control, parts, false);
    }
    return ERROR_SUCCESS;
}

BOOL WINAPI setKernelSecurity(HANDLE handle, SECURITY_INFORMATION parts,
                              PSECURITY_DESCRIPTOR descriptor) {
    const Lock lock;
    OpenFile* file = state->find(handle);
    if (file == nullptr) {
        return REAL(SetKernelObjectSecurity)(handle, parts, descriptor);
    }
    const DWORD code = applySecurity(*file, parts, descriptor);
    return code == 0 || fail(code);
}

} // namespace

std::string Descriptor::selfRelative(SECURITY_INFORMATION parts) const {
    SECURITY_DESCRIPTOR_RELATIVE header = {};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    WORD bits = SE_SELF_RELATIVE;
    std::string body;
    const auto place = [&](const std::string& bytes) -> DWORD {
        if (bytes.empty()) {
            return 0;
        }
        const auto offset = static_cast<DWORD>(sizeof header + body.size());
        body += bytes + std::string((4 - bytes.size() % 4) % 4, '\0');
        return offset;
    };
    constexpr WORD daclBits = SE_DACL_PRESENT | SE_DACL_AUTO_INHERITED | SE_DACL_PROTECTED;
    constexpr WORD saclBits = SE_SACL_PRESENT | SE_SACL_AUTO_INHERITED | SE_SACL_PROTECTED;
    header.Owner = (parts & OWNER_SECURITY_INFORMATION) != 0 ? place(owner) : 0;
    header.Group = (parts & GROUP_SECURITY_INFORMATION) != 0 ? place(group) : 0;
    if ((parts & SACL_SECURITY_INFORMATION) != 0) {
        bits |= control & saclBits;
        header.Sacl = place(sacl.value_or(std::string()));
    }
    if ((parts & DACL_SECURITY_INFORMATION) != 0) {
        bits |= control & daclBits;
        header.Dacl = place(dacl.value_or(std::string()));
    }
    header.Control = bits;
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + body;
}

Descriptor& securityOf(const UnixFile& file) {
    Extra* extra = extraOf(file, true);
    if (!extra->security) {
        Descriptor inherited = inheritedFrom(file, file.stat().isDirectory());
        extra = extraOf(file, true);
        extra->security = std::move(inherited);
    }
    return *extra->security;
}

void setSecurityAtBirth(const UnixFile& file, const SECURITY_ATTRIBUTES* given) {
    if (given == nullptr || given->lpSecurityDescriptor == nullptr) {
        return;
    }
    const Descriptor wanted = parse(given->lpSecurityDescriptor);
    if (wanted.dacl) {
        Descriptor& kept = securityOf(file);
        kept.dacl = wanted.dacl;
        setControl(kept.control, wanted.control, 0, true);
    }
}

void inheritSecurity(const UnixFile& file, bool directory) {
    extraOf(file, true)->security = inheritedFrom(file, directory);
}

void patchSecurity(State& to) {
    patch(to, "GetKernelObjectSecurity", getKernelSecurity);
    patch(to, "SetKernelObjectSecurity", setKernelSecurity);
}

} // namespace ntfs

void NtfsFake::setSecurity(const std::wstring& path, const std::wstring& sddl) {
    ntfs::extraAt(unixPath(path), true)->security = ntfs::fromText(sddl);
}

std::wstring NtfsFake::security(const std::wstring& path) {
    using namespace ntfs;
    const Descriptor& kept =
        securityOf(UnixFile(unixPath(path), unixcall::OnlyPath | unixcall::NoFollow));
    std::string bytes = kept.selfRelative(allParts);
    wchar_t* text = nullptr;
    if (!REAL(ConvertSecurityDescriptorToStringSecurityDescriptorW)(bytes.data(), SDDL_REVISION_1,
                                                                    allParts, &text, nullptr)) {
        throw std::runtime_error("not a descriptor any more");
    }
    std::wstring result = text;
    REAL(LocalFree)(text);
    if (kept.dacl && kept.dacl->empty() && result.find(nullList) == result.npos) {
        result.insert(std::min(result.find(L"S:"), result.size()), nullList);
    }
    return result;
}
