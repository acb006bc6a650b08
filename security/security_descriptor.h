// An absolute security descriptor that owns what it points to: owner, group and access list.
//
//     RunTime::SecurityDescriptor descriptor;
//     descriptor.owner(administrators);
//     descriptor.dacl(list);
//     ::SetFileSecurityW(path, DACL_SECURITY_INFORMATION, descriptor);
//
// For composing new descriptors; existing ones are carried as bytes (security/descriptor_bytes.h).
// A value; one thread at a time. One that was moved from can be assigned to or set anew.
#pragma once

#include "runtime/auto_ptr.h"
#include "security/acl.h"
#include "security/sid.h"

#include <string>
#include <windows.h>

namespace RunTime {

class SecurityDescriptor {
public:
    // Without owner, group and lists. "Unable to allocate new SECURITY_DESCRIPTOR", "Unable to
    // initialize SECURITY_DESCRIPTOR" and those of Acl::clear().
    SecurityDescriptor();
    SecurityDescriptor(const SecurityDescriptor& other);
    SecurityDescriptor(SecurityDescriptor&& other) noexcept = default;
    SecurityDescriptor& operator=(const SecurityDescriptor& other);
    SecurityDescriptor& operator=(SecurityDescriptor&& other) noexcept = default;
    ~SecurityDescriptor() = default;

    // Both ways in the text form "O:BAG:SYD:PAI(A;;FA;;;BA)S:(...)": lists as they stand, protected
    // and auto-inherited flags, a null list of access ("D:NO_ACCESS_CONTROL"). "Unable to convert a
    // text to a security descriptor", "Unable to convert a security descriptor to text".
    static SecurityDescriptor fromSddl(const std::wstring& text);
    std::wstring sddl() const;

    // Each is copied and then put in. After a failure the descriptor is what it was.
    // The list is ordered by that. "Unable to set SECURITY_DESCRIPTOR DACL" and those of
    // Acl::copy().
    void dacl(const ACL* source);
    // An empty Sid takes the owner, or group, out. "Unable to set SECURITY_DESCRIPTOR owner",
    // "Unable to set SECURITY_DESCRIPTOR group".
    void owner(const Sid& sid);
    void group(const Sid& sid);

    const Acl& dacl() const noexcept { return dacl_; }
    const Sid& owner() const noexcept { return owner_; }
    const Sid& group() const noexcept { return group_; }
    const Acl& sacl() const noexcept { return sacl_; } // of fromSddl()

    // For calls of the system; valid until the object changes.
    operator PSECURITY_DESCRIPTOR() const noexcept { return descriptor_.get(); }

private:
    void initialize();
    void connect(const SECURITY_DESCRIPTOR& model);

    FreePtr<SECURITY_DESCRIPTOR> descriptor_;
    Sid owner_;
    Sid group_;
    Acl dacl_;
    Acl sacl_;
};

} // namespace RunTime
