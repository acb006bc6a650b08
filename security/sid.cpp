#include "security/sid.h"

#include "runtime/accounts/token.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "security/sddl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <lm.h>
#include <sddl.h>
#include <utility>
#include <vector>

namespace RunTime {

Sid::Sid(const Sid& other) {
    copy(other.get());
    accountName_ = other.accountName_;
    domain_ = other.domain_;
    type_ = other.type_;
}

Sid::Sid(Sid&& other) noexcept
    : sid_(std::move(other.sid_)), accountName_(std::move(other.accountName_)),
      domain_(std::move(other.domain_)), type_(other.type_) {
    other.clear();
}

Sid& Sid::operator=(const Sid& other) {
    return *this = Sid(other);
}

Sid& Sid::operator=(Sid&& other) noexcept {
    if (this != &other) {
        sid_ = std::move(other.sid_);
        accountName_ = std::move(other.accountName_);
        domain_ = std::move(other.domain_);
        type_ = other.type_;
        other.clear();
    }
    return *this;
}

Sid::Sid(const std::wstring& text) {
    load(text);
}

Sid::Sid(const wchar_t* server, DWORD rid) {
    NetBuffer<USER_MODALS_INFO_2, LPBYTE> modals;
    const NET_API_STATUS status = ::NetUserModalsGet(server, 2, modals.put());
    if (status != NERR_Success) {
        _throwError(formatString(L"Unable to get the domain (%s) SID", server).c_str(), status,
                    {L"", "RunTime::Sid::Sid", __LINE__});
    }
    const PSID domainSid = modals->usrmod2_domain_id;
    if (domainSid == nullptr || !::IsValidSid(domainSid) ||
        *::GetSidSubAuthorityCount(domainSid) >= SID_MAX_SUB_AUTHORITIES) {
        _throwError(L"Unable to copy domain sid", ERROR_INVALID_SID,
                    {L"", "RunTime::Sid::Sid", __LINE__});
    }
    const UCHAR count = *::GetSidSubAuthorityCount(domainSid);
    const DWORD size = ::GetSidLengthRequired(static_cast<UCHAR>(count + 1));
    FreePtr<SID, PSID> made(allocSidBuffer(size));
    ::SetLastError(ERROR_INVALID_SID);
    if (!::CopySid(size, made.get(), domainSid)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to copy domain sid", code, {L"", "RunTime::Sid::Sid", __LINE__});
    }
    *::GetSidSubAuthorityCount(made.get()) = static_cast<UCHAR>(count + 1);
    *::GetSidSubAuthority(made.get(), count) = rid;
    sid_ = std::move(made);
}

Sid Sid::fromBytes(std::span<const unsigned char> bytes) {
    const std::size_t length = sidLength(bytes);
    if (length == 0) {
        _throwError(L"Invalid sid", ERROR_INVALID_SID, {L"", "RunTime::Sid::fromBytes", __LINE__});
    }
    Sid sid;
    sid.sid_ = allocSidBuffer(static_cast<DWORD>(length));
    std::memcpy(sid.sid_.get(), bytes.data(), length); // they need not be aligned
    return sid;
}

Sid Sid::wellKnown(WELL_KNOWN_SID_TYPE type) {
    alignas(SID) unsigned char buffer[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(buffer);
    if (!::CreateWellKnownSid(type, nullptr, buffer, &size)) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"Unable to create a well-known sid (%d)", type).c_str(), code,
                    {L"", "RunTime::Sid::wellKnown", __LINE__});
    }
    return fromBytes({buffer, size});
}

Sid Sid::current() {
    const AutoHandle token = openTokenInForce(TOKEN_QUERY, "RunTime::Sid::current", __LINE__);
    alignas(TOKEN_USER) unsigned char buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!::GetTokenInformation(token.get(), TokenUser, buffer, sizeof(buffer), &size)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to get the user of a token", code,
                    {L"", "RunTime::Sid::current", __LINE__});
    }
    Sid sid;
    sid.copy(reinterpret_cast<const TOKEN_USER*>(buffer)->User.Sid);
    return sid;
}

void Sid::load(const std::wstring& text) {
    LocalPtr<SID, PSID> converted;
    ::SetLastError(ERROR_INVALID_SID);
    // The system would read no further than to an embedded zero, and take the half for the whole.
    if (text.find(L'\0') != text.npos || !::ConvertStringSidToSidW(text.c_str(), converted.put())) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to convert a string to SID", code,
                    {L"", "RunTime::Sid::load", __LINE__});
    }
    copy(converted.get());
}

void Sid::copy(PSID sid) {
    const FreePtr<SID, PSID> old = std::move(sid_); // sid may be our own
    clear();
    if (sid == nullptr) {
        return;
    }
    ::SetLastError(ERROR_INVALID_SID); // the check need not set a code of its own
    if (!::IsValidSid(sid)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Invalid sid", code, {L"", "RunTime::Sid::copy", __LINE__});
    }
    const DWORD length = ::GetLengthSid(sid);
    sid_ = allocSidBuffer(length);
    ::SetLastError(ERROR_INVALID_SID);
    if (!::CopySid(length, sid_.get(), sid)) {
        const DWORD code = ::GetLastError();
        clear();
        _throwError(L"Unable to copy sid", code, {L"", "RunTime::Sid::copy", __LINE__});
    }
}

void Sid::clear() noexcept {
    sid_ = nullptr;
    type_ = SidTypeUnknown;
    accountName_.clear();
    domain_.clear();
}

PSID Sid::allocSidBuffer(DWORD size) {
    PSID buffer = std::malloc(size);
    if (buffer == nullptr) {
        throw vexception(formatString(L"Unable to allocate (%d) bytes", size),
                         {L"", "RunTime::Sid::allocSidBuffer", __LINE__});
    }
    return buffer;
}

const std::wstring& Sid::accountName() const {
    requireNames("RunTime::Sid::accountName");
    return accountName_;
}

const std::wstring& Sid::domain() const {
    requireNames("RunTime::Sid::domain");
    return domain_;
}

void Sid::requireNames(const char* function) const {
    const DWORD code = lookUp();
    if (code != ERROR_SUCCESS) {
        _throwError(L"Unable to look up the account of a SID", code, {L"", function, __LINE__});
    }
}

bool Sid::accountExists() const {
    if (!sid_) {
        return false;
    }
    // A longer name fails for want of room, and is a name all the same.
    wchar_t name[32];
    wchar_t domainName[32];
    DWORD nameLength = 32;
    DWORD domainLength = 32;
    SID_NAME_USE use = SidTypeUnknown;
    return ::LookupAccountSidW(nullptr, get(), name, &nameLength, domainName, &domainLength,
                               &use) ||
           ::GetLastError() != ERROR_NONE_MAPPED;
}

std::wstring Sid::string() const {
    LocalPtr<wchar_t> text;
    ::SetLastError(ERROR_INVALID_SID);
    if (!sid_ || !::ConvertSidToStringSidW(get(), text.put())) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to convert a SID to it's string form", code,
                    {L"", "RunTime::Sid::string", __LINE__});
    }
    return text.get();
}

std::wstring Sid::sddl() const {
    SECURITY_DESCRIPTOR carrier{};
    carrier.Revision = SECURITY_DESCRIPTOR_REVISION;
    carrier.Owner = get();
    return sid_ ? sddlOf(&carrier, OWNER_SECURITY_INFORMATION).substr(2) : string(); // "O:" before
}

std::wstring Sid::niceName() const {
    return accountExists() && lookUp() == ERROR_SUCCESS ? domain_ + L"\\" + accountName_ : string();
}

std::span<const unsigned char> Sid::bytes() const noexcept {
    return {static_cast<const unsigned char*>(get()), sid_ ? ::GetLengthSid(get()) : 0};
}

bool operator==(const Sid& left, const Sid& right) noexcept {
    return std::ranges::equal(left.bytes(), right.bytes());
}

bool operator<(const Sid& left, const Sid& right) noexcept {
    return std::ranges::lexicographical_compare(left.bytes(), right.bytes());
}

DWORD Sid::lookUp() const {
    if (!sid_) {
        return ERROR_INVALID_SID;
    }
    if (type_ != SidTypeUnknown) {
        return ERROR_SUCCESS;
    }
    std::wstring name(64, L'\0');
    std::wstring domainName(64, L'\0');
    for (int attempt = 0;; ++attempt) {
        auto nameLength = static_cast<DWORD>(name.size());
        auto domainLength = static_cast<DWORD>(domainName.size());
        SID_NAME_USE use = SidTypeUnknown;
        if (::LookupAccountSidW(nullptr, get(), name.data(), &nameLength, domainName.data(),
                                &domainLength, &use)) {
            name.resize(nameLength);
            domainName.resize(domainLength);
            accountName_ = std::move(name);
            domain_ = std::move(domainName);
            type_ = use;
            return ERROR_SUCCESS;
        }
        const DWORD code = ::GetLastError();
        if (code != ERROR_INSUFFICIENT_BUFFER || attempt == 3) {
            return code;
        }
        // A terminator may be missing in the sizes asked for.
        name.resize(std::max<std::size_t>(name.size(), nameLength + 1));
        domainName.resize(std::max<std::size_t>(domainName.size(), domainLength + 1));
    }
}

std::size_t sidLength(std::span<const unsigned char> bytes) noexcept {
    constexpr std::size_t fixed = 8; // revision, number of sub-authorities, authority
    if (bytes.size() < fixed || bytes[0] != SID_REVISION || bytes[1] > SID_MAX_SUB_AUTHORITIES) {
        return 0;
    }
    const std::size_t length = fixed + bytes[1] * sizeof(DWORD);
    return length <= bytes.size() ? length : 0;
}

} // namespace RunTime
