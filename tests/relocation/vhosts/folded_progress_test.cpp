#include "relocation/vhosts/folded_progress.h"

#include "runtime/text.h"

#include <gtest/gtest.h>

namespace {

// FoldedProgressTest: what a listener sees of what components report.
TEST(FoldedProgressTest, SumsUpItemsAndBytesInTheFrameOnTop) {
    FoldedProgress::Cost cost;
    FoldedProgress::Name name;
    FoldedProgress::Sub start, end;
    FoldedProgress progress(cost, name, start, end);
    std::string seen;
    bool wish = false; // of the listener
    const Hook hooks[] = {
        cost.hook([&](std::int64_t amount, bool& cancel) {
            seen = "cost " + std::to_string(amount);
            cancel = wish;
        }),
        name.hook([&](const std::wstring& text, std::int64_t position, std::int32_t names,
                      std::int64_t delta, bool& cancel) {
            seen = toUtf8(text) + " " + std::to_string(position) + " " + std::to_string(names) +
                   " " + std::to_string(delta);
            cancel = wish;
        }),
        start.hook([&](bool& cancel) { cancel = wish; }),
        end.hook([&](bool& cancel) { cancel = wish; }),
    };
    bool cancel = false;
    struct Step {
        std::function<void()> report;
        const char* seen;
    };
    const auto total1 = [&](std::int32_t items, std::int64_t bytes) {
        return [&, items, bytes] { progress.progress1_TotalHandler(items, bytes, cancel); };
    };
    const auto total2 = [&](std::int32_t items) {
        return [&, items] { progress.progress2_TotalHandler(items, cancel); };
    };
    const auto name1 = [&](bool hasPosition, std::int64_t position) {
        return [&, hasPosition, position] {
            progress.progress1_NameHandler(L"a", hasPosition, position, cancel);
        };
    };
    const auto name2 = [&] { progress.progress2_NameHandler(L"b", cancel); };
    const Step steps[] = {
        {total1(3, 100), ""}, // without a frame nothing is heard
        {name1(true, 7), ""},
        {[&] { progress.push(); }, ""},
        {name1(true, 7), "a 0 1 7"}, // nothing announced yet
        {total1(0, 100), "cost 0"},
        {name1(true, 10), "a 7 2 3"}, // only bytes: the position before
        {total1(3, 50), "cost 3"},
        {name1(false, 60), "a 3 3 -1"}, // a directory
        {name1(true, 80), "a 3 4 20"},
        {total2(2), "cost 5"},
        {name2, "b 5 5 -1"},
        {name1(true, 9), "a 5 6 10"}, // behind a name without position, which counts as -1
        {[&] { progress.subProgressEvent_StartHandler(cancel); }, ""},
        {total1(1, 10), "cost 1"}, // a frame of its own
        {name1(true, 4), "a 1 1 4"},
        {[&] { progress.subProgressEvent_EndHandler(cancel); }, ""},
        {name1(true, 9), "a 5 7 0"}, // the outer one goes on
        {[&] { progress.subProgressEvent_EndHandler(cancel); }, ""},
        {[&] { progress.subProgressEvent_EndHandler(cancel); }, ""}, // more ends than starts
        {total1(3, 100), ""},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(&step - steps);
        seen.clear();
        step.report();
        EXPECT_EQ(step.seen, seen);
        EXPECT_FALSE(cancel);
    }
    wish = true;
    progress.push();
    {
        const FoldedProgress::Shield shield(progress);
        total1(1, 1)();
        name2();
        progress.subProgressEvent_StartHandler(cancel);
        EXPECT_FALSE(cancel);
    }
    name2();
    EXPECT_TRUE(cancel);
}

} // namespace
