// The words of a disk security policy file, and what each stands for. Words are compared letter by
// letter, upper and lower case being different.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <windows.h>

namespace DiskSecurity {

struct AccessName {
    const wchar_t* name;
    ACCESS_MASK value;
};

struct AceFlagsName {
    const wchar_t* name;
    std::uint8_t value;
};

// An account by its SID, or one of the machine's own accounts by the last part of its SID.
struct AccountName {
    const wchar_t* name;
    const wchar_t* sid; // null for an account of the machine
    DWORD rid;          // 0 for a SID that is the same everywhere
};

// The tables, in the order in which messages list them.
std::span<const AccessName> accessNames();
std::span<const AceFlagsName> aceFlagsNames();
std::span<const AccountName> accountNames();

// The row of that name; null when there is none.
template <class Row>
const Row* findName(std::span<const Row> table, std::wstring_view name) {
    for (const Row& row : table) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

// The row of that value; null when there is none.
template <class Row, class Value>
const Row* findValue(std::span<const Row> table, Value value) {
    for (const Row& row : table) {
        if (value == row.value) {
            return &row;
        }
    }
    return nullptr;
}

// ", known names are:" and the names of a table, one per line: the end of the message about a word
// that is not in it.
template <class Row>
std::wstring knownNames(std::span<const Row> table) {
    std::wstring text = L", known names are:";
    for (const Row& row : table) {
        text.append(L"\n").append(row.name);
    }
    return text;
}

// An unsigned 32-bit number: decimal, hexadecimal behind "0x", octal behind "0". Throws vexception
// "Unable to convert from '%s' to integer type." for anything else: signs, blanks, no digits at
// all, digits of another base, a number that is too large.
std::uint32_t toInteger(std::wstring_view text);

} // namespace DiskSecurity
