// Events and their hooks. A class names its events as members; a receiver hooks a function to one
// and keeps the Hook as long as it wants to be called:
//
//     Event<const std::wstring&, bool&> errorEvent;
//     Hook hook = source.errorEvent.hook([&](const std::wstring& text, bool& ignore) { ... });
//
// Handlers run on the raising thread, in the order in which they were hooked. An exception of a
// handler passes through raise() and leaves the later handlers uncalled. A handler may hook,
// unhook (itself too) and even destroy the event: what is hooked during a raise is called from the
// next one on, what is unhooked is not called any more. An event and its hooks belong to one
// thread at a time.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

// Keeps one handler hooked. Movable; unhooks when it goes. It may outlive its event.
class Hook {
public:
    Hook() = default;
    Hook(Hook&&) noexcept = default;
    Hook& operator=(Hook&& other) noexcept {
        if (this != &other) {
            unhook();
            entry_ = std::move(other.entry_);
        }
        return *this;
    }
    ~Hook() { unhook(); }

    void unhook() noexcept {
        if (const std::shared_ptr<Entry> entry = std::move(entry_)) {
            entry->drop();
        }
    }
    explicit operator bool() const noexcept { return entry_ != nullptr; }

private:
    template <class... Args>
    friend class Event;

    struct Entry {
        virtual ~Entry() = default;
        virtual void drop() noexcept = 0;
    };

    explicit Hook(std::shared_ptr<Entry> entry) noexcept : entry_(std::move(entry)) {}

    std::shared_ptr<Entry> entry_;
};

template <class... Args>
class Event {
public:
    using Handler = std::function<void(Args...)>;

    Event() = default;
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    ~Event() {
        if (list_) {
            list_->closed = true;
        }
    }

    // The handler is called until the returned Hook goes.
    [[nodiscard]] Hook hook(Handler handler) {
        if (!list_) {
            list_ = std::make_shared<List>();
        }
        auto entry = std::make_shared<Entry>(std::move(handler), list_);
        list_->entries.push_back(entry);
        return Hook(std::move(entry));
    }

    bool hasHandlers() const noexcept { return list_ && !list_->entries.empty(); }

    // Allocates nothing: progress is raised once per file.
    void raise(Args... args) {
        if (!hasHandlers()) {
            return;
        }
        const Raising list(list_);
        for (std::size_t i = 0, count = list->entries.size(); i < count && !list->closed; ++i) {
            // Held by value: the handler may unhook itself, or grow the list under our feet.
            const std::shared_ptr<Entry> entry = list->entries[i];
            if (entry->hooked) {
                entry->handler(args...);
            }
        }
    }

private:
    struct Entry;

    struct List {
        std::vector<std::shared_ptr<Entry>> entries;
        int raising = 0;
        bool dropped = false; // some entry was unhooked during a raise and is still in the list
        bool closed = false;  // the event is gone
    };

    struct Entry final : Hook::Entry {
        Entry(Handler function, std::weak_ptr<List> owner)
            : handler(std::move(function)), list(std::move(owner)) {}

        void drop() noexcept override {
            hooked = false;
            if (const std::shared_ptr<List> owner = list.lock()) {
                owner->dropped = true;
                sweep(*owner);
            }
        }

        Handler handler;
        std::weak_ptr<List> list;
        bool hooked = true;
    };

    // Indexes stay valid while a raise is under way, so the list shrinks after the last one.
    static void sweep(List& list) noexcept {
        while (list.raising == 0 && list.dropped) {
            list.dropped = false;
            ++list.raising; // a handler that goes may take further hooks of this event with it
            std::erase_if(list.entries, [](const auto& entry) { return !entry->hooked; });
            --list.raising;
        }
    }

    class Raising {
    public:
        explicit Raising(std::shared_ptr<List> list) noexcept : list_(std::move(list)) {
            ++list_->raising;
        }
        ~Raising() {
            --list_->raising;
            sweep(*list_);
        }
        Raising(const Raising&) = delete;
        Raising& operator=(const Raising&) = delete;
        List* operator->() const noexcept { return list_.get(); }

    private:
        std::shared_ptr<List> list_;
    };

    std::shared_ptr<List> list_; // made by the first hook: most events have no handler
};

// Raises `to` whenever `from` is raised, with the same arguments. `to` must outlive the Hook: keep
// the Hook in a member declared after it.
template <class... Args>
[[nodiscard]] Hook forwardEvent(Event<Args...>& from, Event<Args...>& to) {
    return from.hook([&to](Args... args) { to.raise(std::forward<Args>(args)...); });
}
