// Readers of security structures from outside, given damaged ones.
#include "runtime/exception.h"
#include "security/ace_text.h"
#include "security/acl.h"
#include "security/descriptor_bytes.h"
#include "security/sddl.h"
#include "tests/support/mutator.h"
#include "tests/support/raw_security.h"

#include <gtest/gtest.h>

using RunTime::Acl;

namespace {

// Throws on what should not be there at all; the system has to agree with what passes.
void readWhole(std::span<const std::uint8_t> input) {
    const Acl list = Acl::fromBytes(input);
    EXPECT_TRUE(::IsValidAcl(list));
    DWORD count = 0;
    const auto* end = list.bytes().data() + list.bytes().size();
    for (const RunTime::Ace ace : list) {
        ++count;
        EXPECT_FALSE(RunTime::describeAce(ace, RunTime::AceSubject::Directory).empty());
        EXPECT_LE(ace.bytes().data() + ace.bytes().size(), end);
        if (ace.sid() != nullptr) {
            EXPECT_TRUE(::IsValidSid(ace.sid()));
            const auto* sid = static_cast<const std::uint8_t*>(ace.sid());
            EXPECT_LE(sid + ::GetLengthSid(ace.sid()), ace.bytes().data() + ace.bytes().size());
        }
        for (const GUID* guid : {ace.objectType(), ace.inheritedObjectType()}) {
            EXPECT_TRUE(guid == nullptr || reinterpret_cast<const BYTE*>(guid + 1) <=
                                               ace.bytes().data() + ace.bytes().size());
        }
    }
    EXPECT_EQ(count, list.aceCount());
    RunTime::firstOutOfOrder(list);
    Acl copied;
    copied.copy(list); // refuses types without a rank
    EXPECT_EQ(copied.aceCount(), count);
}

} // namespace

TEST(SecurityFuzzTest, ListsAndDescriptorsAreReadWholeOrRefused) {
    const AddAceInPlace addAce;
    const raw::Bytes sid = raw::sid({32, 544});
    raw::Bytes objectTail;
    raw::append<DWORD>(objectTail, ACE_OBJECT_TYPE_PRESENT | ACE_INHERITED_OBJECT_TYPE_PRESENT);
    raw::append(objectTail, GUID{1, 2, 3, {4}});
    raw::append(objectTail, GUID{5, 6, 7, {8}});
    raw::append(objectTail, sid);
    const FuzzCorpus lists = {
        raw::acl({}, 260),
        raw::acl({raw::ace(ACCESS_ALLOWED_ACE_TYPE, 3, 1, sid),
                  raw::ace(ACCESS_DENIED_ACE_TYPE, INHERITED_ACE, 2, sid)},
                 20),
        raw::acl({raw::ace(ACCESS_ALLOWED_OBJECT_ACE_TYPE, 0, 3, objectTail),
                  raw::ace(SYSTEM_AUDIT_ACE_TYPE, 0x40, 4, sid)}),
    };
    int whole = 0;
    fuzz(lists, [&](std::span<const std::uint8_t> input) {
        try {
            readWhole(input);
            ++whole;
        } catch (const vosexception& e) {
            // The last is what Wine says of a whole SID with a large authority, asked for its text.
            EXPECT_TRUE(e.get_errorCode() == ERROR_INVALID_ACL ||
                        e.get_errorCode() == ERROR_INVALID_PARAMETER ||
                        e.get_errorCode() == ERROR_INVALID_SID)
                << e.get_errorCode();
        }
    });
    EXPECT_GT(whole, 0);

    FuzzCorpus descriptors;
    for (const wchar_t* sddl : {L"O:BAG:SYD:PAI(A;;FA;;;BA)(A;;FR;;;BU)S:(AU;SA;FA;;;WD)", L"D:"}) {
        const auto made = RunTime::descriptorFromSddl(sddl);
        const auto* bytes = static_cast<const std::uint8_t*>(static_cast<void*>(made.get()));
        descriptors.emplace_back(bytes, bytes + ::GetSecurityDescriptorLength(made.get()));
    }
    fuzz(descriptors, [&](std::span<const std::uint8_t> input) {
        if (RunTime::isWholeDescriptor(input.data(), input.size())) {
            const RunTime::DescriptorBytes bytes(input.begin(), input.end());
            EXPECT_LE(::GetSecurityDescriptorLength(const_cast<std::uint8_t*>(bytes.data())),
                      bytes.size() * 5)
                << "parts may overlap, but each lies within";
            EXPECT_TRUE(RunTime::sameDescriptor(bytes, bytes, true, true));
        }
    });
}
