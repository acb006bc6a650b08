// The frame in which every public method runs:
//
//     std::wstring Item::get(const std::wstring& name) {
//         return callFrame({"zopobsolete::zop::Item::get", 68, 91}, [&] {
//             return client().get(Utils::toUnmanagedString(name));
//         });
//     }
//
// It opens a tracing span, makes the call cancellable, turns structured exceptions into C++ ones,
// and turns whatever the payload throws into one public exception whose text ends with a line for
// the public method. The payload holds no try of its own; a constructor uses makeInFrame, so that
// a member that owns the native object is either whole or was never there.
//
// Re-entrant, and without state outside the calling thread.
#pragma once

#include "api/exception.h"

#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

namespace zopobsolete {

// A public method, as spans and error texts name it.
struct CallSite {
    // "zopobsolete::" + class + "::" + member; an accessor ends in "::get"
    const char* function = nullptr;
    std::int32_t line = 0;      // where the method begins: the line of its span
    std::int32_t catchLine = 0; // the line of its handlers: the one in error texts
    // What error texts say of the call beside its place. The payload may set it: it is read when
    // the payload has thrown.
    const std::wstring* text = nullptr;
};

namespace call_frame {

// A payload without its type, so that the frame is compiled once. Lives in the caller's frame.
struct Payload {
    void* object;
    void (*run)(void* object);
};

// Throws the public exception; without a message where there was no memory for one.
using ThrowPublic = void (*)(const std::wstring* message);

template <class PublicException>
[[noreturn]] void throwPublic(const std::wstring* message) {
    static_assert(std::is_nothrow_default_constructible_v<PublicException>);
    std::optional<PublicException> built;
    try {
        if (message != nullptr) {
            built.emplace(*message);
        }
    } catch (const std::bad_alloc&) { // the one without a text will do
    }
    throw built ? PublicException(*built) : PublicException();
}

void run(const CallSite& site, const Payload& payload, ThrowPublic throwPublic);

} // namespace call_frame

// Runs the payload in the frame and returns what it returns. Throws PublicException and nothing
// else; the database classes pass their own type, built from a wide text or from nothing.
template <class PublicException = Exception, class Function>
auto callFrame(const CallSite& site, Function&& payload) -> std::invoke_result_t<Function&> {
    using Result = std::invoke_result_t<Function&>;
    static_assert(!std::is_reference_v<Result>, "return a pointer");
    constexpr auto thrower = &call_frame::throwPublic<PublicException>;
    if constexpr (std::is_void_v<Result>) {
        auto body = [&payload] { payload(); };
        const auto run = [](void* object) { (*static_cast<decltype(body)*>(object))(); };
        call_frame::run(site, {&body, run}, thrower);
    } else {
        std::optional<Result> result;
        auto body = [&payload, &result] { result.emplace(payload()); };
        const auto run = [](void* object) { (*static_cast<decltype(body)*>(object))(); };
        call_frame::run(site, {&body, run}, thrower);
        // NOLINTNEXTLINE(bugprone-unchecked-optional-access): run() throws where it is empty
        return std::move(*result);
    }
}

// The native object of a public one, made inside the frame of the constructor.
template <class Native, class PublicException = Exception, class... Args>
std::unique_ptr<Native> makeInFrame(const CallSite& site, Args&&... args) {
    return callFrame<PublicException>(
        site, [&] { return std::make_unique<Native>(std::forward<Args>(args)...); });
}

} // namespace zopobsolete
