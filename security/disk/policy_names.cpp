#include "security/disk/policy_names.h"

#include "runtime/exception.h"

#include <limits>

namespace DiskSecurity {

namespace {

// Combinations of the file rights of their own: "ReadAndDelete" is reading data and deleting, and
// nothing else; the removability names are for files that a hosting user may, or may not, remove.
constexpr AccessName accessTable[] = {
    {L"NoAccess", 0x00000000},         {L"Read", 0x00120089},
    {L"ReadAndExecute", 0x001200A9},   {L"ReadAndDelete", 0x00010001},
    {L"ReadWrite", 0x0012019F},        {L"Modify", 0x001301BF},
    {L"FullAccess", 0x001F01FF},       {L"FileRemovable", 0x000D0150},
    {L"FileNonRemovable", 0x001200AF}, {L"FtpSubaccountsNonRemovable", 0x000D0156},
    {L"SpecialModify", 0x00120026},
};

constexpr AceFlagsName aceFlagsTable[] = {
    {L"ThisObjectOnly", 0},
    {L"ThisFolderAndFiles", OBJECT_INHERIT_ACE},
    {L"ThisFolderAndSubfolders", CONTAINER_INHERIT_ACE},
    {L"ThisFolderSubfoldersAndFiles", CONTAINER_INHERIT_ACE | OBJECT_INHERIT_ACE},
    {L"FilesOnly", INHERIT_ONLY_ACE | OBJECT_INHERIT_ACE},
    {L"SubfoldersOnly", INHERIT_ONLY_ACE | CONTAINER_INHERIT_ACE},
    {L"SubfoldersAndFilesOnly", INHERIT_ONLY_ACE | CONTAINER_INHERIT_ACE | OBJECT_INHERIT_ACE},
};

// RasServers is the alias of that number in the builtin domain. The group "RAS and IAS Servers"
// that domain controllers have besides belongs to one domain, and no policy could name it for all.
constexpr AccountName accountTable[] = {
    {L"Null", L"S-1-0-0", 0},
    {L"Everyone", L"S-1-1-0", 0},
    {L"Local", L"S-1-2-0", 0},
    {L"CreatorOwner", L"S-1-3-0", 0},
    {L"CreatorGroup", L"S-1-3-1", 0},
    {L"CreatorOwnerServer", L"S-1-3-2", 0},
    {L"CreatorGroupServer", L"S-1-3-3", 0},
    {L"Dialup", L"S-1-5-1", 0},
    {L"Network", L"S-1-5-2", 0},
    {L"Batch", L"S-1-5-3", 0},
    {L"Interactive", L"S-1-5-4", 0},
    {L"Service", L"S-1-5-6", 0},
    {L"AnonymousLogon", L"S-1-5-7", 0},
    {L"Proxy", L"S-1-5-8", 0},
    {L"ServerLogon", L"S-1-5-9", 0},
    {L"Self", L"S-1-5-10", 0},
    {L"AuthenticatedUser", L"S-1-5-11", 0},
    {L"RestrictedCode", L"S-1-5-12", 0},
    {L"TerminalServer", L"S-1-5-13", 0},
    {L"System", L"S-1-5-18", 0},
    {L"LocalService", L"S-1-5-19", 0},
    {L"NetworkService", L"S-1-5-20", 0},
    {L"ThisOrganization", L"S-1-5-15", 0},
    {L"Administrators", L"S-1-5-32-544", 0},
    {L"Users", L"S-1-5-32-545", 0},
    {L"Guests", L"S-1-5-32-546", 0},
    {L"PowerUsers", L"S-1-5-32-547", 0},
    {L"RemoteDesktopUsers", L"S-1-5-32-555", 0},
    {L"AccountOps", L"S-1-5-32-548", 0},
    {L"SystemOps", L"S-1-5-32-549", 0},
    {L"PrintOps", L"S-1-5-32-550", 0},
    {L"BackupOps", L"S-1-5-32-551", 0},
    {L"Replicator", L"S-1-5-32-552", 0},
    {L"RasServers", L"S-1-5-32-553", 0},
    {L"PreW2kCompAccess", L"S-1-5-32-554", 0},
    {L"Administrator", nullptr, DOMAIN_USER_RID_ADMIN},
    {L"Guest", nullptr, DOMAIN_USER_RID_GUEST},
};

// The value of a digit in any base; 16 for what is no digit.
unsigned digitOf(wchar_t c) {
    if (c >= L'0' && c <= L'9') {
        return static_cast<unsigned>(c - L'0');
    }
    if (c >= L'a' && c <= L'f') {
        return static_cast<unsigned>(c - L'a') + 10;
    }
    if (c >= L'A' && c <= L'F') {
        return static_cast<unsigned>(c - L'A') + 10;
    }
    return 16;
}

} // namespace

std::span<const AccessName> accessNames() {
    return accessTable;
}

std::span<const AceFlagsName> aceFlagsNames() {
    return aceFlagsTable;
}

std::span<const AccountName> accountNames() {
    return accountTable;
}

std::uint32_t toInteger(std::wstring_view text) {
    unsigned base = 10;
    std::wstring_view digits = text;
    if (digits.starts_with(L"0x") || digits.starts_with(L"0X")) {
        base = 16;
        digits.remove_prefix(2);
    } else if (digits.size() > 1 && digits.front() == L'0') {
        base = 8;
        digits.remove_prefix(1);
    }
    std::uint64_t number = 0;
    bool whole = !digits.empty();
    for (const wchar_t c : digits) {
        const unsigned digit = digitOf(c);
        number = number * base + digit;
        whole = digit < base && number <= std::numeric_limits<std::uint32_t>::max();
        if (!whole) {
            break;
        }
    }
    if (!whole) {
        throw vexception(L"Unable to convert from '" + std::wstring(text) + L"' to integer type.",
                         {L"", "DiskSecurity::toInteger", __LINE__});
    }
    return static_cast<std::uint32_t>(number);
}

} // namespace DiskSecurity
