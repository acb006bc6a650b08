#include "security/hosting/item_access.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "security/acl.h"

#include <algorithm>
#include <cstring>

namespace HostingSecurity {

namespace {

using RunTime::Ace;
using RunTime::AceSubject;
using Bytes = std::span<const unsigned char>;

constexpr BYTE inheritFlags = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;

struct Creators {
    Bytes owner;
    Bytes group;
};

// Entries of types that neither grant nor deny are not handed down: no directory has them in its
// list of access.
template <class Visit>
void forEachAce(Bytes list, Visit visit) {
    while (!list.empty()) {
        const Ace ace(reinterpret_cast<const ACE_HEADER*>(list.data()));
        if (ace.effect() != RunTime::AceEffect::Other && ace.sid() != nullptr) {
            visit(ace);
        }
        list = list.subspan(ace.bytes().size());
    }
}

// S-1-3-0 and S-1-3-1, or neither.
bool isCreator(PSID sid, DWORD which) {
    constexpr SID_IDENTIFIER_AUTHORITY authority = SECURITY_CREATOR_SID_AUTHORITY;
    const auto* bytes = static_cast<const SID*>(sid);
    return bytes->SubAuthorityCount == 1 && bytes->SubAuthority[0] == which &&
           std::memcmp(&bytes->IdentifierAuthority, &authority, sizeof(authority)) == 0;
}

// Appends a copy with other flags; with a trustee and mask of its own where these are given.
void appendCopy(AceList& list, const Ace& ace, BYTE flags, ACCESS_MASK mask, Bytes trustee) {
    const Bytes from = ace.bytes();
    const auto* sid = static_cast<const unsigned char*>(ace.sid());
    const auto sidOffset = static_cast<std::size_t>(sid - from.data());
    const std::size_t sidSize = RunTime::sidLength(from.subspan(sidOffset));
    const std::size_t begin = list.size();
    list.insert(list.end(), from.begin(), from.begin() + sidOffset);
    const Bytes own = from.subspan(sidOffset, sidSize);
    const Bytes put = trustee.empty() ? own : trustee;
    list.insert(list.end(), put.begin(), put.end());
    list.insert(list.end(), from.begin() + sidOffset + sidSize, from.end());
    list[begin + offsetof(ACE_HEADER, AceFlags)] = flags;
    const auto size = static_cast<WORD>(list.size() - begin);
    std::memcpy(&list[begin + offsetof(ACE_HEADER, AceSize)], &size, sizeof(size));
    std::memcpy(&list[begin + sizeof(ACE_HEADER)], &mask, sizeof(mask));
}

// What an item gets of one entry of its directory. Where the entry would mean something else for
// the item than for those below it (rights of a kind, the creator), it comes as two. Without an
// owner only what goes further down is made. True when the item's owner or group was wanted.
bool inherit(AceList& list, const Ace& ace, AceSubject kind, const Creators* creators) {
    const BYTE flags = ace.flags();
    const bool below = kind == AceSubject::Directory && (flags & inheritFlags) != 0 &&
                       (flags & NO_PROPAGATE_INHERIT_ACE) == 0;
    const bool effective =
        (flags & (kind == AceSubject::Directory ? CONTAINER_INHERIT_ACE : OBJECT_INHERIT_ACE)) != 0;
    const bool owner = isCreator(ace.sid(), SECURITY_CREATOR_OWNER_RID);
    const bool group = isCreator(ace.sid(), SECURITY_CREATOR_GROUP_RID);
    GENERIC_MAPPING mapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE,
                               FILE_ALL_ACCESS};
    ACCESS_MASK mask = ace.mask();
    ::MapGenericMask(&mask, &mapping);
    const bool two = owner || group || mask != ace.mask();
    const BYTE kept = flags & inheritFlags;
    if (effective && below && !two) {
        appendCopy(list, ace, kept | INHERITED_ACE, mask, {});
        return false;
    }
    if (effective && creators != nullptr) {
        const Bytes trustee = owner ? creators->owner : group ? creators->group : Bytes();
        if (!(owner || group) || !trustee.empty()) {
            appendCopy(list, ace, INHERITED_ACE, mask, trustee);
        }
    }
    if (below) {
        appendCopy(list, ace, kept | INHERIT_ONLY_ACE | INHERITED_ACE, ace.mask(), {});
    }
    return effective && (owner || group);
}

bool hasObjectAces(Bytes aces) {
    bool found = false;
    forEachAce(aces, [&](const Ace& ace) {
        found |= ace.type() != ACCESS_ALLOWED_ACE_TYPE && ace.type() != ACCESS_DENIED_ACE_TYPE;
    });
    return found;
}

// Puts the header of a list in front of entries, for which room was left.
void finishList(std::vector<unsigned char>& list) {
    WORD count = 0;
    const Bytes aces = Bytes(list).subspan(sizeof(ACL));
    for (Bytes rest = aces; !rest.empty(); ++count) {
        rest = rest.subspan(Ace(reinterpret_cast<const ACE_HEADER*>(rest.data())).bytes().size());
    }
    if (list.size() > RunTime::Acl::largestSize) {
        _throwError(formatString(L"Unable to hold (%lu) bytes in an ACL",
                                 static_cast<unsigned long>(list.size()))
                        .c_str(),
                    ERROR_ALLOTTED_SPACE_EXCEEDED,
                    {L"", "HostingSecurity::ItemAccess::list", __LINE__});
    }
    const BYTE revision = hasObjectAces(aces) ? ACL_REVISION_DS : ACL_REVISION;
    const ACL header = {revision, 0, static_cast<WORD>(list.size()), count, 0};
    std::memcpy(list.data(), &header, sizeof(header));
}

} // namespace

void appendAce(AceList& list, BYTE type, BYTE flags, ACCESS_MASK mask,
               const RunTime::Sid& trustee) {
    const Bytes sid = trustee.bytes();
    const std::size_t begin = list.size();
    const std::size_t size = sizeof(ACE_HEADER) + sizeof(mask) + sid.size();
    list.resize(begin + size);
    const ACE_HEADER header = {type, flags, static_cast<WORD>(size)};
    std::memcpy(&list[begin], &header, sizeof(header));
    std::memcpy(&list[begin + sizeof(header)], &mask, sizeof(mask));
    std::ranges::copy(sid, list.begin() + begin + sizeof(header) + sizeof(mask));
}

AceList asFileHasThem(const AceList& list) {
    AceList result;
    forEachAce(list, [&](const Ace& ace) {
        if ((ace.flags() & INHERIT_ONLY_ACE) == 0) {
            appendCopy(result, ace, 0, ace.mask(), {});
        }
    });
    return result;
}

ItemAccess::ItemAccess(const ItemAccess* above, AceSubject kind, const AceList& explicitEntries,
                       bool isProtected)
    : kind_(kind), protected_(isProtected), explicit_(explicitEntries) {
    if (above != nullptr && !isProtected) {
        source_ = above->inheritable_;
    }
    if (kind == AceSubject::Directory) {
        forEachAce(explicit_, [&](const Ace& ace) {
            if ((ace.flags() & inheritFlags) != 0) {
                const Bytes bytes = ace.bytes();
                inheritable_.insert(inheritable_.end(), bytes.begin(), bytes.end());
            }
        });
        forEachAce(source_, [&](const Ace& ace) { inherit(inheritable_, ace, kind, nullptr); });
    }
}

ItemAccess::ItemAccess(const RunTime::DescriptorBytes& directory)
    : kind_(AceSubject::Directory), protected_(true) {
    const RunTime::DescriptorParts parts = RunTime::partsOf(directory);
    if (RunTime::aclLength(parts.dacl) == 0) {
        return; // none, or no whole one: nothing can be inherited
    }
    const RunTime::Acl present = RunTime::Acl::fromBytes(parts.dacl);
    for (const Ace ace : present) {
        if ((ace.flags() & inheritFlags) != 0) {
            const Bytes bytes = ace.bytes();
            inheritable_.insert(inheritable_.end(), bytes.begin(), bytes.end());
        }
    }
}

ItemAccess::~ItemAccess() = default;

const ItemAccess& ItemAccess::child(AceSubject kind) const {
    std::unique_ptr<ItemAccess>& kept = kind == AceSubject::File ? file_ : directory_;
    if (!kept) {
        // From the second level on all directories without entries are alike.
        if (kind == AceSubject::Directory && kind_ == kind && !protected_ && explicit_.empty() &&
            source_ == inheritable_) {
            return *this;
        }
        kept = std::make_unique<ItemAccess>(this, kind, AceList(), false);
    }
    return *kept;
}

bool ItemAccess::matches(const RunTime::DescriptorBytes& present) const {
    const RunTime::DescriptorParts parts = RunTime::partsOf(present);
    if (parts.dacl.data() == nullptr || ((parts.control & SE_DACL_PROTECTED) != 0) != protected_) {
        return false;
    }
    const Bytes expected = list(parts.owner, parts.group);
    ACL header;
    ACL wantedHeader;
    std::memcpy(&header, parts.dacl.data(), sizeof(header));
    std::memcpy(&wantedHeader, expected.data(), sizeof(wantedHeader));
    if (header.AceCount != wantedHeader.AceCount || parts.dacl.size() < expected.size()) {
        return false; // the same entries take the same room
    }
    if (std::ranges::equal(expected.subspan(sizeof(ACL)),
                           parts.dacl.subspan(sizeof(ACL), expected.size() - sizeof(ACL)))) {
        return true;
    }
    return RunTime::aclLength(parts.dacl) != 0 &&
           RunTime::Acl::fromBytes(parts.dacl) == RunTime::Acl::fromBytes(expected);
}

std::span<const unsigned char> ItemAccess::list(Bytes owner, Bytes group) const {
    if (!list_.empty() && (!namesCreator_ || (std::ranges::equal(owner, owner_) &&
                                              std::ranges::equal(group, group_)))) {
        return list_;
    }
    const Creators creators = {owner, group};
    list_.assign(sizeof(ACL), 0);
    list_.insert(list_.end(), explicit_.begin(), explicit_.end());
    namesCreator_ = false;
    forEachAce(source_,
               [&](const Ace& ace) { namesCreator_ |= inherit(list_, ace, kind_, &creators); });
    finishList(list_);
    owner_.assign(owner.begin(), owner.end());
    group_.assign(group.begin(), group.end());
    return list_;
}

RunTime::DescriptorBytes ItemAccess::wanted(const RunTime::DescriptorBytes& present) const {
    const RunTime::DescriptorParts parts = RunTime::partsOf(present);
    const Bytes expected = list(parts.owner, parts.group);
    SECURITY_DESCRIPTOR_RELATIVE header = {};
    header.Revision = SECURITY_DESCRIPTOR_REVISION;
    header.Control = SE_SELF_RELATIVE | SE_DACL_PRESENT | SE_DACL_AUTO_INHERITED |
                     (protected_ ? SE_DACL_PROTECTED : 0);
    header.Dacl = sizeof(header);
    RunTime::DescriptorBytes bytes(sizeof(header) + expected.size());
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::ranges::copy(expected, bytes.begin() + sizeof(header));
    return bytes;
}

} // namespace HostingSecurity
