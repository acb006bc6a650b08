// Entries in words.
#include "runtime/text.h"
#include "security/ace_text.h"
#include "security/acl.h"
#include "tests/support/raw_security.h"

#include <gtest/gtest.h>

using RunTime::AceSubject;
using RunTime::Acl;

namespace {

std::wstring onFile(BYTE type, BYTE flags, ACCESS_MASK mask, const raw::Bytes& tail) {
    const raw::Bytes list = raw::acl({raw::ace(type, flags, mask, tail)});
    return RunTime::describeAce(Acl::fromBytes(list).getAce(0), AceSubject::File);
}

} // namespace

TEST(AceTextTest, SaysAllThatAnEntrySays) {
    struct {
        const wchar_t* sddl;
        const wchar_t* text;
    } const cases[] = {
        {L"(A;OICI;FA;;;BA)",
         L"BUILTIN\\Administrators: full access; this folder, subfolders and files"},
        {L"(A;CI;0x1301bf;;;BU)", L"BUILTIN\\Users: modify; this folder and subfolders"},
        {L"(A;OI;0x1200a9;;;WD)", L"Everyone: read and execute; this folder and files"},
        {L"(A;OICIIO;GA;;;CO)", L"CREATOR OWNER: full access (generic); subfolders and files only"},
        {L"(A;CIIOID;GRGX;;;WD)",
         L"Everyone: read (generic), execute (generic); subfolders only; inherited"},
        {L"(D;OIIO;0x14000;;;WD)", L"Everyone: denied: delete, 0x00004000; files only"},
        {L"(A;OINP;0x1201bf;;;WD)",
         L"Everyone: read and execute, write; this folder and files; one level down only"},
        {L"(A;OIIO;0x22;;;WD)", L"Everyone: write data, execute file; files only"},
        {L"(A;NP;FR;;;WD)", L"Everyone: read; this folder only"},
        // Wider names first, and what they leave over one by one.
        {L"(A;;0x1b01bf;;;WD)", L"Everyone: modify, take ownership; this folder only"},
        {L"(A;;0x1;;;WD)", L"Everyone: list folder; this folder only"},
        // A denial of "write" as the system's tools make it, and one that bars every opening.
        {L"(D;;0x116;;;WD)", L"Everyone: denied: write; this folder only"},
        {L"(D;;0x100116;;;WD)", L"Everyone: denied: write, synchronize; this folder only"},
        {L"(D;;FA;;;WD)", L"Everyone: denied: full access; this folder only"},
        {L"(A;IO;FR;;;WD)", L"Everyone: read; without effect"},
        {L"(A;;FR;;;S-1-5-21-1-2-3-4004)", L"S-1-5-21-1-2-3-4004: read; this folder only"},
    };
    for (const auto& one : cases) {
        const Acl list = Acl::fromSddl(std::wstring(L"D:") + one.sddl);
        EXPECT_EQ(RunTime::describeAce(list.getAce(0), AceSubject::Directory), one.text);
    }
    const raw::Bytes everyone = {1, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};
    EXPECT_EQ(onFile(ACCESS_ALLOWED_ACE_TYPE, 0, 0, everyone), L"Everyone: no rights");
    EXPECT_EQ(onFile(SYSTEM_AUDIT_ACE_TYPE, 0xC0, 2, everyone),
              L"Everyone: audited on success and failure: write data");
    EXPECT_EQ(onFile(ACCESS_DENIED_CALLBACK_ACE_TYPE, INHERITED_ACE, 0x20, everyone),
              L"Everyone: denied: execute file; on a condition; inherited");
    EXPECT_EQ(onFile(SYSTEM_MANDATORY_LABEL_ACE_TYPE, 0, 3, everyone),
              L"Everyone: integrity level: no writing up, no reading up");
    EXPECT_EQ(onFile(0x1F, 0, 0, {1, 2, 3, 4}), L"entry of an unknown type, 0x1F, with 12 bytes");
    raw::Bytes tail;
    raw::append<DWORD>(tail, ACE_INHERITED_OBJECT_TYPE_PRESENT);
    raw::append(tail, GUID{0x12345678, 2, 3, {4}});
    raw::append(tail, everyone);
    EXPECT_EQ(onFile(ACCESS_ALLOWED_OBJECT_ACE_TYPE, 0, DELETE, tail),
              L"Everyone: delete; inherited by objects of type "
              L"{12345678-0002-0003-0400-000000000000}");
}

TEST(AceTextTest, OrderIsJudgedAsTheSystemDoes) {
    struct {
        const wchar_t* sddl;
        std::optional<DWORD> first;
    } const cases[] = {
        {L"D:", std::nullopt},
        {L"D:(D;;FR;;;WD)(A;;FR;;;WD)(A;ID;FR;;;BU)", std::nullopt},
        // Inherited entries are in order by level: a denial from far above stands behind.
        {L"D:(A;ID;FR;;;WD)(D;ID;FR;;;WD)", std::nullopt},
        {L"D:(A;;FR;;;WD)(A;;FR;;;BU)(D;;FR;;;WD)(D;;FR;;;BU)", 2},
        {L"D:(A;ID;FR;;;WD)(D;;FR;;;WD)", 1},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(RunTime::firstOutOfOrder(Acl::fromSddl(one.sddl)), one.first) << toUtf8(one.sddl);
    }
}
