#include "security/descriptor_bytes.h"

#include "security/sid.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace RunTime {

namespace {

constexpr std::size_t usualBytes = 1024;

// The header of a self-relative descriptor, copied out: the bytes need not be aligned.
SECURITY_DESCRIPTOR_RELATIVE headerOf(const void* bytes) noexcept {
    SECURITY_DESCRIPTOR_RELATIVE header;
    std::memcpy(&header, bytes, sizeof(header));
    return header;
}

// What lies at and behind an offset; nothing for one past the end.
std::span<const unsigned char> from(const void* bytes, std::size_t count, DWORD offset) noexcept {
    const std::span<const unsigned char> all(static_cast<const unsigned char*>(bytes), count);
    return all.subspan(std::min<std::size_t>(offset, count));
}

// Size of the list that the bytes begin with; 0 when it does not lie within them.
std::size_t listSize(std::span<const unsigned char> bytes) noexcept {
    ACL list;
    if (bytes.size() < sizeof(list)) {
        return 0;
    }
    std::memcpy(&list, bytes.data(), sizeof(list));
    return list.AclSize >= sizeof(list) && list.AclSize <= bytes.size() ? list.AclSize : 0;
}

// How far the parts of a whole descriptor reach.
std::size_t usedBytes(const DescriptorBytes& bytes) noexcept {
    const SECURITY_DESCRIPTOR_RELATIVE header = headerOf(bytes.data());
    std::size_t end = sizeof(header);
    const auto reach = [&](DWORD offset, auto length) {
        if (offset != 0) {
            end = std::max(end, offset + length(from(bytes.data(), bytes.size(), offset)));
        }
    };
    reach(header.Owner, sidLength);
    reach(header.Group, sidLength);
    reach(header.Dacl, listSize);
    reach(header.Sacl, listSize);
    return end;
}

bool same(std::span<const unsigned char> a, std::span<const unsigned char> b) noexcept {
    return (a.data() == nullptr) == (b.data() == nullptr) && std::ranges::equal(a, b);
}

} // namespace

DWORD readDescriptor(HANDLE handle, bool audit, DescriptorBytes& bytes) {
    const SECURITY_INFORMATION parts =
        OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION |
        (audit ? static_cast<SECURITY_INFORMATION>(SACL_SECURITY_INFORMATION) : 0);
    bytes.resize(std::max(bytes.capacity(), usualBytes));
    DWORD needed = 0;
    while (!::GetKernelObjectSecurity(handle, parts, bytes.data(), static_cast<DWORD>(bytes.size()),
                                      &needed)) {
        const DWORD code = ::GetLastError();
        if (code != ERROR_INSUFFICIENT_BUFFER || needed <= bytes.size()) {
            bytes.clear();
            return code;
        }
        bytes.resize(needed);
    }
    if (!isWholeDescriptor(bytes.data(), bytes.size())) {
        bytes.clear();
        return ERROR_INVALID_SECURITY_DESCR;
    }
    bytes.resize(usedBytes(bytes)); // gaps included, which the system's own length leaves out
    return ERROR_SUCCESS;
}

bool isWholeDescriptor(const void* bytes, std::size_t count) noexcept {
    if (count < sizeof(SECURITY_DESCRIPTOR_RELATIVE)) {
        return false;
    }
    const SECURITY_DESCRIPTOR_RELATIVE header = headerOf(bytes);
    const auto wholeSid = [&](DWORD offset) {
        return offset == 0 || sidLength(from(bytes, count, offset)) != 0;
    };
    const auto wholeList = [&](DWORD offset) {
        return offset == 0 || listSize(from(bytes, count, offset)) != 0;
    };
    return header.Revision == SECURITY_DESCRIPTOR_REVISION && (header.Control & SE_SELF_RELATIVE) &&
           wholeSid(header.Owner) && wholeSid(header.Group) && wholeList(header.Dacl) &&
           wholeList(header.Sacl);
}

DescriptorParts partsOf(const DescriptorBytes& bytes) noexcept {
    const SECURITY_DESCRIPTOR_RELATIVE header = headerOf(bytes.data());
    const auto part = [&](DWORD offset, auto length) {
        const auto rest = from(bytes.data(), bytes.size(), offset);
        return offset == 0 ? std::span<const unsigned char>() : rest.first(length(rest));
    };
    // A list that is not marked as present counts for nothing, whatever the offset says.
    return {header.Control, part(header.Owner, sidLength), part(header.Group, sidLength),
            part((header.Control & SE_DACL_PRESENT) ? header.Dacl : 0, listSize),
            part((header.Control & SE_SACL_PRESENT) ? header.Sacl : 0, listSize)};
}

DWORD writeDescriptor(HANDLE handle, DescriptorBytes& bytes, bool owner, bool audit) noexcept {
    const SECURITY_DESCRIPTOR_RELATIVE header = headerOf(bytes.data());
    SECURITY_INFORMATION parts = 0;
    if (header.Control & SE_DACL_PRESENT) {
        parts |= DACL_SECURITY_INFORMATION;
    }
    if (audit && (header.Control & SE_SACL_PRESENT)) {
        parts |= SACL_SECURITY_INFORMATION;
    }
    if (owner && header.Owner != 0) {
        parts |= OWNER_SECURITY_INFORMATION;
    }
    if (owner && header.Group != 0) {
        parts |= GROUP_SECURITY_INFORMATION;
    }
    if (parts == 0) {
        return ERROR_SUCCESS;
    }
    // The system clears the auto-inherited flags of what it is given unless they are asked for.
    SECURITY_DESCRIPTOR_RELATIVE asking = header;
    if (header.Control & SE_DACL_AUTO_INHERITED) {
        asking.Control |= SE_DACL_AUTO_INHERIT_REQ;
    }
    if (header.Control & SE_SACL_AUTO_INHERITED) {
        asking.Control |= SE_SACL_AUTO_INHERIT_REQ;
    }
    std::memcpy(bytes.data(), &asking, sizeof(asking));
    const DWORD code =
        ::SetKernelObjectSecurity(handle, parts, bytes.data()) ? ERROR_SUCCESS : ::GetLastError();
    std::memcpy(bytes.data(), &header, sizeof(header));
    return code;
}

void requireDacl(DescriptorBytes& bytes) noexcept {
    SECURITY_DESCRIPTOR_RELATIVE header = headerOf(bytes.data());
    if ((header.Control & SE_DACL_PRESENT) == 0) {
        header.Control |= SE_DACL_PRESENT;
        header.Dacl = 0;
        std::memcpy(bytes.data(), &header, sizeof(header));
    }
}

bool sameDescriptor(const DescriptorBytes& present, const DescriptorBytes& wanted, bool owner,
                    bool audit) noexcept {
    if (present.empty() || wanted.empty()) {
        return false;
    }
    const DescriptorParts a = partsOf(present);
    const DescriptorParts b = partsOf(wanted);
    constexpr WORD daclFlags = SE_DACL_PRESENT | SE_DACL_PROTECTED | SE_DACL_AUTO_INHERITED;
    constexpr WORD saclFlags = SE_SACL_PRESENT | SE_SACL_PROTECTED | SE_SACL_AUTO_INHERITED;
    const WORD compared = audit ? daclFlags | saclFlags : daclFlags;
    return (a.control & compared) == (b.control & compared) && same(a.dacl, b.dacl) &&
           (!audit || same(a.sacl, b.sacl)) &&
           (!owner || (same(a.owner, b.owner) && same(a.group, b.group)));
}

} // namespace RunTime
