// One entry of an access-control list, as it lies in the list.
#pragma once

#include "security/sid.h"

#include <cstddef>
#include <iterator>
#include <span>
#include <windows.h>

namespace RunTime {

// Whether it takes part in deciding on access, and how.
enum class AceEffect { Grants, Denies, Other };

// A view: valid until the list changes. Only whole entries get here (see isWholeAce), so what is
// read lies within the entry.
class Ace {
public:
    explicit Ace(const ACE_HEADER* header) noexcept : header_(header) {}

    const ACE_HEADER* header() const noexcept { return header_; }
    std::span<const unsigned char> bytes() const noexcept;
    BYTE type() const noexcept { return header_->AceType; }
    BYTE flags() const noexcept { return header_->AceFlags; } // INHERITED_ACE, ...
    AceEffect effect() const noexcept;
    bool isInherited() const noexcept { return (flags() & INHERITED_ACE) != 0; }

    // Null and 0 for the types whose inside is not known here: compound entries and later ones.
    PSID sid() const noexcept;
    ACCESS_MASK mask() const noexcept;
    // Null where the entry names none.
    const GUID* objectType() const noexcept;
    const GUID* inheritedObjectType() const noexcept;

    // Whether all bytes are equal.
    friend bool operator==(const Ace& left, const Ace& right) noexcept;

private:
    const GUID* guid(DWORD flag) const noexcept;

    const ACE_HEADER* header_;
};

// Whether the bytes begin with an entry that ends within them: its size is a multiple of 4, and
// holds mask, object types and SID where the type has these.
bool isWholeAce(std::span<const unsigned char> bytes) noexcept;

// Walks the entries of a list in the order in which they are stored.
class AceIterator {
public:
    using iterator_concept = std::forward_iterator_tag;
    using difference_type = std::ptrdiff_t;
    using value_type = Ace;

    AceIterator() = default;
    AceIterator(const ACE_HEADER* header, DWORD index) noexcept : header_(header), index_(index) {}

    Ace operator*() const noexcept { return Ace(header_); }
    AceIterator& operator++() noexcept;
    AceIterator operator++(int) noexcept;
    DWORD index() const noexcept { return index_; } // counts from 0
    friend bool operator==(const AceIterator& left, const AceIterator& right) noexcept {
        return left.index_ == right.index_;
    }

private:
    const ACE_HEADER* header_ = nullptr;
    DWORD index_ = 0;
};

} // namespace RunTime
