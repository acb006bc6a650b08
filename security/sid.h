// A security identifier with the name of its account. A value: it owns a private copy of the bytes,
// and never points into a buffer of somebody else.
//
//     const RunTime::Sid administrators(L"S-1-5-32-544");
//     log(administrators.niceName()); // "BUILTIN\Administrators"
//
// No locks: one thread at a time. Even reading the names writes them, since they are looked up when
// first asked for.
#pragma once

#include "runtime/auto_ptr.h"

#include <cstddef>
#include <span>
#include <string>
#include <windows.h>

namespace RunTime {

class Sid {
public:
    // Empty: no SID, no names, SidTypeUnknown.
    Sid() = default;
    Sid(const Sid& other);
    Sid(Sid&& other) noexcept; // leaves the other empty
    Sid& operator=(const Sid& other);
    Sid& operator=(Sid&& other) noexcept;
    ~Sid() = default;

    // From the text "S-1-5-32-544", as load().
    explicit Sid(const std::wstring& text);

    // The account rid in the account domain of a server (null: this machine), such as 500 for its
    // built-in administrator. "Unable to get the domain (%s) SID" with the NetAPI's status,
    // "Unable to copy domain sid".
    Sid(const wchar_t* server, DWORD rid);

    // From a SID at the beginning of bytes that nobody has vetted; what follows it is ignored.
    // "Invalid sid" when the bytes end before it does, or when it has too many sub-authorities.
    static Sid fromBytes(std::span<const unsigned char> bytes);

    // One that needs no domain, such as WinWorldSid. "Unable to create a well-known sid (%d)".
    static Sid wellKnown(WELL_KNOWN_SID_TYPE type);

    // The user of the calling thread where it impersonates, otherwise of the process.
    // "Unable to open token", "Unable to get the user of a token".
    static Sid current();

    // From its text; the two letters of a well-known SID in SDDL, such as "BA", are understood too.
    // "Unable to convert a string to SID"; the Sid is then what it was.
    void load(const std::wstring& text);

    // A copy of the given SID (which may be this one's own), without its names; null empties. The
    // pointer must be to a whole SID: for bytes from outside there is fromBytes(). "Invalid sid",
    // "Unable to copy sid"; the Sid is then empty.
    void copy(PSID sid);

    void clear() noexcept;

    // Buffers for SIDs come from malloc, and go by free. "Unable to allocate (%d) bytes".
    static PSID allocSidBuffer(DWORD size);

    // Looked up once, together. "Unable to look up the account of a SID": VNoneMappedException
    // when there is none.
    const std::wstring& accountName() const;
    const std::wstring& domain() const;
    SID_NAME_USE type() const noexcept { return type_; } // SidTypeUnknown before a look-up

    // Only a clear "no such account" of the system counts as no; it counts as yes when the system
    // cannot tell. An empty Sid has no account.
    bool accountExists() const;

    // "S-1-5-...". "Unable to convert a SID to it's string form".
    std::wstring string() const;

    // As SDDL writes it: the two letters of a well-known SID, otherwise the same as string().
    std::wstring sddl() const;

    // For messages: domain, backslash and account name; string() for an account that is gone, or
    // whose name cannot be had just now.
    std::wstring niceName() const;

    // For functions of the system; null when empty. Its bytes are valid until the Sid changes.
    PSID get() const noexcept { return sid_.get(); }
    std::span<const unsigned char> bytes() const noexcept;
    explicit operator bool() const noexcept { return static_cast<bool>(sid_); }

    // Two Sids are equal when their bytes are. The order is total, the empty Sid comes first;
    // beyond that it means nothing.
    friend bool operator==(const Sid& left, const Sid& right) noexcept;
    friend bool operator<(const Sid& left, const Sid& right) noexcept;

private:
    DWORD lookUp() const; // a Win32 code
    void requireNames(const char* function) const;

    FreePtr<SID, PSID> sid_;
    mutable std::wstring accountName_;
    mutable std::wstring domain_;
    mutable SID_NAME_USE type_ = SidTypeUnknown;
};

// Length of the SID that these bytes begin with; 0 when they do not hold a whole one.
std::size_t sidLength(std::span<const unsigned char> bytes) noexcept;

} // namespace RunTime
