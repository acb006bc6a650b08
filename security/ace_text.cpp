#include "security/ace_text.h"

#include "runtime/format_string.h"

#include <objbase.h>

namespace RunTime {

namespace {

struct Right {
    ACCESS_MASK bits;
    const wchar_t* onDirectory;
    const wchar_t* onFile;
};

// What the system's own tools grant by one name, the widest first. A denial of them leaves
// SYNCHRONIZE out, without which nothing could be opened any more.
constexpr Right together[] = {
    {FILE_ALL_ACCESS, L"full access", L"full access"},        {0x1301BF, L"modify", L"modify"},
    {0x1200A9, L"read and execute", L"read and execute"},     {FILE_GENERIC_READ, L"read", L"read"},
    {FILE_GENERIC_WRITE & ~READ_CONTROL, L"write", L"write"},
};

constexpr Right single[] = {
    {GENERIC_ALL, L"full access (generic)", L"full access (generic)"},
    {GENERIC_READ, L"read (generic)", L"read (generic)"},
    {GENERIC_WRITE, L"write (generic)", L"write (generic)"},
    {GENERIC_EXECUTE, L"execute (generic)", L"execute (generic)"},
    {FILE_LIST_DIRECTORY, L"list folder", L"read data"},
    {FILE_ADD_FILE, L"create files", L"write data"},
    {FILE_ADD_SUBDIRECTORY, L"create folders", L"append data"},
    {FILE_READ_EA, L"read extended attributes", L"read extended attributes"},
    {FILE_WRITE_EA, L"write extended attributes", L"write extended attributes"},
    {FILE_TRAVERSE, L"traverse folder", L"execute file"},
    {FILE_DELETE_CHILD, L"delete subfolders and files", L"delete subfolders and files"},
    {FILE_READ_ATTRIBUTES, L"read attributes", L"read attributes"},
    {FILE_WRITE_ATTRIBUTES, L"write attributes", L"write attributes"},
    {DELETE, L"delete", L"delete"},
    {READ_CONTROL, L"read permissions", L"read permissions"},
    {WRITE_DAC, L"change permissions", L"change permissions"},
    {WRITE_OWNER, L"take ownership", L"take ownership"},
    {SYNCHRONIZE, L"synchronize", L"synchronize"},
    {ACCESS_SYSTEM_SECURITY, L"read and change the audit list", L"read and change the audit list"},
    {MAXIMUM_ALLOWED, L"all that is allowed", L"all that is allowed"},
};

constexpr Right labels[] = {
    {SYSTEM_MANDATORY_LABEL_NO_WRITE_UP, L"no writing up", L"no writing up"},
    {SYSTEM_MANDATORY_LABEL_NO_READ_UP, L"no reading up", L"no reading up"},
    {SYSTEM_MANDATORY_LABEL_NO_EXECUTE_UP, L"no executing up", L"no executing up"},
};

void append(std::wstring& list, const std::wstring& word) {
    list += (list.empty() ? L"" : L", ") + word;
}

template <std::size_t Count>
void appendSingles(std::wstring& text, ACCESS_MASK left, const Right (&rights)[Count],
                   AceSubject subject) {
    for (const Right& right : rights) {
        if (left & right.bits) {
            append(text, subject == AceSubject::Directory ? right.onDirectory : right.onFile);
            left &= ~right.bits;
        }
    }
    if (left != 0) {
        append(text, formatString(L"0x%08lX", left));
    }
}

// What an entry does with its rights; null for a type that is not known.
const wchar_t* actionOf(const Ace& ace) {
    if (ace.effect() != AceEffect::Other) {
        return ace.effect() == AceEffect::Denies ? L"denied: " : L"";
    }
    switch (ace.type()) {
    case SYSTEM_AUDIT_ACE_TYPE:
    case SYSTEM_AUDIT_OBJECT_ACE_TYPE:
    case SYSTEM_AUDIT_CALLBACK_ACE_TYPE:
    case SYSTEM_AUDIT_CALLBACK_OBJECT_ACE_TYPE:
        switch (ace.flags() & (SUCCESSFUL_ACCESS_ACE_FLAG | FAILED_ACCESS_ACE_FLAG)) {
        case SUCCESSFUL_ACCESS_ACE_FLAG:
            return L"audited on success: ";
        case FAILED_ACCESS_ACE_FLAG:
            return L"audited on failure: ";
        case SUCCESSFUL_ACCESS_ACE_FLAG | FAILED_ACCESS_ACE_FLAG:
            return L"audited on success and failure: ";
        default:
            return L"never audited: ";
        }
    case SYSTEM_ALARM_ACE_TYPE:
    case SYSTEM_ALARM_OBJECT_ACE_TYPE:
    case SYSTEM_ALARM_CALLBACK_ACE_TYPE:
    case SYSTEM_ALARM_CALLBACK_OBJECT_ACE_TYPE:
        return L"alarm: ";
    case SYSTEM_MANDATORY_LABEL_ACE_TYPE:
        return L"integrity level: ";
    case SYSTEM_RESOURCE_ATTRIBUTE_ACE_TYPE:
        return L"resource attribute: ";
    case SYSTEM_SCOPED_POLICY_ID_ACE_TYPE:
        return L"central access policy: ";
    default:
        return nullptr;
    }
}

bool isConditional(BYTE type) {
    return type >= ACCESS_ALLOWED_CALLBACK_ACE_TYPE &&
           type <= SYSTEM_ALARM_CALLBACK_OBJECT_ACE_TYPE;
}

std::wstring reachOf(BYTE flags, AceSubject subject) {
    const bool itself = !(flags & INHERIT_ONLY_ACE);
    const bool folders = (flags & CONTAINER_INHERIT_ACE) != 0;
    const bool files = (flags & OBJECT_INHERIT_ACE) != 0;
    if (!folders && !files) {
        return !itself                       ? L"; without effect"
               : subject == AceSubject::File ? L""
                                             : L"; this folder only";
    }
    const wchar_t* below = folders && files ? L"subfolders and files"
                           : folders        ? L"subfolders"
                                            : L"files";
    const std::wstring text =
        std::wstring(itself ? (folders && files ? L"; this folder, " : L"; this folder and ")
                            : L"; ") +
        below + (itself ? L"" : L" only");
    return text + ((flags & NO_PROPAGATE_INHERIT_ACE) ? L"; one level down only" : L"");
}

// An entry of a directory that is for the files in it alone grants what these know, not folders.
AceSubject rightsOn(BYTE flags, AceSubject subject) {
    constexpr BYTE reach = INHERIT_ONLY_ACE | OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;
    return (flags & reach) == (INHERIT_ONLY_ACE | OBJECT_INHERIT_ACE) ? AceSubject::File : subject;
}

std::wstring textOf(const GUID& guid) {
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, 40);
    return text;
}

} // namespace

std::wstring describeAce(const Ace& ace, AceSubject subject) {
    const wchar_t* action = actionOf(ace);
    std::wstring text;
    if (action == nullptr) {
        text = formatString(L"entry of an unknown type, 0x%02X, with %d bytes", ace.type(),
                            static_cast<int>(ace.bytes().size()));
    } else {
        Sid sid;
        sid.copy(ace.sid());
        text = describeTrustee(sid) + L": " + action;
        if (ace.type() == SYSTEM_MANDATORY_LABEL_ACE_TYPE) {
            std::wstring rights;
            appendSingles(rights, ace.mask(), labels, subject);
            text += rights.empty() ? L"nothing kept out" : rights;
        } else {
            text += describeRights(ace.mask(), rightsOn(ace.flags(), subject),
                                   ace.effect() == AceEffect::Denies);
        }
    }
    text += reachOf(ace.flags(), subject);
    if (ace.objectType() != nullptr) {
        text += L"; object type " + textOf(*ace.objectType());
    }
    if (ace.inheritedObjectType() != nullptr) {
        text += L"; inherited by objects of type " + textOf(*ace.inheritedObjectType());
    }
    text += isConditional(ace.type()) ? L"; on a condition" : L"";
    return text + (ace.isInherited() ? L"; inherited" : L"");
}

std::wstring describeRights(ACCESS_MASK mask, AceSubject subject, bool denied) {
    std::wstring text;
    ACCESS_MASK named = 0;
    for (const Right& right : together) {
        const ACCESS_MASK bits =
            denied && right.bits != FILE_ALL_ACCESS ? right.bits & ~SYNCHRONIZE : right.bits;
        if ((mask & bits) == bits && (bits & ~named) != 0) {
            append(text, subject == AceSubject::Directory ? right.onDirectory : right.onFile);
            named |= bits;
        }
    }
    appendSingles(text, mask & ~named, single, subject);
    return text.empty() ? L"no rights" : text;
}

std::wstring describeTrustee(const Sid& sid) {
    std::wstring name = sid.niceName();
    if (name.starts_with(L'\\')) { // accounts known everywhere have no domain
        name.erase(0, 1);
    }
    return name;
}

} // namespace RunTime
