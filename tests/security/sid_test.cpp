// RunTime::Sid against the system's own functions.
#include "security/sid.h"
#include "tests/support/expect_error.h"
#include "tests/support/raw_security.h"

#include <gtest/gtest.h>
#include <lm.h>
#include <sddl.h>
#include <set>

using RunTime::Sid;

namespace {

const wchar_t administrators[] = L"S-1-5-32-544";
const wchar_t nobody[] = L"S-1-5-21-1-2-3-4004";

int lookups = 0;
DWORD lookupCode = ERROR_SUCCESS; // what the fake fails with, unless there is too little room
const std::wstring longName(300, L'n');

BOOL WINAPI fakeLookup(LPCWSTR, PSID, LPWSTR name, LPDWORD nameSize, LPWSTR domain,
                       LPDWORD domainSize, PSID_NAME_USE use) {
    ++lookups;
    const bool fits = *nameSize > longName.size() && *domainSize > longName.size();
    *nameSize = *domainSize = static_cast<DWORD>(longName.size()); // as Wine, without terminators
    if (lookupCode != ERROR_SUCCESS || !fits) {
        ::SetLastError(lookupCode != ERROR_SUCCESS ? lookupCode : ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    for (wchar_t* text : {name, domain}) {
        text[longName.copy(text, longName.size())] = L'\0';
    }
    *use = SidTypeUser;
    return TRUE;
}

raw::Bytes domainSid;

NET_API_STATUS WINAPI fakeModals(LPCWSTR, DWORD, LPBYTE* buffer) {
    ::NetApiBufferAllocate(static_cast<DWORD>(sizeof(USER_MODALS_INFO_2) + domainSid.size()),
                           reinterpret_cast<void**>(buffer));
    auto* modals = reinterpret_cast<USER_MODALS_INFO_2*>(*buffer);
    *modals = {nullptr, nullptr};
    if (!domainSid.empty()) {
        modals->usrmod2_domain_id = modals + 1;
        std::memcpy(modals + 1, domainSid.data(), domainSid.size());
    }
    return NERR_Success;
}

std::wstring text(PSID sid) {
    RunTime::LocalPtr<wchar_t> result;
    EXPECT_TRUE(::ConvertSidToStringSidW(sid, result.put()));
    return result.get();
}

void expectEmpty(const Sid& sid) {
    EXPECT_EQ(sid.get(), nullptr);
    EXPECT_EQ(sid.type(), SidTypeUnknown);
    EXPECT_FALSE(sid.accountExists());
}

} // namespace

TEST(SidTest, AgreesWithTheSystemOnEveryWellKnownSid) {
    std::set<Sid> ordered;
    std::set<std::wstring> texts;
    for (int type = WinNullSid; type <= WinBuiltinTerminalServerLicenseServersSid; ++type) {
        SCOPED_TRACE(type);
        unsigned char known[SECURITY_MAX_SID_SIZE + 4] = {};
        DWORD size = SECURITY_MAX_SID_SIZE;
        if (!::CreateWellKnownSid(static_cast<WELL_KNOWN_SID_TYPE>(type), nullptr, known, &size) ||
            *::GetSidSubAuthorityCount(known) == 0) {
            continue; // "S-1-5" alone has no text that is understood
        }
        Sid copied;
        copied.copy(known);
        EXPECT_TRUE(::EqualSid(copied.get(), known));
        EXPECT_EQ(copied, Sid(text(known)));
        EXPECT_EQ(copied, Sid::wellKnown(static_cast<WELL_KNOWN_SID_TYPE>(type)));
        EXPECT_EQ(copied, Sid::fromBytes({known, size + 4}));
        EXPECT_EQ(copied.string(), text(known));
        EXPECT_EQ(Sid(copied.sddl()), copied);
        for (DWORD shorter = 0; shorter < size; ++shorter) {
            EXPECT_EQ(RunTime::sidLength({known, shorter}), 0U);
        }
        texts.insert(text(known));
        ordered.insert(copied);
        ordered.insert(Sid(text(known)));
        for (const Sid& other : ordered) { // exactly one of three holds
            EXPECT_EQ((other < copied) + (copied < other) + (copied == other), 1);
        }
    }
    EXPECT_GE(texts.size(), 30U);
    EXPECT_EQ(ordered.size(), texts.size());
    EXPECT_FALSE(*ordered.begin() < Sid());
}

TEST(SidTest, NamesAreLookedUpOnceAndCopied) {
    const Sid known(administrators);
    EXPECT_EQ(known.niceName(), L"BUILTIN\\Administrators");
    EXPECT_EQ(known.type(), SidTypeAlias);
    const Sid deleted(nobody);
    EXPECT_FALSE(deleted.accountExists());
    EXPECT_EQ(deleted.niceName(), nobody);
    expectError<VNoneMappedException>(ERROR_NONE_MAPPED, L"Unable to look up the account of a SID",
                                      [&] { deleted.accountName(); });

    const ImportPatch patch("LookupAccountSidW", &fakeLookup);
    const Sid sid(nobody);
    EXPECT_TRUE(sid.accountExists()) << "too long a name is a name";
    lookups = 0;
    EXPECT_EQ(sid.accountName(), longName);
    EXPECT_EQ(sid.domain(), longName);
    const Sid copied(sid);
    EXPECT_EQ(copied.accountName(), longName);
    EXPECT_EQ(copied.type(), SidTypeUser);
    EXPECT_EQ(lookups, 2) << "one that tells the sizes, one that fits";

    for (const DWORD code : {RPC_S_SERVER_UNAVAILABLE, ERROR_ACCESS_DENIED}) {
        lookupCode = code;
        EXPECT_TRUE(Sid(nobody).accountExists());
        EXPECT_EQ(Sid(nobody).niceName(), nobody) << "a message must not fail for want of a name";
    }
    lookupCode = ERROR_NONE_MAPPED;
    EXPECT_FALSE(Sid(administrators).accountExists());
    lookupCode = ERROR_SUCCESS;
}

TEST(SidTest, DomainAndRelativeIdentifierMakeASid) {
    const Sid administrator(nullptr, DOMAIN_USER_RID_ADMIN);
    EXPECT_FALSE(administrator.accountName().empty());
    EXPECT_EQ(administrator.type(), SidTypeUser);
    {
        const ImportPatch patch("NetUserModalsGet", &fakeModals);
        domainSid = raw::sid({21, 7, 8, 9});
        EXPECT_EQ(Sid(L"server", 1234).string(), L"S-1-5-21-7-8-9-1234");
        // A domain without a SID; one that leaves no room; one that is none.
        for (const raw::Bytes& bad :
             {raw::Bytes(), raw::sid({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}),
              raw::Bytes(8, 0xEE)}) {
            domainSid = bad;
            expectError<vosexception>(ERROR_INVALID_SID, L"Unable to copy domain sid",
                                      [] { const Sid sid(nullptr, 1); });
        }
    }
    FaultPoint fault("NetUserModalsGet");
    fault.failAt = 0;
    fault.result = ERROR_ACCESS_DENIED;
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED,
                                        L"Unable to get the domain (\\\\server) SID",
                                        [] { const Sid sid(L"\\\\server", 500); });
}

TEST(SidTest, MalformedOnesAreRefused) {
    raw::Bytes many = raw::sid({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
    raw::Bytes future = raw::sid({1});
    future[0] = 2;
    for (const raw::Bytes& bad : {many, future}) {
        expectError<vosexception>(ERROR_INVALID_SID, L"Invalid sid", [&] { Sid::fromBytes(bad); });
        Sid sid(administrators);
        raw::Bytes copied = bad;
        expectError<vosexception>(ERROR_INVALID_SID, L"Invalid sid",
                                  [&] { sid.copy(copied.data()); });
        expectEmpty(sid);
    }
    Sid sid(administrators);
    EXPECT_THROW(sid.load(L"nobody"), vosexception);
    EXPECT_THROW(sid.load(std::wstring(L"S-1-5-32-544\0x", 14)), vosexception);
    EXPECT_EQ(sid.string(), administrators);
    EXPECT_THROW(Sid(L"S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"), vosexception);
    expectError<vosexception>(ERROR_INVALID_SID, L"Unable to convert a SID to it's string form",
                              [] { Sid().string(); });
}

TEST(SidTest, IsAValueThroughCopiesAndMoves) {
    Sid sid(administrators);
    sid.niceName();
    const Sid& same = sid;
    sid = same;
    EXPECT_EQ(sid.type(), SidTypeAlias);
    sid.copy(sid.get());
    EXPECT_EQ(sid.string(), administrators);
    EXPECT_EQ(sid.type(), SidTypeUnknown) << "names do not belong to the bytes copied";
    Sid moved(std::move(sid));
    expectEmpty(sid);
    sid = std::move(moved);
    EXPECT_EQ(sid.string(), administrators);
    sid.copy(nullptr);
    expectEmpty(sid);
}

TEST(SidTest, CurrentIsTheUserOfTheTokenInForce) {
    const Sid process = Sid::current();
    wchar_t name[256];
    DWORD length = 256;
    ASSERT_TRUE(::GetUserNameW(name, &length));
    EXPECT_EQ(process.accountName(), name);
    ASSERT_TRUE(::ImpersonateSelf(SecurityImpersonation));
    const FaultPoint ofProcess("OpenProcessToken");
    EXPECT_EQ(Sid::current(), process);
    EXPECT_EQ(ofProcess.calls, 0) << "the thread has a token of its own";
    ::RevertToSelf();
}
