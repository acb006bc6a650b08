#include "security/ace.h"

#include <algorithm>
#include <cstring>

namespace RunTime {

namespace {

constexpr std::size_t maskOffset = sizeof(ACE_HEADER);
constexpr std::size_t plainSidOffset = maskOffset + sizeof(ACCESS_MASK);
constexpr std::size_t objectFlagsOffset = plainSidOffset;
constexpr std::size_t guidsOffset = objectFlagsOffset + sizeof(DWORD);

enum class Layout { Plain, Object, Unknown };

Layout layoutOf(BYTE type) noexcept {
    switch (type) {
    case ACCESS_ALLOWED_ACE_TYPE:
    case ACCESS_DENIED_ACE_TYPE:
    case SYSTEM_AUDIT_ACE_TYPE:
    case SYSTEM_ALARM_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_ACE_TYPE:
    case ACCESS_DENIED_CALLBACK_ACE_TYPE:
    case SYSTEM_AUDIT_CALLBACK_ACE_TYPE:
    case SYSTEM_ALARM_CALLBACK_ACE_TYPE:
    case SYSTEM_MANDATORY_LABEL_ACE_TYPE:
    case SYSTEM_RESOURCE_ATTRIBUTE_ACE_TYPE:
    case SYSTEM_SCOPED_POLICY_ID_ACE_TYPE:
        return Layout::Plain;
    case ACCESS_ALLOWED_OBJECT_ACE_TYPE:
    case ACCESS_DENIED_OBJECT_ACE_TYPE:
    case SYSTEM_AUDIT_OBJECT_ACE_TYPE:
    case SYSTEM_ALARM_OBJECT_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE:
    case ACCESS_DENIED_CALLBACK_OBJECT_ACE_TYPE:
    case SYSTEM_AUDIT_CALLBACK_OBJECT_ACE_TYPE:
    case SYSTEM_ALARM_CALLBACK_OBJECT_ACE_TYPE:
        return Layout::Object;
    default:
        return Layout::Unknown;
    }
}

DWORD dwordAt(const unsigned char* bytes) noexcept {
    DWORD value = 0;
    std::memcpy(&value, bytes, sizeof(value));
    return value;
}

// Where the SID stands; object types stand before it, as many as the flags say. The bytes reach to
// guidsOffset for an entry of the object layout.
std::size_t sidOffset(Layout layout, const unsigned char* ace) noexcept {
    if (layout == Layout::Plain) {
        return plainSidOffset;
    }
    const DWORD flags = dwordAt(ace + objectFlagsOffset);
    return guidsOffset + ((flags & ACE_OBJECT_TYPE_PRESENT) ? sizeof(GUID) : 0) +
           ((flags & ACE_INHERITED_OBJECT_TYPE_PRESENT) ? sizeof(GUID) : 0);
}

} // namespace

std::span<const unsigned char> Ace::bytes() const noexcept {
    return {reinterpret_cast<const unsigned char*>(header_), header_->AceSize};
}

AceEffect Ace::effect() const noexcept {
    switch (type()) {
    case ACCESS_ALLOWED_ACE_TYPE:
    case ACCESS_ALLOWED_OBJECT_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_ACE_TYPE:
    case ACCESS_ALLOWED_CALLBACK_OBJECT_ACE_TYPE:
        return AceEffect::Grants;
    case ACCESS_DENIED_ACE_TYPE:
    case ACCESS_DENIED_OBJECT_ACE_TYPE:
    case ACCESS_DENIED_CALLBACK_ACE_TYPE:
    case ACCESS_DENIED_CALLBACK_OBJECT_ACE_TYPE:
        return AceEffect::Denies;
    default:
        return AceEffect::Other;
    }
}

PSID Ace::sid() const noexcept {
    const Layout layout = layoutOf(type());
    const unsigned char* begin = bytes().data();
    return layout == Layout::Unknown
               ? nullptr
               : const_cast<unsigned char*>(
                     begin + sidOffset(layout, begin)); // as the system's calls want it
}

ACCESS_MASK Ace::mask() const noexcept {
    return layoutOf(type()) == Layout::Unknown ? 0 : dwordAt(bytes().data() + maskOffset);
}

const GUID* Ace::objectType() const noexcept {
    return guid(ACE_OBJECT_TYPE_PRESENT);
}

const GUID* Ace::inheritedObjectType() const noexcept {
    return guid(ACE_INHERITED_OBJECT_TYPE_PRESENT);
}

const GUID* Ace::guid(DWORD flag) const noexcept {
    if (layoutOf(type()) != Layout::Object) {
        return nullptr;
    }
    const unsigned char* begin = bytes().data();
    const DWORD present = dwordAt(begin + objectFlagsOffset);
    if (!(present & flag)) {
        return nullptr;
    }
    const bool second = flag != ACE_OBJECT_TYPE_PRESENT && (present & ACE_OBJECT_TYPE_PRESENT);
    return reinterpret_cast<const GUID*>(begin + guidsOffset + (second ? sizeof(GUID) : 0));
}

bool operator==(const Ace& left, const Ace& right) noexcept {
    return std::ranges::equal(left.bytes(), right.bytes());
}

bool isWholeAce(std::span<const unsigned char> bytes) noexcept {
    ACE_HEADER header;
    if (bytes.size() < sizeof(header)) {
        return false;
    }
    std::memcpy(&header, bytes.data(), sizeof(header));
    if (header.AceSize < sizeof(header) || header.AceSize > bytes.size() ||
        header.AceSize % sizeof(DWORD) != 0) {
        return false;
    }
    const Layout layout = layoutOf(header.AceType);
    if (layout == Layout::Unknown) {
        return true;
    }
    if (layout == Layout::Object && header.AceSize < guidsOffset) {
        return false;
    }
    const std::size_t offset = sidOffset(layout, bytes.data());
    return offset <= header.AceSize &&
           sidLength(bytes.subspan(offset, header.AceSize - offset)) != 0;
}

AceIterator& AceIterator::operator++() noexcept {
    header_ = reinterpret_cast<const ACE_HEADER*>(reinterpret_cast<const unsigned char*>(header_) +
                                                  header_->AceSize);
    ++index_;
    return *this;
}

AceIterator AceIterator::operator++(int) noexcept {
    const AceIterator before = *this;
    ++*this;
    return before;
}

} // namespace RunTime
