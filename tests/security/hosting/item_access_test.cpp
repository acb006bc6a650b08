#include "security/hosting/item_access.h"

#include "runtime/text.h"
#include "security/acl.h"
#include "security/sddl.h"

#include <gtest/gtest.h>

namespace HostingSecurity {

namespace {

using RunTime::AceSubject;
using RunTime::DescriptorBytes;

DescriptorBytes descriptor(const std::wstring& sddl) {
    const auto made = RunTime::descriptorFromSddl(sddl);
    const auto* bytes = static_cast<const unsigned char*>(made.get());
    return {bytes, bytes + ::GetSecurityDescriptorLength(made.get())};
}

} // namespace

// What Windows gives to a new file, directory, and directory in that, by the rules of its
// documentation for each combination of flags.
TEST(ItemAccessTest, EntriesAreHandedDownAsWindowsDoesIt) {
    constexpr struct {
        const wchar_t* above;
        const wchar_t* file;
        const wchar_t* directory;
        const wchar_t* second;
    } cases[] = {
        {L"(A;;FA;;;BA)", L"", L"", L""},
        {L"(A;OICI;FA;;;BA)", L"(A;ID;FA;;;BA)", L"(A;OICIID;FA;;;BA)", L"(A;OICIID;FA;;;BA)"},
        {L"(A;OI;FR;;;BU)", L"(A;ID;FR;;;BU)", L"(A;OIIOID;FR;;;BU)", L"(A;OIIOID;FR;;;BU)"},
        {L"(A;CI;FR;;;BU)", L"", L"(A;CIID;FR;;;BU)", L"(A;CIID;FR;;;BU)"},
        {L"(A;OICIIO;FR;;;BU)", L"(A;ID;FR;;;BU)", L"(A;OICIID;FR;;;BU)", L"(A;OICIID;FR;;;BU)"},
        {L"(A;OICINP;FR;;;BU)", L"(A;ID;FR;;;BU)", L"(A;ID;FR;;;BU)", L""},
        {L"(A;OINP;FR;;;BU)", L"(A;ID;FR;;;BU)", L"", L""},
        {L"(A;CINPIO;FR;;;BU)", L"", L"(A;ID;FR;;;BU)", L""},
        {L"(D;OICI;DC;;;BU)(A;CI;GR;;;BU)", L"(D;ID;DC;;;BU)",
         L"(D;OICIID;DC;;;BU)(A;ID;FR;;;BU)(A;CIIOID;GR;;;BU)",
         L"(D;OICIID;DC;;;BU)(A;ID;FR;;;BU)(A;CIIOID;GR;;;BU)"},
        {L"(A;OICIIO;GA;;;CO)", L"(A;ID;FA;;;LA)", L"(A;ID;FA;;;LA)(A;OICIIOID;GA;;;CO)",
         L"(A;ID;FA;;;LA)(A;OICIIOID;GA;;;CO)"},
        {L"(A;OICI;FR;;;CG)", L"(A;ID;FR;;;BG)", L"(A;ID;FR;;;BG)(A;OICIIOID;FR;;;CG)",
         L"(A;ID;FR;;;BG)(A;OICIIOID;FR;;;CG)"},
        {L"(A;CINP;FR;;;CO)", L"", L"(A;ID;FR;;;LA)", L""},
        {L"(A;OICIID;FA;;;BA)(D;OICIID;FA;;;BU)", L"(A;ID;FA;;;BA)(D;ID;FA;;;BU)",
         L"(A;OICIID;FA;;;BA)(D;OICIID;FA;;;BU)", L"(A;OICIID;FA;;;BA)(D;OICIID;FA;;;BU)"},
    };
    const std::wstring people = L"O:S-1-5-21-1-2-3-500G:BG";
    for (const auto& row : cases) {
        SCOPED_TRACE(toUtf8(row.above));
        const ItemAccess above(descriptor(std::wstring(L"D:") + row.above));
        const ItemAccess& directory = above.child(AceSubject::Directory);
        const std::pair<const ItemAccess*, const wchar_t*> items[] = {
            {&above.child(AceSubject::File), row.file},
            {&directory, row.directory},
            {&directory.child(AceSubject::Directory), row.second},
        };
        for (const auto& [access, list] : items) {
            std::wstring text = list;
            for (std::size_t at; (at = text.find(L";LA)")) != text.npos;) {
                text.replace(at, 4, L";S-1-5-21-1-2-3-500)");
            }
            const DescriptorBytes present = descriptor(people + L"D:" + text);
            const DescriptorBytes wanted = access->wanted(present);
            EXPECT_EQ(RunTime::Acl::fromBytes(RunTime::partsOf(wanted).dacl).sddl(), L"D:" + text);
            EXPECT_TRUE(access->matches(present));
            // Of somebody else, entries for the creator are others.
            const bool creator = text.find(L"-500)") != text.npos;
            EXPECT_EQ(access->matches(descriptor(L"O:SYG:BGD:" + text)), !creator);
            EXPECT_FALSE(access->matches(descriptor(people + L"D:P" + text)));
            EXPECT_FALSE(access->matches(descriptor(people + L"D:(A;;FR;;;WD)" + text)));
            EXPECT_FALSE(access->matches(descriptor(people)));
        }
    }
}

TEST(ItemAccessTest, OrderCountsWhereItMeansSomething) {
    AceList own;
    const RunTime::Sid users(L"BU");
    const RunTime::Sid guests(L"BG");
    appendAce(own, ACCESS_DENIED_ACE_TYPE, 0, FILE_GENERIC_WRITE, guests);
    appendAce(own, ACCESS_ALLOWED_ACE_TYPE, OBJECT_INHERIT_ACE, FILE_GENERIC_READ, users);
    appendAce(own, ACCESS_ALLOWED_ACE_TYPE, OBJECT_INHERIT_ACE | INHERIT_ONLY_ACE,
              FILE_GENERIC_WRITE, users);
    const ItemAccess directory(nullptr, AceSubject::Directory, own, true);
    EXPECT_TRUE(directory.matches(descriptor(L"D:P(D;;FW;;;BG)(A;OI;FR;;;BU)(A;OIIO;FW;;;BU)")));
    EXPECT_TRUE(directory.matches(descriptor(L"D:PAI(D;;FW;;;BG)(A;OIIO;FW;;;BU)(A;OI;FR;;;BU)")));
    EXPECT_FALSE(directory.matches(descriptor(L"D:P(A;OI;FR;;;BU)(D;;FW;;;BG)(A;OIIO;FW;;;BU)")));
    const ItemAccess file(nullptr, AceSubject::File, asFileHasThem(own), true);
    EXPECT_TRUE(file.matches(descriptor(L"D:P(D;;FW;;;BG)(A;;FR;;;BU)")));
}

} // namespace HostingSecurity
