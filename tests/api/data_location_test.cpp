#include "api/data_location.h"

#include "api/exception.h"
#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/api/public_failure.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/import_patch.h"
#include "tests/support/process_counters.h"
#include "tests/support/traced.h"

#include <sstream>
#include <stdexcept>

namespace {

using zopobsolete::BackupCopyErrorEvent;
using zopobsolete::DataLocation;

// The text ends with one line for the public method, and that line stands nowhere else.
void expectEndsIn(const std::string& text, const std::string& method) {
    const std::string line = "\n   at (zopobsolete::DataLocation::" + method + " line ";
    const std::size_t at = text.find(line);
    ASSERT_NE(at, std::string::npos) << text;
    EXPECT_EQ(text.find('\n', at + 1), std::string::npos) << text;
}

class DataLocationTest : public MoveFixture {
protected:
    static constexpr auto all = static_cast<StreamType>(127);

    // A target that holds something: the move copies.
    void makeTrees() {
        makeSmallSource();
        makeFilledTarget();
    }
};

} // namespace

TEST_F(DataLocationTest, CopyStreamsKeepsKnownFlagsAndTakesNoneForAll) {
    DataLocation location;
    EXPECT_EQ(location.get_CopyStreams(), all);
    for (std::int32_t flag = 1; flag < 128; flag *= 2) {
        location.set_CopyStreams(static_cast<StreamType>(flag));
        EXPECT_EQ(location.get_CopyStreams(), static_cast<StreamType>(flag));
        EXPECT_EQ(DataLocation(static_cast<StreamType>(flag | 0x100)).get_CopyStreams(),
                  static_cast<StreamType>(flag));
    }
    for (const std::int32_t none : {0, 0x80, INT32_MIN}) {
        EXPECT_EQ(DataLocation(static_cast<StreamType>(none)).get_CopyStreams(), all);
    }
}

TEST_F(DataLocationTest, StreamsAndOwnerReachTheCopy) {
    makeTrees();
    ntfs_.setSecurity(source() + L"\\a.txt", L"O:BUG:SYD:(A;;FA;;;SY)");
    const std::string owned = imageOf(source())[L"a.txt"].security;
    for (const std::int32_t type : {0, 127, 1}) {
        DataLocation location(static_cast<StreamType>(type), type == 127);
        EXPECT_TRUE(location.Change(source(), target()));
        const ItemImage copy = imageOf(target())[L"a.txt"];
        EXPECT_EQ(copy.streams.size(), type == 1 ? 0U : 1U);
        EXPECT_EQ(copy.security == owned, type == 127);
        EXPECT_EQ(copy.content, "alpha");
        location.Rollback();
    }
}

TEST_F(DataLocationTest, ChangesByRenameAndByCopyAreCommittedOrRolledBackWithOneObject) {
    makeSmallSource();
    const TreeImage tree = imageOf(source());
    const World before = world();
    DataLocation location(all, true);
    std::vector<std::string> events;
    const Hook costs =
        location.ProgressEvent_Cost.hook([&](std::int32_t count, std::int64_t cost, bool&) {
            events.push_back(std::to_string(count) + "/" + std::to_string(cost));
        });
    const Hook names = location.ProgressEvent_Name.hook(
        [&](const std::wstring& name, bool isFile, std::int64_t cost, bool&) {
            events.push_back(toUtf8(name.substr(0, name.find(L':'))) + (isFile ? " file " : " ") +
                             std::to_string(cost));
        });
    EXPECT_TRUE(location.Change(source(), target()));
    EXPECT_EQ(events, (std::vector<std::string>{"1/1", "Move 1"}));
    EXPECT_TRUE(sameTree(tree, imageOf(target())));
    location.Rollback();
    expectWorld(before);

    makeFilledTarget();
    const World filled = world();
    events.clear();
    EXPECT_TRUE(location.Change(source(), target()));
    EXPECT_EQ(std::count(events.begin(), events.end(), "Copy file 0"), 1)
        << "the first file comes when no byte is done";
    EXPECT_EQ(temp_.readFile(L"store\\data\\sub\\b.txt"), "beta");
    location.Rollback();
    expectWorld(filled);

    EXPECT_TRUE(location.Change(source(), target()));
    location.Commit();
    EXPECT_FALSE(temp_.has(L"panel\\data"));
    EXPECT_EQ(temp_.readFile(L"store\\data\\a.txt"), "alpha");
    EXPECT_EQ(temp_.readFile(L"store\\data\\older.txt"), "older");
    location.Commit(); // closed: nothing to do
    location.Rollback();
    EXPECT_TRUE(temp_.has(L"store\\data\\a.txt"));
}

TEST_F(DataLocationTest, CancelEndsTheChangeWithFalseAndLeavesTheTransactionOpen) {
    makeTrees();
    const World before = world();
    for (const int cancelled : {0, 1, 3}) { // 0: the total
        DataLocation location;
        int raised = 0;
        Hook costs = location.ProgressEvent_Cost.hook(
            [&](std::int32_t, std::int64_t, bool& cancel) { cancel = cancelled == 0; });
        Hook names =
            location.ProgressEvent_Name.hook([&](const std::wstring&, bool, std::int64_t,
                                                 bool& cancel) { cancel = ++raised == cancelled; });
        EXPECT_FALSE(location.Change(source(), target()));
        EXPECT_EQ(raised, cancelled);
        names.unhook();
        const std::string again = failureOf([&] { location.Change(source(), target()); });
        EXPECT_TRUE(again.starts_with("Unable to start new transaction\n   at (")) << again;
        expectEndsIn(again, "Change");
        expectEndsIn(failureOf([&] { location.Commit(); }), "Commit");
        DataLocation fresh; // rolls back nothing of others
        fresh.Rollback();
        costs.unhook(); // it would cancel the rollback too
        location.Rollback();
        expectWorld(before);
    }
}

TEST_F(DataLocationTest, WhateverAListenerThrowsFailsTheMoveAndRollbackRestores) {
    makeTrees();
    const World before = world();
    struct Case {
        std::function<void()> fail;
        const char* says;
    };
    const Case cases[] = {
        {[] { throw std::runtime_error("no screen"); }, "no screen\n"},
        {[] { throw vexception(L"our own"); }, "our own\n"},
        {[] { throw zopobsolete::Exception(L"another call \u65E5"); }, "another call \xE6\x97\xA5"},
        {[] { throw 7; }, "Unexpected error\n"},
        {[] { *reinterpret_cast<volatile int*>(8) = 0; }, "C structured exception: 0xc0000005\n"},
    };
    for (const Case& wrong : cases) {
        DataLocation location;
        int raised = 0;
        const Hook names =
            location.ProgressEvent_Name.hook([&](const std::wstring&, bool, std::int64_t, bool&) {
                if (++raised == 3) {
                    wrong.fail();
                }
            });
        const std::string text = failureOf([&] { location.Change(source(), target()); });
        EXPECT_TRUE(text.starts_with(wrong.says)) << text;
        EXPECT_NE(text.find("(zopobsolete::DataLocationProxy::progressEvent_NameHandler line "),
                  std::string::npos)
            << text;
        expectEndsIn(text, "Change");
        location.Rollback();
        expectWorld(before);
    }
}

TEST_F(DataLocationTest, DisposedObjectsFailClearlyAlsoWhenAHandlerDisposes) {
    makeSmallSource();
    DataLocation location;
    const Hook names = location.ProgressEvent_Name.hook(
        [&](const std::wstring&, bool, std::int64_t, bool&) { location.Dispose(); });
    EXPECT_TRUE(location.Change(source(), target()));
    EXPECT_TRUE(temp_.has(L"store\\data\\a.txt"));
    location.Dispose();
    const std::pair<const char*, std::function<void()>> uses[] = {
        {"Change", [&] { location.Change(source(), target()); }},
        {"Commit", [&] { location.Commit(); }},
        {"Rollback", [&] { location.Rollback(); }},
        {"Failed::get", [&] { location.get_Failed(); }},
        {"CopyStreams::get", [&] { location.get_CopyStreams(); }},
        {"CopyStreams::set", [&] { location.set_CopyStreams(StreamType::Data); }},
    };
    for (const auto& [method, use] : uses) {
        const std::string text = failureOf(use);
        EXPECT_TRUE(text.starts_with("The data location has been disposed of\n")) << text;
        expectEndsIn(text, method);
    }
}

TEST_F(DataLocationTest, EveryMethodAndHandlerHasItsSpan) {
    makeTrees();
    temp_.writeFile(L"panel\\data\\older.txt", "in the way");
    const Traced traced;
    DataLocation location(all, true);
    location.get_CopyStreams();
    const Hook errors =
        location.ErrorEvent.hook([](BackupCopyErrorEvent& error) { error.ignore = true; });
    location.Change(source(), target());
    location.get_Failed();
    location.Rollback();
    location.Commit();
    std::string calls;
    std::map<std::string, int> handlers;
    std::istringstream lines(takeTraces());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string verb, name, number, parent;
        words >> verb >> name >> number >> parent;
        if (verb == "start" && name.starts_with("zopobsolete::DataLocationProxy::")) {
            EXPECT_NE(parent, "[]");
            ++handlers[name.substr(32)];
        } else if (verb == "start" && name.starts_with("zopobsolete::")) {
            EXPECT_EQ(parent, "[]");
            calls += name.substr(27) + (number == "337" ? " 337 " : " ");
        }
    }
    EXPECT_EQ(calls, "DataLocation CopyStreams::set DataLocation CopyStreams::get Change "
                     "Failed::get Rollback Commit 337 ");
    EXPECT_EQ(handlers.size(), 3U);
    EXPECT_GE(handlers["progressEvent_TotalHandler"], 1);
    EXPECT_GE(handlers["progressEvent_NameHandler"], 3);
    EXPECT_EQ(handlers["errorEvent_Handler"], 1);
}

// Memory runs out at each allocation of the constructor in turn.
TEST(DataLocationLifeTest, AConstructorThatFailsLeavesNothingBehind) {
    { const DataLocation warmUp(StreamType::Data, true); }
    failureOf([] { throw zopobsolete::Exception(L"warm up"); });
    int failures = 0;
    bool fired = true;
    for (long n = 0; fired; ++n) {
        ASSERT_LT(n, 1000);
        SCOPED_TRACE("allocation " + std::to_string(n));
        const ProcessCounters before = ProcessCounters::now();
        bool failed = false;
        {
            FaultPoint fault("malloc");
            fault.failAt = n;
            fault.result = 0;
            try {
                const DataLocation location(StreamType::Data, true);
            } catch (const zopobsolete::Exception&) {
                failed = true;
            }
            fault.failAt = -1;
            fired = fault.calls > n;
        }
        failures += failed;
        const ProcessCounters after = ProcessCounters::now();
        EXPECT_EQ(after.blocks, before.blocks);
        EXPECT_EQ(after.handles, before.handles);
    }
    EXPECT_GT(failures, 3);
}
