#include "api/flat/flat_location.h"
#include "api/virtual_hosts_location.h"

#include <memory>

using namespace zopobsolete::flat;
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

zop_vhosts_location* ZOP_CALL zop_vhosts_location_create(std::int32_t streams,
                                                         std::int32_t copy_owner,
                                                         const zop_vhosts_location_events* events,
                                                         zop_error** error) {
    return newLocation<zop_vhosts_location, Location>(streams, copy_owner, events, error);
}

void ZOP_CALL zop_vhosts_location_free(zop_vhosts_location* location) {
    destroy(location);
}

std::int32_t ZOP_CALL zop_vhosts_location_get_copy_streams(zop_vhosts_location* location,
                                                           std::int32_t* streams,
                                                           zop_error** error) {
    return getCopyStreams(location, streams, error);
}

std::int32_t ZOP_CALL zop_vhosts_location_set_copy_streams(zop_vhosts_location* location,
                                                           std::int32_t streams,
                                                           zop_error** error) {
    return setCopyStreams(location, streams, error);
}

std::int32_t ZOP_CALL zop_vhosts_location_change(zop_vhosts_location* location,
                                                 const wchar_t* source, const wchar_t* dest,
                                                 std::int32_t* cancelled, zop_error** error) {
    return done(error, [&] {
        const std::shared_ptr<Location> shared = locationOf(location);
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
    return commit(location, error);
}

std::int32_t ZOP_CALL zop_vhosts_location_rollback(zop_vhosts_location* location,
                                                   zop_error** error) {
    return rollback(location, error);
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
