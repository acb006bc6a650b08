#include "api/flat/flat_support.h"
#include "api/virtual_hosts_location.h"

#include <memory>

using namespace zopobsolete::flat;
using zopobsolete::StreamType;
using zopobsolete::VirtualHostsLocation;

namespace {

struct Location : Hooked<VirtualHostsLocation, zop_vhosts_location_events> {
    template <class... Args>
    explicit Location(const zop_vhosts_location_events* callbacks, Args... args)
        : Hooked(callbacks, args...) {
        hookFlag(native.ProgressEvent_Cost, events.progress_cost);
        hookFlag(native.ProgressEvent_Name, events.progress_name);
        hookFlag(native.SubProgressEvent_Start, events.sub_progress_start);
        hookFlag(native.SubProgressEvent_End, events.sub_progress_end);
        hook(native.ErrorEvent, events.error);
        hookFlag(native.IgnorebleErrorEvent, events.ignorable_error);
        hook(native.StepEvent, events.step);
    }
};

} // namespace

struct zop_vhosts_location {
    std::shared_ptr<Location> shared;
};

namespace {

std::shared_ptr<Location> of(zop_vhosts_location* given) {
    return needed(given, L"location")->shared;
}

template <class Getter>
zop_list* listOf(zop_vhosts_location* location, zop_error** error, Getter getter) {
    return guarded(error, [&] { return handle<zop_list>((of(location)->native.*getter)()); });
}

} // namespace

zop_vhosts_location* ZOP_CALL zop_vhosts_location_create(std::int32_t streams,
                                                         std::int32_t copy_owner,
                                                         const zop_vhosts_location_events* events,
                                                         zop_error** error) {
    return guarded(error, [&] {
        return handle<zop_vhosts_location>(
            std::make_shared<Location>(events, static_cast<StreamType>(streams), copy_owner != 0));
    });
}

void ZOP_CALL zop_vhosts_location_free(zop_vhosts_location* location) {
    destroy(location);
}

std::int32_t ZOP_CALL zop_vhosts_location_get_copy_streams(zop_vhosts_location* location,
                                                           std::int32_t* streams,
                                                           zop_error** error) {
    return done(error, [&] {
        *needed(streams, L"streams") =
            static_cast<std::int32_t>(of(location)->native.get_CopyStreams());
    });
}

std::int32_t ZOP_CALL zop_vhosts_location_set_copy_streams(zop_vhosts_location* location,
                                                           std::int32_t streams,
                                                           zop_error** error) {
    return done(error,
                [&] { of(location)->native.set_CopyStreams(static_cast<StreamType>(streams)); });
}

std::int32_t ZOP_CALL zop_vhosts_location_change(zop_vhosts_location* location,
                                                 const wchar_t* source, const wchar_t* dest,
                                                 std::int32_t* cancelled, zop_error** error) {
    return done(error, [&] {
        const std::shared_ptr<Location> shared = of(location);
        std::int32_t unused = 0;
        std::int32_t& wasCancelled = cancelled != nullptr ? *cancelled : unused;
        wasCancelled = 0;
        try {
            if (source != nullptr) {
                shared->native.Change(source, needed(dest, L"dest"));
            } else {
                shared->native.Change(needed(dest, L"dest"));
            }
        } catch (const zopobsolete::Exception&) {
            wasCancelled = shared->native.get_Canceled() ? 1 : 0;
            throw;
        }
    });
}

std::int32_t ZOP_CALL zop_vhosts_location_commit(zop_vhosts_location* location, zop_error** error) {
    return done(error, [&] { of(location)->native.Commit(); });
}

std::int32_t ZOP_CALL zop_vhosts_location_rollback(zop_vhosts_location* location,
                                                   zop_error** error) {
    return done(error, [&] { of(location)->native.Rollback(); });
}

zop_list* ZOP_CALL zop_vhosts_location_failed(zop_vhosts_location* location, zop_error** error) {
    return listOf(location, error, &VirtualHostsLocation::get_Failed);
}

zop_list* ZOP_CALL zop_vhosts_location_left_behind(zop_vhosts_location* location,
                                                   zop_error** error) {
    return listOf(location, error, &VirtualHostsLocation::get_LeftBehind);
}

zop_list* ZOP_CALL zop_vhosts_location_pending_restart(zop_vhosts_location* location,
                                                       zop_error** error) {
    return listOf(location, error, &VirtualHostsLocation::get_PendingRestart);
}
