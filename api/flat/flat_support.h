// What the functions with C linkage have in common: the structures behind their handles, and the
// border that no exception passes.
#pragma once

#include "api/argument_null_exception.h"
#include "api/flat/zopnative.h"
#include "runtime/wipe.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
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
    return new zop_text(text);
}

// Runs a callback, which takes a zop_call*. Throws what it reported as its failure.
template <class Callback>
std::int32_t callBack(Callback&& callback) {
    zop_call call;
    const std::int32_t result = callback(&call);
    if (call.failure) {
        throw Exception(*call.failure);
    }
    return result;
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

} // namespace zopobsolete::flat
