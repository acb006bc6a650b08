#include "security/acl.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "security/sddl.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <source_location>
#include <utility>
#include <vector>

namespace RunTime {

namespace {

// The position of a type is its place in a list.
constexpr BYTE order[] = {ACCESS_DENIED_ACE_TYPE, ACCESS_DENIED_OBJECT_ACE_TYPE,
                          ACCESS_ALLOWED_ACE_TYPE, ACCESS_ALLOWED_OBJECT_ACE_TYPE};

std::optional<std::size_t> rankOf(const ACE_HEADER& ace) noexcept {
    const auto* const row = std::find(std::begin(order), std::end(order), ace.AceType);
    if (row == std::end(order)) {
        return std::nullopt;
    }
    return (row - std::begin(order)) + ((ace.AceFlags & INHERITED_ACE) ? std::size(order) : 0);
}

// A list by its pointer: its own size bounds what is read of it.
bool isWhole(const ACL* list) noexcept {
    return list != nullptr && list->AclSize >= sizeof(ACL) &&
           aclLength({reinterpret_cast<const unsigned char*>(list), list->AclSize}) != 0;
}

// A whole list's count of entries, bytes in use and bytes free.
ACL_SIZE_INFORMATION sizeOf(const ACL* list, const char* function,
                            std::source_location location = std::source_location::current()) {
    ACL_SIZE_INFORMATION information{};
    if (!::GetAclInformation(const_cast<ACL*>(list), &information, sizeof(information),
                             AclSizeInformation)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to get ACL size", code,
                    {L"", function, static_cast<std::int32_t>(location.line())});
    }
    return information;
}

// The same of a list that somebody handed in.
ACL_SIZE_INFORMATION
sizeOfForeign(const ACL* list, const char* function,
              std::source_location location = std::source_location::current()) {
    if (!isWhole(list)) {
        _throwError(L"Unable to get ACL size", ERROR_INVALID_ACL,
                    {L"", function, static_cast<std::int32_t>(location.line())});
    }
    return sizeOf(list, function, location);
}

FreePtr<ACL> allocate(DWORD size, const char* function,
                      std::source_location location = std::source_location::current()) {
    FreePtr<ACL> list(static_cast<ACL*>(std::malloc(size)));
    if (!list) {
        throw vexception(L"Unable to allocate new ACL",
                         {L"", function, static_cast<std::int32_t>(location.line())});
    }
    return list;
}

void initialize(ACL* list, DWORD size, const char* function,
                std::source_location location = std::source_location::current()) {
    if (!::InitializeAcl(list, size, ACL_REVISION)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to initialize ACL", code,
                    {L"", function, static_cast<std::int32_t>(location.line())});
    }
}

} // namespace

Acl::Acl(const Acl& other) {
    if (other.list_) {
        list_ = allocate(other.capacity(), "RunTime::Acl::Acl");
        std::memcpy(list_.get(), other.list_.get(), other.capacity());
    }
}

Acl& Acl::operator=(const Acl& other) {
    return *this = Acl(other);
}

Acl Acl::fromBytes(std::span<const unsigned char> bytes) {
    const std::size_t length = aclLength(bytes);
    if (length == 0) {
        _throwError(L"Invalid ACL", ERROR_INVALID_ACL, {L"", "RunTime::Acl::fromBytes", __LINE__});
    }
    Acl list;
    list.list_ = allocate(static_cast<DWORD>(length), "RunTime::Acl::fromBytes");
    std::memcpy(list.list_.get(), bytes.data(), length); // they need not be aligned
    return list;
}

Acl Acl::fromSddl(const std::wstring& text) {
    const LocalPtr<SECURITY_DESCRIPTOR, PSECURITY_DESCRIPTOR> parsed = descriptorFromSddl(text);
    BOOL present = FALSE;
    BOOL defaulted = FALSE;
    PACL list = nullptr;
    const DWORD code = ::GetSecurityDescriptorDacl(parsed.get(), &present, &list, &defaulted)
                           ? ERROR_INVALID_ACL
                           : ::GetLastError();
    if (!present || list == nullptr) {
        _throwError(L"Unable to find a list in the text", code,
                    {L"", "RunTime::Acl::fromSddl", __LINE__});
    }
    return fromBytes({reinterpret_cast<const unsigned char*>(list), list->AclSize});
}

std::wstring Acl::sddl() const {
    SECURITY_DESCRIPTOR carrier{};
    carrier.Revision = SECURITY_DESCRIPTOR_REVISION;
    carrier.Control = SE_DACL_PRESENT;
    ACL none{ACL_REVISION, 0, sizeof(ACL), 0, 0};
    carrier.Dacl = list_ ? list_.get() : &none;
    return sddlOf(&carrier, DACL_SECURITY_INFORMATION);
}

void Acl::clear() {
    FreePtr<ACL> fresh = allocate(emptySize, "RunTime::Acl::clear");
    initialize(fresh.get(), emptySize, "RunTime::Acl::clear");
    list_ = std::move(fresh);
}

void Acl::copy(const ACL* source) {
    if (source != nullptr && source == list_.get()) {
        const Acl same(*this); // the buffer is about to be emptied
        copy(same);
        return;
    }
    const ACL_SIZE_INFORMATION given = sizeOfForeign(source, "RunTime::Acl::copy");
    const DWORD needed = given.AclBytesInUse + given.AclBytesFree;
    DWORD size = 0;
    if (list_) {
        const ACL_SIZE_INFORMATION own = sizeOf(list_.get(), "RunTime::Acl::copy");
        size = own.AclBytesInUse + own.AclBytesFree;
    }
    if (needed > size) {
        FreePtr<ACL> larger = allocate(needed, "RunTime::Acl::copy");
        initialize(larger.get(), needed, "RunTime::Acl::copy");
        list_ = std::move(larger);
    } else {
        initialize(list_.get(), size, "RunTime::Acl::copy");
    }
    add(source);
}

void Acl::add(const ACL* source) {
    if (source != nullptr && source == list_.get()) {
        const Acl same(*this); // its entries are about to move
        add(same);
        return;
    }
    const DWORD count = sizeOfForeign(source, "RunTime::Acl::add").AceCount;
    for (DWORD i = 0; i < count; ++i) {
        void* ace = nullptr;
        if (!::GetAce(const_cast<ACL*>(source), i, &ace)) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to get ACL ACE", code, {L"", "RunTime::Acl::add", __LINE__});
        }
        place(static_cast<const ACE_HEADER*>(ace));
    }
}

void Acl::place(const ACE_HEADER* ace) {
    const DWORD index = getInsertionIndex(ace);
    ::SetLastError(ERROR_ALLOTTED_SPACE_EXCEEDED);
    if (!list_ ||
        !::AddAce(list_.get(), ACL_REVISION, index, const_cast<ACE_HEADER*>(ace), ace->AceSize)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to add ACE to ACL", code, {L"", "RunTime::Acl::add", __LINE__});
    }
}

void Acl::insert(const ACE_HEADER* ace) {
    // Growing moves the entries, and ace may be one of ours.
    const std::vector<DWORD> kept = [&] {
        if (ace == nullptr || ace->AceSize < sizeof(ACE_HEADER) ||
            !isWholeAce({reinterpret_cast<const unsigned char*>(ace), ace->AceSize})) {
            _throwError(L"Unable to add ACE to ACL", ERROR_INVALID_PARAMETER,
                        {L"", "RunTime::Acl::insert", __LINE__});
        }
        std::vector<DWORD> words(ace->AceSize / sizeof(DWORD));
        std::memcpy(words.data(), ace, ace->AceSize);
        return words;
    }();
    const auto* own = reinterpret_cast<const ACE_HEADER*>(kept.data());
    expand(nullptr, &own, 1);
    place(own);
}

void Acl::addAllowed(const Sid& trustee, ACCESS_MASK mask, BYTE flags) {
    addEntry(ACCESS_ALLOWED_ACE_TYPE, trustee, mask, flags);
}

void Acl::addDenied(const Sid& trustee, ACCESS_MASK mask, BYTE flags) {
    addEntry(ACCESS_DENIED_ACE_TYPE, trustee, mask, flags);
}

void Acl::addEntry(BYTE type, const Sid& trustee, ACCESS_MASK mask, BYTE flags) {
    struct { // grants and denials have the same shape
        ACE_HEADER header;
        ACCESS_MASK mask;
        unsigned char sid[SECURITY_MAX_SID_SIZE];
    } ace{};
    const std::span<const unsigned char> sid = trustee.bytes();
    std::copy(sid.begin(), sid.end(), ace.sid);
    ace.header = {type, flags, static_cast<WORD>(offsetof(decltype(ace), sid) + sid.size())};
    ace.mask = mask;
    insert(&ace.header);
}

DWORD Acl::getInsertionIndex(const ACE_HEADER* ace) const {
    const std::optional<std::size_t> rank = rankOf(*ace);
    if (!rank) {
        _throwError(L"Invalid ACE type", ERROR_INVALID_PARAMETER,
                    {L"", "RunTime::Acl::getInsertionIndex", __LINE__});
    }
    if (!list_) {
        return 0;
    }
    const ACL_SIZE_INFORMATION own = sizeOf(list_.get(), "RunTime::Acl::getInsertionIndex");
    const auto* const end = bytes().data() + own.AclBytesInUse;
    const ACE_HEADER* present = nullptr;
    for (DWORD index = 0; index < own.AceCount; ++index) {
        void* fetched = nullptr;
        DWORD code = ERROR_SUCCESS;
        if (index == 0) {
            code = ::GetAce(list_.get(), 0, &fetched) ? ERROR_SUCCESS : ::GetLastError();
            present = static_cast<const ACE_HEADER*>(fetched);
        } else {
            // GetAce would count from the first one again, which makes long lists slow.
            present = (*++AceIterator(present, index - 1)).header();
            code = reinterpret_cast<const unsigned char*>(present + 1) <= end ? ERROR_SUCCESS
                                                                              : ERROR_INVALID_ACL;
        }
        if (code != ERROR_SUCCESS) {
            _throwError(L"Unable to get ACL ACE", code,
                        {L"", "RunTime::Acl::getInsertionIndex", __LINE__});
        }
        const std::optional<std::size_t> other = rankOf(*present);
        if (!other) {
            _throwError(L"Unsupported ACE type in ACL", ERROR_INVALID_PARAMETER,
                        {L"", "RunTime::Acl::getInsertionIndex", __LINE__});
        }
        if (*other >= *rank) { // in front of the others of its rank
            return index;
        }
    }
    return own.AceCount;
}

DWORD Acl::calculateSize(const ACL* other, const ACE_HEADER* const* aces, DWORD count) const {
    DWORD size = sizeof(ACL);
    if (list_) {
        size += sizeOf(list_.get(), "RunTime::Acl::calculateSize").AclBytesInUse;
    }
    if (other != nullptr) {
        size += sizeOfForeign(other, "RunTime::Acl::calculateSize").AclBytesInUse;
    }
    for (DWORD i = 0; i < count; ++i) {
        size += aces[i]->AceSize;
    }
    return size;
}

void Acl::expand(const ACL* other, const ACE_HEADER* const* aces, DWORD count) {
    const DWORD calculated = calculateSize(other, aces, count);
    DWORD present = 0;
    if (list_) {
        const ACL_SIZE_INFORMATION own = sizeOf(list_.get(), "RunTime::Acl::expand");
        present = own.AclBytesInUse + own.AclBytesFree;
    }
    if (calculated <= present) {
        return;
    }
    // The calculated size counts a header for each list, while they will share one.
    const DWORD headers = (list_ ? 1 : 0) + (other != nullptr ? 1 : 0);
    const DWORD least = calculated - headers * static_cast<DWORD>(sizeof(ACL));
    if (least > largestSize) {
        _throwError(formatString(L"Unable to hold (%lu) bytes in an ACL", least).c_str(),
                    ERROR_ALLOTTED_SPACE_EXCEEDED, {L"", "RunTime::Acl::expand", __LINE__});
    }
    const DWORD size = std::min(calculated * 2, largestSize);
    if (size <= present) {
        return; // it is as large as a list can be, and what has to go in fits
    }
    Acl larger;
    larger.list_ = allocate(size, "RunTime::Acl::expand");
    initialize(larger.list_.get(), size, "RunTime::Acl::expand");
    if (list_) {
        larger.add(list_.get());
    }
    list_ = std::move(larger.list_);
}

Ace Acl::getAce(DWORD index) const {
    void* ace = nullptr;
    ::SetLastError(ERROR_INVALID_PARAMETER);
    if (!list_ || !::GetAce(list_.get(), index, &ace)) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"Unable to get ACL ACE (%d)", index).c_str(), code,
                    {L"", "RunTime::Acl::getAce", __LINE__});
    }
    return Ace(static_cast<const ACE_HEADER*>(ace));
}

AceIterator Acl::begin() const noexcept {
    return {reinterpret_cast<const ACE_HEADER*>(list_.get() + 1), 0};
}

AceIterator Acl::end() const noexcept {
    return {nullptr, aceCount()};
}

AceIterator Acl::findAce(const ACE_HEADER* ace) const noexcept {
    return std::find(begin(), end(), Ace(ace));
}

AceIterator Acl::findSid(const Sid& trustee) const noexcept {
    return std::find_if(begin(), end(), [&](const Ace& ace) {
        return trustee && ace.sid() != nullptr && ::EqualSid(ace.sid(), trustee.get());
    });
}

void Acl::deleteAce(DWORD index) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    if (!list_ || !::DeleteAce(list_.get(), index)) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"Unable to delete ACL ACE (%d)", index).c_str(), code,
                    {L"", "RunTime::Acl::deleteAce", __LINE__});
    }
}

std::span<const unsigned char> Acl::bytes() const noexcept {
    return {reinterpret_cast<const unsigned char*>(list_.get()), capacity()};
}

bool operator==(const Acl& left, const Acl& right) {
    const std::vector<Ace> ours(left.begin(), left.end());
    const std::vector<Ace> theirs(right.begin(), right.end());
    if (ours.size() != theirs.size()) {
        return false;
    }
    // Runs of one rank; an entry without a rank is a run of its own.
    for (std::size_t first = 0, next = 0; first < ours.size(); first = next) {
        const std::optional<std::size_t> rank = rankOf(*ours[first].header());
        do {
            ++next;
        } while (rank && next < ours.size() && rankOf(*ours[next].header()) == rank);
        if (!std::is_permutation(ours.begin() + first, ours.begin() + next,
                                 theirs.begin() + first)) {
            return false;
        }
    }
    return true;
}

std::optional<DWORD> firstOutOfOrder(const Acl& list) {
    int reached = 0;
    for (AceIterator at = list.begin(); at != list.end(); ++at) {
        const AceEffect effect = (*at).effect();
        if (effect == AceEffect::Other) {
            continue;
        }
        const int place = (*at).isInherited() ? 2 : effect == AceEffect::Denies ? 0 : 1;
        if (place < reached) {
            return at.index();
        }
        reached = place;
    }
    return std::nullopt;
}

std::size_t aclLength(std::span<const unsigned char> bytes) noexcept {
    ACL header;
    if (bytes.size() < sizeof(header)) {
        return 0;
    }
    std::memcpy(&header, bytes.data(), sizeof(header));
    if (header.AclRevision < ACL_REVISION || header.AclRevision > ACL_REVISION_DS ||
        header.AclSize < sizeof(header) || header.AclSize > bytes.size()) {
        return 0;
    }
    std::span<const unsigned char> rest = bytes.subspan(sizeof(header));
    rest = rest.first(header.AclSize - sizeof(header));
    for (WORD i = 0; i < header.AceCount; ++i) {
        if (!isWholeAce(rest)) {
            return 0;
        }
        ACE_HEADER ace;
        std::memcpy(&ace, rest.data(), sizeof(ace));
        rest = rest.subspan(ace.AceSize);
    }
    return header.AclSize;
}

} // namespace RunTime
