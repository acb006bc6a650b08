// Security structures made byte by byte, for tests of what reads and composes them.
#pragma once

#include "tests/support/import_patch.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <type_traits>
#include <vector>
#include <windows.h>

namespace raw {

using Bytes = std::vector<std::uint8_t>; // aligned as malloc aligns

inline void append(Bytes& to, const void* bytes, std::size_t count) {
    to.resize(to.size() + count);
    std::memcpy(to.data() + to.size() - count, bytes, count);
}
template <class T>
requires std::is_trivially_copyable_v<T>
void append(Bytes& to, const T& value) {
    append(to, &value, sizeof(value));
}
inline void append(Bytes& to, const Bytes& value) {
    append(to, value.data(), value.size());
}

// Authority 5 ("S-1-5-...").
inline Bytes sid(std::initializer_list<DWORD> subAuthorities) {
    Bytes result = {
        SID_REVISION, static_cast<std::uint8_t>(subAuthorities.size()), 0, 0, 0, 0, 0, 5};
    for (const DWORD value : subAuthorities) {
        append(result, value);
    }
    return result;
}

// An entry of the given type; tail is what follows the mask.
inline Bytes ace(BYTE type, BYTE flags, ACCESS_MASK mask, const Bytes& tail) {
    Bytes result;
    append(result, ACE_HEADER{type, flags, static_cast<WORD>(8 + tail.size())});
    append(result, mask);
    append(result, tail);
    return result;
}

inline Bytes acl(const std::vector<Bytes>& aces, std::size_t room = 0) {
    std::size_t size = sizeof(ACL) + room;
    for (const Bytes& one : aces) {
        size += one.size();
    }
    Bytes result;
    append(result,
           ACL{ACL_REVISION, 0, static_cast<WORD>(size), static_cast<WORD>(aces.size()), 0});
    for (const Bytes& one : aces) {
        append(result, one);
    }
    result.resize(size);
    return result;
}

inline const ACE_HEADER* header(const Bytes& ace) {
    return reinterpret_cast<const ACE_HEADER*>(ace.data());
}
inline ACL* list(const Bytes& acl) {
    return reinterpret_cast<ACL*>(const_cast<std::uint8_t*>(acl.data()));
}

} // namespace raw

// AddAce as Windows has it, while the object lives: Wine's appends, whatever the index.
class AddAceInPlace {
public:
    AddAceInPlace() : patch_("AddAce", &addAce) {}

private:
    static BOOL WINAPI addAce(PACL list, DWORD, DWORD index, LPVOID entries, DWORD length) {
        void* end = nullptr;
        const auto* first = static_cast<const std::uint8_t*>(entries);
        WORD count = 0;
        for (DWORD at = 0; at < length; ++count) {
            at += reinterpret_cast<const ACE_HEADER*>(first + at)->AceSize;
        }
        if (!::FindFirstFreeAce(list, &end) || end == nullptr ||
            static_cast<std::uint8_t*>(end) + length >
                reinterpret_cast<std::uint8_t*>(list) + list->AclSize) {
            ::SetLastError(ERROR_ALLOTTED_SPACE_EXCEEDED);
            return FALSE;
        }
        auto* place = reinterpret_cast<std::uint8_t*>(list + 1);
        for (DWORD i = 0; i < index && i < list->AceCount; ++i) {
            place += reinterpret_cast<ACE_HEADER*>(place)->AceSize;
        }
        std::memmove(place + length, place, static_cast<std::uint8_t*>(end) - place);
        std::memcpy(place, first, length);
        list->AceCount = static_cast<WORD>(list->AceCount + count);
        return TRUE;
    }

    ImportPatch patch_;
};

// No memory for requests of one size.
class MallocFault {
public:
    explicit MallocFault(std::size_t size) : patch_("malloc", &limited) {
        failing = size;
        real = patch_.original<decltype(&std::malloc)>();
    }
    ~MallocFault() { failing.reset(); }

private:
    static void* __cdecl limited(std::size_t size) {
        return failing && size == *failing ? nullptr : real(size);
    }
    static inline std::optional<std::size_t> failing;
    static inline decltype(&std::malloc) real = nullptr;

    ImportPatch patch_;
};
