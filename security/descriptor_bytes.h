// Security descriptors of existing items, carried as bytes: what the system wrote is not re-sorted,
// because that can change access.
#pragma once

#include <span>
#include <vector>
#include <windows.h>

namespace RunTime {

// A self-relative descriptor. Empty: none was read.
using DescriptorBytes = std::vector<unsigned char>;

// Reads owner, group, DACL and, with audit, the SACL (the handle then has ACCESS_SYSTEM_SECURITY,
// else READ_CONTROL is enough) into bytes, whose capacity is used again. Returns a Win32 code.
DWORD readDescriptor(HANDLE handle, bool audit, DescriptorBytes& bytes);

// Whether the bytes hold a whole, valid descriptor: nothing in it reaches past its end.
bool isWholeDescriptor(const void* bytes, std::size_t count) noexcept;

// Where the parts of a whole descriptor lie within its bytes; no data: it has none. An access list
// without data grants everything to everybody (SE_DACL_PRESENT or not), one without entries grants
// nothing.
struct DescriptorParts {
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    std::span<const unsigned char> owner;
    std::span<const unsigned char> group;
    std::span<const unsigned char> dacl; // room at the end included; entries are not checked
    std::span<const unsigned char> sacl;
};
DescriptorParts partsOf(const DescriptorBytes& bytes) noexcept;

// Writes the parts of a whole descriptor that it has: the DACL, null and empty ones kept apart (the
// handle needs WRITE_DAC), with audit the SACL (ACCESS_SYSTEM_SECURITY), with owner the owner and
// group (WRITE_OWNER). Protected and auto-inherited flags arrive as they are. The bytes are changed
// for the call and put back. Returns a Win32 code.
DWORD writeDescriptor(HANDLE handle, DescriptorBytes& bytes, bool owner, bool audit) noexcept;

// Marks a whole descriptor as one that has a DACL: a null list where it has none, which means the
// same, and is written.
void requireDacl(DescriptorBytes& bytes) noexcept;

// Whether writeDescriptor() with these parts would change an item that has present into wanted.
bool sameDescriptor(const DescriptorBytes& present, const DescriptorBytes& wanted, bool owner,
                    bool audit) noexcept;

} // namespace RunTime
