#include "security/security_descriptor.h"

#include "runtime/exception.h"
#include "security/sddl.h"

#include <cstdlib>
#include <utility>

namespace RunTime {

SecurityDescriptor::SecurityDescriptor() {
    initialize();
    dacl_.clear();
    sacl_.clear();
}

SecurityDescriptor::SecurityDescriptor(const SecurityDescriptor& other)
    : owner_(other.owner_), group_(other.group_), dacl_(other.dacl_), sacl_(other.sacl_) {
    if (other.descriptor_) {
        initialize();
        connect(*other.descriptor_);
    }
}

SecurityDescriptor& SecurityDescriptor::operator=(const SecurityDescriptor& other) {
    return *this = SecurityDescriptor(other);
}

void SecurityDescriptor::initialize() {
    // The smallest absolute descriptor: 20 bytes where pointers have 4.
    FreePtr<SECURITY_DESCRIPTOR> fresh(
        static_cast<SECURITY_DESCRIPTOR*>(std::malloc(SECURITY_DESCRIPTOR_MIN_LENGTH)));
    if (!fresh) {
        throw vexception(L"Unable to allocate new SECURITY_DESCRIPTOR",
                         {L"", "RunTime::SecurityDescriptor::SecurityDescriptor", __LINE__});
    }
    if (!::InitializeSecurityDescriptor(fresh.get(), SECURITY_DESCRIPTOR_REVISION)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to initialize SECURITY_DESCRIPTOR", code,
                    {L"", "RunTime::SecurityDescriptor::SecurityDescriptor", __LINE__});
    }
    descriptor_ = std::move(fresh);
}

// Points to our own parts wherever the model has a part, and takes its flags.
void SecurityDescriptor::connect(const SECURITY_DESCRIPTOR& model) {
    descriptor_->Control = model.Control & ~SE_SELF_RELATIVE;
    descriptor_->Owner = model.Owner != nullptr ? owner_.get() : nullptr;
    descriptor_->Group = model.Group != nullptr ? group_.get() : nullptr;
    descriptor_->Dacl = model.Dacl != nullptr ? static_cast<PACL>(dacl_) : nullptr;
    descriptor_->Sacl = model.Sacl != nullptr ? static_cast<PACL>(sacl_) : nullptr;
}

SecurityDescriptor SecurityDescriptor::fromSddl(const std::wstring& text) {
    const LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> parsed = descriptorFromSddl(text);
    SECURITY_DESCRIPTOR model{};
    DWORD revision = 0;
    BOOL flag = FALSE;
    if (!::GetSecurityDescriptorControl(parsed.get(), &model.Control, &revision) ||
        !::GetSecurityDescriptorOwner(parsed.get(), &model.Owner, &flag) ||
        !::GetSecurityDescriptorGroup(parsed.get(), &model.Group, &flag) ||
        !::GetSecurityDescriptorDacl(parsed.get(), &flag, &model.Dacl, &flag) ||
        !::GetSecurityDescriptorSacl(parsed.get(), &flag, &model.Sacl, &flag)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to convert a text to a security descriptor", code,
                    {L"", "RunTime::SecurityDescriptor::fromSddl", __LINE__});
    }
    const auto list = [](const ACL* from) {
        return Acl::fromBytes({reinterpret_cast<const unsigned char*>(from), from->AclSize});
    };
    SecurityDescriptor result;
    result.owner_.copy(model.Owner);
    result.group_.copy(model.Group);
    if (model.Dacl != nullptr) {
        result.dacl_ = list(model.Dacl);
    }
    if (model.Sacl != nullptr) {
        result.sacl_ = list(model.Sacl);
    }
    result.connect(model);
    return result;
}

std::wstring SecurityDescriptor::sddl() const {
    SECURITY_INFORMATION parts = 0;
    if (descriptor_) {
        parts |= descriptor_->Owner != nullptr ? OWNER_SECURITY_INFORMATION : 0;
        parts |= descriptor_->Group != nullptr ? GROUP_SECURITY_INFORMATION : 0;
        parts |= (descriptor_->Control & SE_DACL_PRESENT) ? DACL_SECURITY_INFORMATION : 0;
        parts |= (descriptor_->Control & SE_SACL_PRESENT) ? SACL_SECURITY_INFORMATION : 0;
    }
    return parts != 0 ? sddlOf(descriptor_.get(), parts) : std::wstring();
}

// What comes in is built beside what is there: the descriptor never points to something released,
// and a failure leaves it as it was.

void SecurityDescriptor::dacl(const ACL* source) {
    Acl next(dacl_);
    next.copy(source);
    if (!descriptor_) {
        initialize();
    }
    if (!::SetSecurityDescriptorDacl(descriptor_.get(), TRUE, next, FALSE)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to set SECURITY_DESCRIPTOR DACL", code,
                    {L"", "RunTime::SecurityDescriptor::dacl", __LINE__});
    }
    dacl_ = std::move(next);
}

void SecurityDescriptor::owner(const Sid& sid) {
    Sid next(sid);
    if (!descriptor_) {
        initialize();
    }
    if (!::SetSecurityDescriptorOwner(descriptor_.get(), next.get(), FALSE)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to set SECURITY_DESCRIPTOR owner", code,
                    {L"", "RunTime::SecurityDescriptor::owner", __LINE__});
    }
    owner_ = std::move(next);
}

void SecurityDescriptor::group(const Sid& sid) {
    Sid next(sid);
    if (!descriptor_) {
        initialize();
    }
    if (!::SetSecurityDescriptorGroup(descriptor_.get(), next.get(), FALSE)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to set SECURITY_DESCRIPTOR group", code,
                    {L"", "RunTime::SecurityDescriptor::group", __LINE__});
    }
    group_ = std::move(next);
}

} // namespace RunTime
