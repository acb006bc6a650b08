#include "runtime/exception.h"
#include "tests/support/expect_error.h"

namespace {

const vexception::CallStackInfo site(L"", "RunTime::AutoHandle::duplicate", 837);

template <class Class>
void expectClass(DWORD code) {
    SCOPED_TRACE(code);
    expectError<Class>(code, L"Unable to test",
                       [&] { _throwError(L"Unable to test", code, site); });
}

} // namespace

TEST(ThrowErrorTest, EachKnownCodeHasItsOwnClass) {
    expectClass<VFileNotFoundException>(2);
    expectClass<VPathNotFoundException>(3);
    expectClass<VAccessDeniedException>(5);
    expectClass<VInvalidHandleException>(6);
    expectClass<VOutOfMemoryException>(14);
    expectClass<VInvalidDriveException>(15);
    expectClass<VNotDosDiskException>(26);
    expectClass<VSharingViolationException>(32);
    expectClass<VLockViolationException>(33);
    expectClass<VWrongDiskException>(34);
    expectClass<VSharingBufferExceededException>(36);
    expectClass<VEOFException>(38);
    expectClass<VFileExistsException>(80);
    expectClass<VInsufficientBufferException>(122);
    expectClass<VInvalidNameException>(123);
    expectClass<VDirectoryNotEmptyException>(145);
    expectClass<VInvalidPathException>(161);
    expectClass<VAlreadyExistsException>(183);
    expectClass<VPipeClosedException>(232);
    expectClass<VInvalidDirectoryNameException>(267);
    expectClass<VServiceDoesNotExistException>(1060);
    expectClass<VServiceMarkedForDeleteException>(1072);
    expectClass<VServiceAlreadyExistsException>(1073);
    expectClass<VNoneMappedException>(1332);
    expectClass<VNoSuchMemberException>(1387);
    expectClass<VTrustedRelationshipFailureException>(1789);
    expectClass<VPasswordTooShortException>(2245);
}

TEST(ThrowErrorTest, AnyOtherCodeIsAPlainSystemError) {
    for (const DWORD code : {0ul, 1ul, 87ul, 112ul, 1300ul, 3999999999ul}) {
        expectClass<vosexception>(code);
    }
    // Without a text of the system the message begins with a blank.
    EXPECT_EQ(L"", systemTextOf(3999999999));
}

TEST(ThrowErrorTest, NullDetailLeavesOutTheWordAt) {
    try {
        _throwError(nullptr, ERROR_ACCESS_DENIED, site);
    } catch (const VAccessDeniedException& e) {
        EXPECT_EQ(systemTextOf(5) + L" (Error code 5)", e.message());
        return;
    }
    FAIL();
}

TEST(VexceptionTest, WhatListsTheFramesInTheOrderOfTheirAdding) {
    vexception bare(L"message");
    EXPECT_EQ(L"message", bare.what());

    vosexception e(5, L"Unable to duplicate handle", site);
    const vosexception before = e;
    e += {L"text", "zopobsolete::zop::Item::get", 91};
    EXPECT_EQ(systemTextOf(5) + L" (Error code 5) at Unable to duplicate handle"
                                L"\n   at (RunTime::AutoHandle::duplicate line 837)"
                                L"\n   at text(zopobsolete::zop::Item::get line 91)",
              e.what());
    EXPECT_EQ(1u, before.frames().size()) << "a copy has frames of its own";
    EXPECT_EQ(5u, before.get_errorCode());
}
