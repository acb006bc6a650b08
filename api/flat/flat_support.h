// What the functions with C linkage have in common: the structures behind their handles, and the
// border that no exception passes.
#pragma once

#include "api/argument_null_exception.h"
#include "api/backup_copy_error_event.h"
#include "api/flat/zopnative.h"
#include "runtime/event.h"
#include "runtime/wipe.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

struct zop_error {
    std::int32_t kind;
    std::wstring text;
};

struct zop_text {
    explicit zop_text(std::wstring text) : value(std::move(text)) {}
    ~zop_text() { RunTime::wipe(value); }
    zop_text(const zop_text&) = delete;
    zop_text& operator=(const zop_text&) = delete;

    std::wstring value;
};

struct zop_list {
    explicit zop_list(std::vector<std::wstring> texts) : values(std::move(texts)) {}
    ~zop_list() { std::ranges::for_each(values, RunTime::wipe<std::wstring>); }
    zop_list(const zop_list&) = delete;
    zop_list& operator=(const zop_list&) = delete;

    std::vector<std::wstring> values;
};

struct zop_call {
    std::optional<std::wstring> failure;
};

namespace zopobsolete::flat {

// Only while an exception is handled.
void describe(zop_error** error) noexcept;

// Runs the function. What it throws becomes the error, and the result 0 or null.
template <class Function>
auto guarded(zop_error** error, Function&& function) noexcept -> std::invoke_result_t<Function&> {
    if (error != nullptr) {
        *error = nullptr;
    }
    try {
        return function();
    } catch (...) {
        describe(error);
        return {};
    }
}

// The same for a function without a result: 1 when it has succeeded.
template <class Function>
std::int32_t done(zop_error** error, Function&& function) noexcept {
    return guarded(error, [&]() -> std::int32_t {
        function();
        return 1;
    });
}

// Handles are owned by the caller from here on, and again by us when they are given back.
template <class Handle, class... Args>
Handle* handle(Args&&... args) {
    if constexpr (std::is_aggregate_v<Handle>) {
        return std::make_unique<Handle>(Handle{std::forward<Args>(args)...}).release();
    } else {
        return std::make_unique<Handle>(std::forward<Args>(args)...).release();
    }
}
template <class Handle>
void destroy(Handle* given) noexcept {
    const std::unique_ptr<Handle> owner(given);
}

// Throws ArgumentNullException. name: a literal, as the header has it.
template <class Pointer>
Pointer needed(Pointer pointer, const wchar_t* name) {
    if (pointer == nullptr) {
        throw ArgumentNullException(name);
    }
    return pointer;
}

inline zop_text* newText(std::wstring text) {
    const RunTime::WipeOnExit wiped(text);
    return handle<zop_text>(text);
}

// The callbacks of a caller that may have an older, shorter structure: those it does not know are
// null.
template <class Events>
Events copyOf(const Events* events) {
    Events copy{};
    if (events != nullptr) {
        std::memcpy(&copy, events, std::min(events->size, sizeof(copy)));
    }
    return copy;
}

// How the argument of an event goes to a callback.
inline const wchar_t* passed(const std::wstring& text) noexcept {
    return text.c_str();
}
inline std::int32_t passed(bool value) noexcept {
    return value ? 1 : 0;
}
inline std::int32_t passed(std::int32_t value) noexcept {
    return value;
}
inline std::int64_t passed(std::int64_t value) noexcept {
    return value;
}

// A native object with a caller's callbacks hooked to its events. Each operation holds it, so that
// a callback may free the handle. A callback that is null is not hooked.
template <class Native, class Callbacks>
class Hooked {
public:
    template <class... Args>
    explicit Hooked(const Callbacks* callbacks, Args&&... args)
        : events(copyOf(callbacks)), native(std::forward<Args>(args)...) {}

    // The callback's result goes into the event's last argument, a flag.
    template <class... Args, class Callback>
    void hookFlag(Event<Args...>& event, Callback callback) {
        if (callback != nullptr) {
            hooks_.push_back(event.hook([this, callback](Args... args) {
                const auto all = std::tie(args...);
                constexpr std::size_t last = sizeof...(Args) - 1;
                std::get<last>(all) = run(callback, all, std::make_index_sequence<last>()) != 0;
            }));
        }
    }
    void hookFlag(Event<BackupCopyErrorEvent&>& event,
                  decltype(zop_data_location_events::error) callback) {
        if (callback != nullptr) {
            hooks_.push_back(event.hook([this, callback](BackupCopyErrorEvent& error) {
                const auto all = std::tie(error.message, error.ignore);
                error.ignore = run(callback, all, std::make_index_sequence<2>()) != 0;
            }));
        }
    }
    // The callback has no result.
    template <class... Args, class Callback>
    void hook(Event<Args...>& event, Callback callback) {
        if (callback != nullptr) {
            hooks_.push_back(event.hook([this, callback](Args... args) {
                run(callback, std::tie(args...), std::index_sequence_for<Args...>());
            }));
        }
    }

    const Callbacks events;
    Native native;

private:
    template <class Callback, class Tuple, std::size_t... index>
    std::int32_t run(Callback callback, const Tuple& arguments, std::index_sequence<index...>) {
        zop_call call;
        std::int32_t result = 0;
        const auto invoke = [&] {
            return callback(events.context, passed(std::get<index>(arguments))..., &call);
        };
        if constexpr (std::is_void_v<std::invoke_result_t<decltype(invoke)>>) {
            invoke();
        } else {
            result = invoke();
        }
        if (call.failure) {
            throw Exception(*call.failure);
        }
        return result;
    }

    std::vector<Hook> hooks_;
};

} // namespace zopobsolete::flat
