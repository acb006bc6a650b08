// An access-control list that keeps its entries in canonical order while one composes it:
//
//     RunTime::Acl acl;
//     acl.addAllowed(administrators, FILE_ALL_ACCESS, OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE);
//     acl.addDenied(guests, FILE_GENERIC_WRITE);
//     descriptor.dacl(acl); // the denial stands first
//     for (const RunTime::Ace ace : acl) { ... }
//
// The order: denials, then grants, all explicit entries before all inherited ones; within each of
// these, plain entries before those for objects. A new entry goes in front of the others of its
// rank, so adding entries one by one turns the order of equals round. It is for lists that we
// compose: re-sorting what the system wrote can change what it means (inherited entries are ordered
// by level), so existing lists are carried as bytes (security/descriptor_bytes.h).
//
// A value; one thread at a time. A list that is moved from, or new, has no buffer: it is empty, has
// no room, and is not a list for the system's calls (clear() makes it one).
#pragma once

#include "runtime/auto_ptr.h"
#include "security/ace.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <windows.h>

namespace RunTime {

class Acl {
public:
    // What clear() makes, and the largest list that there can be: its size is a 16-bit number, and
    // entries are multiples of 4.
    static constexpr DWORD emptySize = 268;
    static constexpr DWORD largestSize = 65532;

    Acl() = default;
    Acl(const Acl& other); // the same entries in the same order, with the same room
    Acl(Acl&& other) noexcept = default;
    Acl& operator=(const Acl& other);
    Acl& operator=(Acl&& other) noexcept = default;
    ~Acl() = default;

    // The list at the beginning of bytes that nobody has vetted, entry for entry as it stands (copy
    // it to order it); what follows it is ignored. Entries of any type may be in it. "Invalid ACL"
    // when anything in it does not fit: the list into the bytes, the entries into the list, a SID
    // into its entry.
    static Acl fromBytes(std::span<const unsigned char> bytes);

    // Both ways in the text form "D:(A;;FA;;;BA)", entries as they stand. Texts with a null list
    // ("Unable to find a list in the text") are refused: a null list grants everything to
    // everybody. "Unable to convert a text to a security descriptor", "Unable to convert a security
    // descriptor to text".
    static Acl fromSddl(const std::wstring& text);
    std::wstring sddl() const;

    // An empty list with 268 bytes of room. "Unable to allocate new ACL", "Unable to initialize
    // ACL"; the list is then what it was.
    void clear();

    // Pointers to lists have no length but the one in them: it bounds all that is read, and a list
    // that does not keep to it is refused before anything is changed.

    // Makes this list an ordered copy. Room is taken over too; the buffer is used again where it is
    // large enough. "Unable to get ACL size", "Unable to allocate new ACL", "Unable to initialize
    // ACL", and those of add(). The old list may be gone after a failure, and some entries of the
    // source be in; the object is usable.
    void copy(const ACL* source);

    // Inserts every entry at its place, which needs room made before: see expand(). "Unable to get
    // ACL size", "Unable to get ACL ACE", "Unable to add ACE to ACL" and those of
    // getInsertionIndex(). The entries before the failing one are in.
    void add(const ACL* source);

    // One entry, room made for it.
    void insert(const ACE_HEADER* ace);
    void addAllowed(const Sid& trustee, ACCESS_MASK mask, BYTE flags = 0);
    void addDenied(const Sid& trustee, ACCESS_MASK mask, BYTE flags = 0);

    // Where an entry has to go. "Invalid ACE type" (audit, alarm, callback and later types cannot
    // be added), "Unsupported ACE type in ACL" (such a type is in this list).
    DWORD getInsertionIndex(const ACE_HEADER* ace) const;

    // Bytes that this list, the entries of another one (may be null) and some more entries need,
    // with some to spare.
    DWORD calculateSize(const ACL* other, const ACE_HEADER* const* aces, DWORD count) const;

    // Makes room for them. A list that has to grow gets twice the calculated size, as far as lists
    // can have it, and is ordered by that. "Unable to hold (%lu) bytes in an ACL" when no list can
    // hold the entries. After a failure the list is what it was.
    void expand(const ACL* other, const ACE_HEADER* const* aces, DWORD count);

    DWORD aceCount() const noexcept { return list_ ? list_->AceCount : 0; }
    // "Unable to get ACL ACE (%d)".
    Ace getAce(DWORD index) const;
    AceIterator begin() const noexcept;
    AceIterator end() const noexcept;
    // The first that has all these bytes, or this trustee; end() when there is none.
    AceIterator findAce(const ACE_HEADER* ace) const noexcept;
    AceIterator findSid(const Sid& trustee) const noexcept;
    // "Unable to delete ACL ACE (%d)".
    void deleteAce(DWORD index);
    void deleteAce(const AceIterator& position) { deleteAce(position.index()); }

    // For calls of the system; null without a buffer.
    operator PACL() const noexcept { return list_.get(); }
    std::span<const unsigned char> bytes() const noexcept; // room at the end included

    // Whether both have the same entries, but for the order within a rank, which means nothing.
    // Room does not count. Entries of types without a rank have to stand at the same place.
    friend bool operator==(const Acl& left, const Acl& right);

private:
    DWORD capacity() const noexcept { return list_ ? list_->AclSize : 0; }
    void place(const ACE_HEADER* ace);
    void addEntry(BYTE type, const Sid& trustee, ACCESS_MASK mask, BYTE flags);

    FreePtr<ACL> list_;
};

// The first entry that stands behind one that it should stand before, counted from 0, by the rules
// that the system's own tools go by: explicit denials, explicit grants, and then what is inherited,
// in whatever order it came from above. Entries that neither grant nor deny stand anywhere.
std::optional<DWORD> firstOutOfOrder(const Acl& list);

// Length of the list that these bytes begin with, room at its end included; 0 when they do not hold
// a whole one.
std::size_t aclLength(std::span<const unsigned char> bytes) noexcept;

} // namespace RunTime
