// Descriptors that are composed, and descriptors that are carried as bytes.
#include "runtime/accounts/privilege_scope.h"
#include "runtime/auto_handle.h"
#include "security/descriptor_bytes.h"
#include "security/sddl.h"
#include "security/security_descriptor.h"
#include "tests/support/expect_error.h"
#include "tests/support/raw_security.h"

#include <cstring>
#include <gtest/gtest.h>

using RunTime::Acl;
using RunTime::SecurityDescriptor;
using RunTime::Sid;

namespace {

class SecurityDescriptorTest : public ::testing::Test {
    const AddAceInPlace addAce_;
};

// An absolute descriptor has to point into the parts of its own object.
void expectOwnParts(const SecurityDescriptor& of) {
    ASSERT_TRUE(::IsValidSecurityDescriptor(of));
    const auto* fields = static_cast<SECURITY_DESCRIPTOR*>(static_cast<PSECURITY_DESCRIPTOR>(of));
    EXPECT_EQ(fields->Control, SE_DACL_PRESENT);
    EXPECT_EQ(fields->Owner, of.owner().get());
    EXPECT_EQ(fields->Group, of.group().get());
    EXPECT_EQ(fields->Dacl, static_cast<PACL>(of.dacl()));
    EXPECT_EQ(fields->Sacl, nullptr);
}

RunTime::DescriptorBytes bytesOf(const std::wstring& sddl) {
    const auto made = RunTime::descriptorFromSddl(sddl);
    const auto* bytes = static_cast<const unsigned char*>(static_cast<void*>(made.get()));
    return {bytes, bytes + ::GetSecurityDescriptorLength(made.get())};
}

SECURITY_DESCRIPTOR_CONTROL handed; // what SetKernelObjectSecurity was given last
decltype(&::SetKernelObjectSecurity) realSet;

BOOL WINAPI recordingSet(HANDLE handle, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR from) {
    DWORD revision = 0;
    ::GetSecurityDescriptorControl(from, &handed, &revision);
    return realSet(handle, parts, from);
}

// What a server may send: room that nothing points to between the parts.
constexpr DWORD gap = 400;
BOOL WINAPI getWithGap(HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR to, DWORD,
                       LPDWORD needed) {
    RunTime::DescriptorBytes bytes = bytesOf(L"O:BAG:SYD:(A;;FA;;;BA)");
    auto header = *reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(bytes.data());
    bytes.insert(bytes.begin() + sizeof(header), gap, 0);
    for (DWORD* offset : {&header.Owner, &header.Group, &header.Dacl}) {
        *offset += gap;
    }
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::memcpy(to, bytes.data(), bytes.size());
    *needed = static_cast<DWORD>(bytes.size());
    return TRUE;
}

} // namespace

TEST_F(SecurityDescriptorTest, PointsIntoItsOwnPartsThroughCopiesAndMoves) {
    const Acl list = Acl::fromSddl(L"D:(A;;FA;;;BU)(D;;FW;;;BG)");
    SecurityDescriptor descriptor;
    EXPECT_EQ(descriptor.sddl(), L"");
    EXPECT_EQ(descriptor.dacl().bytes().size(), Acl::emptySize);
    EXPECT_EQ(descriptor.sacl().bytes().size(), Acl::emptySize);
    descriptor.owner(Sid(L"BA"));
    descriptor.group(Sid(L"SY"));
    descriptor.dacl(list);
    const std::wstring text = L"O:BAG:SYD:(D;;FW;;;BG)(A;;FA;;;BU)";
    EXPECT_EQ(descriptor.sddl(), text);
    expectOwnParts(descriptor);
    descriptor.dacl(descriptor.dacl());
    descriptor.owner(descriptor.owner());
    EXPECT_EQ(descriptor.sddl(), text);

    SecurityDescriptor copied(descriptor);
    const SecurityDescriptor& same = copied;
    copied = same;
    SecurityDescriptor moved(std::move(descriptor));
    for (const SecurityDescriptor* one : {&copied, &moved}) {
        EXPECT_EQ(one->sddl(), text);
        expectOwnParts(*one);
    }
    EXPECT_EQ(descriptor.sddl(), L"");
    descriptor.dacl(list);
    descriptor.owner(moved.group());
    EXPECT_EQ(descriptor.sddl(), L"O:SYD:(D;;FW;;;BG)(A;;FA;;;BU)");
    descriptor = std::move(moved);
    expectOwnParts(descriptor);
    EXPECT_NE(copied.owner().get(), descriptor.owner().get());
    const std::wstring all = L"O:BAG:SYD:PAI(A;OICI;FA;;;SY)(A;ID;FR;;;BU)S:PAI(AU;SA;FA;;;WD)";
    EXPECT_EQ(SecurityDescriptor::fromSddl(all).sddl(), all);
    EXPECT_EQ(SecurityDescriptor(SecurityDescriptor::fromSddl(all)).sddl(), all);
}

TEST(DescriptorBytesTest, ArriveUnchangedOnAnotherObject) {
    const ImportPatch patch("SetKernelObjectSecurity", &recordingSet);
    realSet = patch.original<decltype(realSet)>();
    const RunTime::PrivilegeScope privileges({SE_SECURITY_NAME, SE_RESTORE_NAME});
    // Out of order and with entries that lists we compose cannot have: all that matters is bytes.
    for (const wchar_t* sddl :
         {L"D:AI(A;ID;GA;;;BA)", L"D:PAI(A;;GA;;;BA)(D;;GA;;;BG)", L"D:", L"D:P(A;;GA;;;BA)",
          L"D:(A;;GA;;;BA)(XA;;GR;;;BU;(@User.x == 1))", L"D:P"}) {
        SCOPED_TRACE(toUtf8(sddl));
        RunTime::DescriptorBytes wanted;
        try {
            wanted = bytesOf(sddl);
        } catch (const vosexception&) {
            continue; // a text that this system does not know
        }
        const RunTime::DescriptorBytes given = wanted;
        for (const bool null : {false, true}) {
            if (null) { // everything to everybody: no text of Wine's says it
                reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(wanted.data())->Dacl = 0;
            }
            const RunTime::DescriptorBytes before = wanted;
            const RunTime::AutoHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
            ASSERT_EQ(RunTime::writeDescriptor(event.get(), wanted, false, false), 0U);
            EXPECT_EQ(wanted, before) << "changed for the call only";
            EXPECT_EQ((handed & SE_DACL_AUTO_INHERIT_REQ) != 0,
                      (handed & SE_DACL_AUTO_INHERITED) != 0);
            RunTime::DescriptorBytes read;
            ASSERT_EQ(RunTime::readDescriptor(event.get(), false, read), 0U);
            EXPECT_TRUE(RunTime::sameDescriptor(read, wanted, false, false));
            EXPECT_EQ(RunTime::sameDescriptor(read, given, false, false), !null);
        }
    }
    if (privileges.holds(SE_SECURITY_NAME)) {
        const RunTime::AutoHandle event(
            ::CreateEventExW(nullptr, nullptr, 0, EVENT_ALL_ACCESS | ACCESS_SYSTEM_SECURITY));
        RunTime::DescriptorBytes wanted = bytesOf(L"O:BAG:BAD:P(A;;GA;;;BA)S:(AU;SAFA;GA;;;WD)");
        RunTime::DescriptorBytes read;
        ASSERT_EQ(RunTime::writeDescriptor(event.get(), wanted, true, true), 0U);
        ASSERT_EQ(RunTime::readDescriptor(event.get(), true, read), 0U);
        EXPECT_TRUE(RunTime::sameDescriptor(read, wanted, true, true));
        EXPECT_EQ(RunTime::partsOf(read).sacl.size(), RunTime::partsOf(wanted).sacl.size());
    }
    RunTime::DescriptorBytes bytes;
    EXPECT_EQ(RunTime::readDescriptor(nullptr, false, bytes), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_TRUE(bytes.empty());
}

TEST(DescriptorBytesTest, PartsMayLieApartAndCountOnlyWherePresent) {
    const ImportPatch patch("GetKernelObjectSecurity", &getWithGap);
    RunTime::DescriptorBytes bytes;
    ASSERT_EQ(RunTime::readDescriptor(nullptr, false, bytes), 0U);
    EXPECT_EQ(RunTime::sddlOf(bytes.data(), DACL_SECURITY_INFORMATION), L"D:(A;;FA;;;BA)");
    const RunTime::DescriptorParts parts = RunTime::partsOf(bytes);
    EXPECT_EQ(Sid::fromBytes(parts.owner), Sid(L"BA"));
    EXPECT_EQ(Sid::fromBytes(parts.group), Sid(L"SY"));
    EXPECT_EQ(Acl::fromBytes(parts.dacl).aceCount(), 1U);
    reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(bytes.data())->Control &= ~SE_DACL_PRESENT;
    EXPECT_EQ(RunTime::partsOf(bytes).dacl.data(), nullptr);
}
