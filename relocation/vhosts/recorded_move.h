// What the record of a move of the virtual hosts tells (relocation/vhosts/move_record.h): what has
// been begun, and how everything was before.
#pragma once

#include "relocation/vhosts/link_relink.h"
#include "relocation/vhosts/saved_file.h"
#include "runtime/exception.h"
#include "security/hosting/item_identity.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>
#include <windows.h>

// What may have to be put back. The numbers are in records: none is ever given another meaning.
enum class MovePart : DWORD {
    FtpSites = 1,
    Setting = 2, // "HTTPD_VHOSTS_D"
    Installer = 3,
    Servers = 4,
    Webmail = 5,
    Tree = 6,
    Sites = 7,
    Users = 8,
    WwwRoot = 9,
    AppVault = 10,
    AspNet = 11,
    Php = 12,
    Target = 13, // directories made for it
    Links = 14,  // in a tree that was renamed
};
inline constexpr MovePart lastMovePart = MovePart::Links;

struct RecordedMove {
    enum class Way : DWORD { None, Copy, Rename }; // of the tree

    struct Value {
        std::wstring key; // below HKEY_LOCAL_MACHINE
        std::wstring name;
        std::wstring before; // as it is stored
        std::wstring after;
    };
    struct User {
        std::wstring login;
        std::wstring home;                       // in the database
        std::wstring newHome;                    // the same for both
        std::optional<std::wstring> accountHome; // none: the account has not been touched
        bool quotaMoved = false;
        std::optional<std::uint64_t> oldQuota; // on the new volume
    };
    struct Root {
        std::wstring before;
        std::wstring after;
    };

    std::int64_t begun = 0; // when: FILETIME as a number
    std::wstring setting;   // "HTTPD_VHOSTS_D"
    std::wstring from;      // nice form, as given; later as the move has made them
    std::wstring to;
    std::set<MovePart> parts; // begun
    bool completed = false;   // all steps have been done
    bool committing = false;  // old copies may be gone

    std::vector<Value> values;      // the installer's
    std::vector<std::wstring> made; // directories made for the target, outermost first
    std::vector<User> users;
    Way way = Way::None;
    HostingSecurity::ItemIdentity tree;         // of the directory that moves, where it was
    std::wstring targetAside;                   // where a rename has put what stood in its place
    std::wstring log;                           // of a copy
    std::map<std::wstring, std::wstring> sites; // by name: old path
    bool hasRoots = false;
    std::map<std::wstring, Root> roots; // document roots, by the domain's id
    std::wstring serversAside;
    std::optional<SavedFile::Stamp> webmail;
    std::vector<LinkRelink::Changed> links; // paths below the directory
};

// The bytes are no record of a move, not all of one, or say what no move does.
class MoveRecordException : public vexception {
    using vexception::vexception;
};

// Takes the bytes for what anybody may have written. What is missing at their end was not acted on
// and is passed over, so that a move without a whole record has no parts; anything else that is not
// as it was written is refused (MoveRecordException).
RecordedMove readRecordedMove(std::span<const unsigned char> bytes);
