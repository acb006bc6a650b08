// What the functions of both kinds of location have in common. Handle is the structure behind the
// pointer, whose only member "shared" holds a Hooked.
#pragma once

#include "api/flat/flat_support.h"
#include "relocation/stream_type.h"

#include <cstdint>
#include <memory>

namespace zopobsolete::flat {

template <class Handle>
auto locationOf(Handle* given) {
    return needed(given, L"location")->shared;
}

template <class Handle, class Location, class Events>
Handle* newLocation(std::int32_t streams, std::int32_t copyOwner, const Events* events,
                    zop_error** error) {
    return guarded(error, [&] {
        return handle<Handle>(
            std::make_shared<Location>(events, static_cast<StreamType>(streams), copyOwner != 0));
    });
}

template <class Handle>
std::int32_t getCopyStreams(Handle* location, std::int32_t* streams, zop_error** error) {
    return done(error, [&] {
        *needed(streams, L"streams") =
            static_cast<std::int32_t>(locationOf(location)->native.get_CopyStreams());
    });
}

template <class Handle>
std::int32_t setCopyStreams(Handle* location, std::int32_t streams, zop_error** error) {
    return done(error, [&] {
        locationOf(location)->native.set_CopyStreams(static_cast<StreamType>(streams));
    });
}

template <class Handle>
std::int32_t commit(Handle* location, zop_error** error) {
    return done(error, [&] { locationOf(location)->native.Commit(); });
}

template <class Handle>
std::int32_t rollback(Handle* location, zop_error** error) {
    return done(error, [&] { locationOf(location)->native.Rollback(); });
}

// names  a member of the native class
template <class Handle, class Getter>
zop_list* listOf(Handle* location, zop_error** error, Getter names) {
    return guarded(error,
                   [&] { return handle<zop_list>((locationOf(location)->native.*names)()); });
}

} // namespace zopobsolete::flat
