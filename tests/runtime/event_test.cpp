#include "runtime/event.h"

#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>

TEST(EventTest, HandlersRunInHookingOrderOnTheSameArguments) {
    Event<const std::wstring&, bool&> event;
    bool cancel = false;
    event.raise(L"nobody listens", cancel);
    std::wstring seen;
    const Hook first = event.hook([&](const std::wstring& text, bool& flag) {
        seen += text + L"1";
        flag = true;
    });
    const Hook second = event.hook([&](const std::wstring& text, bool& flag) {
        seen += text + L"2";
        EXPECT_TRUE(flag) << "set by the handler before";
    });
    event.raise(L"a", cancel);
    EXPECT_EQ(L"a1a2", seen);
    EXPECT_TRUE(cancel);
}

TEST(EventTest, HookUnhooksWhenItGoesAndOnlyOnce) {
    Event<> event;
    int calls = 0;
    Hook kept;
    {
        Hook hook = event.hook([&] { calls += 1; });
        kept = std::move(hook); // not unhooked by the scope's end
    }
    event.raise();
    EXPECT_EQ(1, calls);
    kept = event.hook([&] { calls += 10; }); // replaces, and so unhooks, the first
    event.raise();
    EXPECT_EQ(11, calls);
    kept.unhook();
    EXPECT_FALSE(event.hasHandlers());
    kept.unhook();
    event.raise();
    EXPECT_EQ(11, calls);
}

TEST(EventTest, HandlersMayHookAndUnhookDuringARaise) {
    Event<> event;
    std::string seen;
    Hook self, later, added;
    self = event.hook([&] {
        seen += "s";
        self.unhook();
        later.unhook(); // not called any more, not even in this raise
        added = event.hook([&] { seen += "n"; });
        event.raise(); // nested: the new one only
    });
    later = event.hook([&] { seen += "l"; });
    const Hook last = event.hook([&] { seen += "e"; });
    event.raise();
    EXPECT_EQ("sene", seen);
    event.raise();
    EXPECT_EQ("seneen", seen) << "hooked during the raise, called from the next on";
}

TEST(EventTest, ExceptionOfAHandlerPassesThroughAndLeavesTheEventUsable) {
    Event<int> event;
    int calls = 0;
    Hook faulty = event.hook([&](int) {
        faulty.unhook();
        throw std::runtime_error("handler");
    });
    const Hook next = event.hook([&](int) { ++calls; });
    EXPECT_THROW(event.raise(1), std::runtime_error);
    EXPECT_EQ(0, calls);
    event.raise(1);
    EXPECT_EQ(1, calls);
}

TEST(EventTest, HookOutlivesItsEventEvenWhenAHandlerDestroysIt) {
    auto event = std::make_optional<Event<>>();
    int calls = 0;
    const Hook destroyer = event->hook([&] {
        ++calls;
        event.reset();
    });
    const Hook after = event->hook([&] { ++calls; });
    event->raise();
    EXPECT_EQ(1, calls);
}

// A handler's captures may hold other hooks of the same event.
TEST(EventTest, HandlerThatOwnsHooksTakesThemAlong) {
    Event<> event;
    int calls = 0;
    auto inner = std::make_shared<Hook>(event.hook([&] { ++calls; }));
    Hook outer = event.hook([&calls, inner] { calls += 10; });
    inner.reset();
    event.raise();
    EXPECT_EQ(11, calls);
    outer.unhook();
    EXPECT_FALSE(event.hasHandlers());
}
