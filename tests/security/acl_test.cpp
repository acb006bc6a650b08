// RunTime::Acl: order, room, and what it does with lists that are none.
#include "security/acl.h"
#include "tests/support/expect_error.h"
#include "tests/support/mutator.h"
#include "tests/support/raw_security.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

using raw::Bytes;
using RunTime::Acl;
using RunTime::Sid;

namespace {

constexpr BYTE deny = ACCESS_DENIED_ACE_TYPE;
constexpr BYTE denyObject = ACCESS_DENIED_OBJECT_ACE_TYPE;
constexpr BYTE allow = ACCESS_ALLOWED_ACE_TYPE;
constexpr BYTE allowObject = ACCESS_ALLOWED_OBJECT_ACE_TYPE;
constexpr BYTE inherited = INHERITED_ACE;

// Entries differ by their mask.
Bytes entry(BYTE type, BYTE flags = 0, ACCESS_MASK mask = 1, DWORD trustee = 18) {
    Bytes tail;
    if (type == denyObject || type == allowObject) {
        raw::append<DWORD>(tail, ACE_OBJECT_TYPE_PRESENT);
        raw::append(tail, GUID{mask, 2, 3, {4}});
    }
    raw::append(tail, raw::sid({trustee}));
    return raw::ace(type, flags, mask, tail);
}

std::vector<Bytes> entriesOf(const Acl& list) {
    std::vector<Bytes> result;
    for (const RunTime::Ace ace : list) {
        result.emplace_back(ace.bytes().begin(), ace.bytes().end());
    }
    return result;
}

// The order in words: explicit first, then denials, then plain ones.
auto keyOf(const Bytes& ace) {
    const BYTE type = raw::header(ace)->AceType;
    return std::tuple((raw::header(ace)->AceFlags & inherited) != 0,
                      type == allow || type == allowObject,
                      type == denyObject || type == allowObject);
}

// What adding entries one by one to the empty list must give: the last one in front of its equals.
std::vector<Bytes> ordered(std::vector<Bytes> added) {
    std::ranges::reverse(added);
    std::ranges::stable_sort(added, {}, keyOf);
    return added;
}

class AclTest : public ::testing::Test {
    const AddAceInPlace addAce_;
};

} // namespace

TEST_F(AclTest, EntriesAreInsertedByRankAndOnlyThoseThatHaveOne) {
    // The first of greater or equal rank counts, in a list out of order, too.
    EXPECT_EQ(Acl::fromBytes(raw::acl({entry(allow), entry(deny)}))
                  .getInsertionIndex(raw::header(entry(deny))),
              0U);
    const Acl audited = Acl::fromBytes(raw::acl({entry(deny), entry(SYSTEM_AUDIT_ACE_TYPE)}));
    for (const BYTE type : {SYSTEM_AUDIT_ACE_TYPE, SYSTEM_ALARM_ACE_TYPE,
                            ACCESS_ALLOWED_COMPOUND_ACE_TYPE, ACCESS_ALLOWED_CALLBACK_ACE_TYPE}) {
        expectError<vosexception>(ERROR_INVALID_PARAMETER, L"Invalid ACE type", [&] {
            audited.getInsertionIndex(raw::header(entry(static_cast<BYTE>(type))));
        });
    }
    expectError<vosexception>(ERROR_INVALID_PARAMETER, L"Unsupported ACE type in ACL",
                              [&] { audited.getInsertionIndex(raw::header(entry(allow))); });
}

TEST_F(AclTest, RandomListsComeOutAsTheModelSays) {
    const unsigned seed = std::random_device()();
    std::mt19937 random(seed);
    const auto below = [&](unsigned limit) { return random() % limit; };
    constexpr BYTE types[] = {deny, denyObject, allow, allowObject};
    ACCESS_MASK mask = 0;
    const auto randomEntries = [&] {
        std::vector<Bytes> entries(below(24));
        for (Bytes& one : entries) {
            one = entry(types[below(4)], static_cast<BYTE>(below(0x20)), ++mask, below(5));
        }
        return entries;
    };
    for (int round = 0; round < 4000 && !HasFailure(); ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        const std::vector<Bytes> first = randomEntries();
        const std::vector<Bytes> second = randomEntries();
        Acl list;
        if (below(2) != 0) {
            list.clear();
        }
        list.copy(raw::list(raw::acl(first, below(64) * 4)));
        std::vector<Bytes> model = ordered(first);
        ASSERT_EQ(entriesOf(list), model);

        const Bytes more = raw::acl(second);
        const std::size_t room = list.bytes().size();
        const DWORD calculated = list.calculateSize(raw::list(more), nullptr, 0);
        list.expand(raw::list(more), nullptr, 0);
        if (calculated > room) {
            ASSERT_EQ(list.bytes().size(), 2 * calculated);
            model = ordered(model); // they were added anew
        }
        ASSERT_EQ(entriesOf(list), model);
        list.add(raw::list(more));
        std::vector<Bytes> together = model;
        std::ranges::reverse(together);
        together.insert(together.end(), second.begin(), second.end());
        model = ordered(together);
        ASSERT_EQ(entriesOf(list), model);

        std::vector<Bytes> shuffled = model;
        std::ranges::shuffle(shuffled, random);
        ASSERT_EQ(Acl::fromBytes(raw::acl(shuffled)) == list,
                  std::ranges::is_sorted(shuffled, {}, keyOf));
        std::ranges::stable_sort(shuffled, {}, keyOf);
        ASSERT_EQ(Acl::fromBytes(raw::acl(shuffled)), list);

        const DWORD wanted = below(5);
        const auto ofTrustee = std::ranges::find_if(model, [&](const Bytes& one) {
            return std::equal(one.end() - 4, one.end(), reinterpret_cast<const BYTE*>(&wanted));
        });
        ASSERT_EQ(list.findSid(Sid(L"S-1-5-" + std::to_wstring(wanted))).index(),
                  static_cast<DWORD>(ofTrustee - model.begin()));
        if (!model.empty()) {
            const DWORD index = below(static_cast<unsigned>(model.size()));
            const Bytes gone = model[index];
            ASSERT_EQ(list.findAce(raw::header(gone)).index(), index);
            ASSERT_TRUE(list.getAce(index) == RunTime::Ace(raw::header(gone)));
            list.deleteAce(list.findAce(raw::header(gone)));
            model.erase(model.begin() + index);
            ASSERT_EQ(list.findAce(raw::header(gone)), list.end());
            ASSERT_EQ(entriesOf(list), model);
        }
    }
}

TEST_F(AclTest, RoomGrowsToTwiceWhatIsCalculatedAndNoFurtherThanAListCan) {
    Acl list;
    list.clear();
    EXPECT_EQ(list.bytes().size(), 268U);
    const Bytes ace = entry(allow);
    const Bytes some = raw::acl({ace, entry(deny)});
    const std::vector<const ACE_HEADER*> aces(10, raw::header(ace));
    EXPECT_EQ(list.calculateSize(raw::list(some), aces.data(), 10), 8U + 48 + 10 * 20 + 8);
    const PACL buffer = list;
    list.expand(raw::list(some), aces.data(), 10);
    EXPECT_EQ(list, buffer) << "264 bytes fit";
    const std::vector<const ACE_HEADER*> eleven(11, raw::header(ace));
    list.expand(raw::list(some), eleven.data(), 11);
    EXPECT_EQ(list.bytes().size(), 2 * 284U);
    list.copy(raw::list(some));
    EXPECT_EQ(list.bytes().size(), 2 * 284U) << "a copy keeps the larger buffer";

    list = Acl();
    constexpr DWORD most = (Acl::largestSize - sizeof(ACL)) / 20;
    for (DWORD i = 0; i < most; ++i) {
        list.addAllowed(Sid(L"S-1-5-18"), i);
    }
    EXPECT_EQ(list.aceCount(), most);
    EXPECT_EQ(list.bytes().size(), Acl::largestSize);
    EXPECT_EQ(list.getAce(1).mask(), most - 2) << "sorted anew, though it could grow no more";
    const Acl full(list);
    expectError<vosexception>(ERROR_ALLOTTED_SPACE_EXCEEDED,
                              L"Unable to hold (65548) bytes in an ACL",
                              [&] { list.addDenied(Sid(L"S-1-5-18"), 1); });
    EXPECT_TRUE(std::ranges::equal(list.bytes(), full.bytes()));
    expectError<vosexception>(ERROR_ALLOTTED_SPACE_EXCEEDED, L"Unable to add ACE to ACL",
                              [&] { list.add(raw::list(some)); });
}

TEST_F(AclTest, MalformedListsAreRefusedBeforeAnythingIsChanged) {
    const Bytes good = raw::acl({entry(deny), entry(allow)}, 4);
    const auto with = [&](std::size_t offset, WORD value) {
        Bytes bad = good;
        std::memcpy(bad.data() + offset, &value, sizeof(value));
        return bad;
    };
    constexpr std::size_t aceSize = sizeof(ACL) + 2;
    Bytes beyond(20); // what would be taken for the SID of the entry before
    raw::append(beyond, raw::sid({1}));
    const Bytes malformed[] = {
        with(0, 0),                    // revision
        with(2, 7),                    // smaller than a list's header
        with(2, 44),                   // cuts the last entry off
        with(4, 3),                    // more entries than there are
        with(aceSize, 0),              // an entry without end,
        with(aceSize, 16),             // too small for its SID,
        with(aceSize, 22),             // odd,
        with(aceSize, 44),             // past the end
        with(sizeof(ACL) + 8, 0x0f01), // too many sub-authorities
        raw::acl({raw::ace(allowObject, 0, 1, {})}),
        raw::acl(
            {raw::ace(allowObject, 0, 1, {3, 0, 0, 0, 0, 0, 0, 0}), raw::ace(0x1F, 0, 0, beyond)}),
    };
    ASSERT_EQ(RunTime::aclLength(good), good.size());
    GuardedBuffer atEnd(4096);
    for (std::size_t shorter = 0; shorter < good.size(); ++shorter) {
        EXPECT_EQ(RunTime::aclLength(atEnd.hold(std::span(good).first(shorter))), 0U);
    }
    const auto refused = [](const wchar_t* text, const auto& run) {
        expectError<vosexception>(ERROR_INVALID_ACL, text, run);
    };
    Acl list = Acl::fromBytes(good);
    for (const Bytes& bad : malformed) {
        SCOPED_TRACE(&bad - malformed);
        const ACL* given = raw::list(bad);
        refused(L"Invalid ACL", [&] { Acl::fromBytes(atEnd.hold(bad)); });
        refused(L"Unable to get ACL size", [&] { list.copy(given); });
        refused(L"Unable to get ACL size", [&] { list.add(given); });
        refused(L"Unable to get ACL size", [&] { list.expand(given, nullptr, 0); });
    }
    refused(L"Unable to get ACL size", [&] { list.copy(nullptr); });
    EXPECT_EQ(entriesOf(list), entriesOf(Acl::fromBytes(good)));
    expectError<vosexception>(ERROR_INVALID_PARAMETER, L"Unable to get ACL ACE (2)",
                              [&] { list.getAce(2); });
    expectError<vosexception>(ERROR_INVALID_PARAMETER, L"Unable to delete ACL ACE (2)",
                              [&] { list.deleteAce(2); });
    EXPECT_THROW(list.addAllowed(Sid(), 1), vosexception);
}

TEST_F(AclTest, ListsAreValuesAndHaveATextForm) {
    Acl list = Acl::fromSddl(L"D:(A;;FA;;;BU)(D;OICI;GW;;;BG)");
    EXPECT_EQ(list.sddl(), L"D:(A;;FA;;;BU)(D;OICI;GW;;;BG)") << "as it stands";
    list.copy(list);
    EXPECT_EQ(list.sddl(), L"D:(D;OICI;GW;;;BG)(A;;FA;;;BU)");
    const Acl& same = list;
    list = same;
    const Acl copied(list);
    const Acl moved(std::move(list));
    EXPECT_EQ(entriesOf(moved), entriesOf(copied));
    EXPECT_EQ(list.aceCount(), 0U);
    EXPECT_EQ(list.begin(), list.end());
    EXPECT_EQ(list.sddl(), L"D:");
    EXPECT_THROW(list.add(copied), vosexception) << "no room";
    list.insert(copied.getAce(1).header());
    list.insert(list.getAce(0).header()); // its own entry, which moves when the list grows
    EXPECT_EQ(list.sddl(), L"D:(A;;FA;;;BU)(A;;FA;;;BU)");
    for (const wchar_t* bad : {L"O:BA", L"D:(A;;FA;;;", L"nonsense"}) {
        EXPECT_THROW(Acl::fromSddl(bad), vosexception) << bad;
    }
}
