#include "api/data_location.h"
#include "api/flat/flat_location.h"

#include <memory>

using namespace zopobsolete::flat;
using zopobsolete::DataLocation;

namespace {

struct Location : Hooked<DataLocation, zop_data_location_events> {
    template <class... Args>
    explicit Location(const zop_data_location_events* callbacks, Args... args)
        : Hooked(callbacks, args...) {
        hookFlag(native.ProgressEvent_Cost, events.progress_cost);
        hookFlag(native.ProgressEvent_Name, events.progress_name);
        hookFlag(native.ErrorEvent, events.error);
    }
};

} // namespace

struct zop_data_location {
    std::shared_ptr<Location> shared;
};

zop_data_location* ZOP_CALL zop_data_location_create(std::int32_t streams, std::int32_t copy_owner,
                                                     const zop_data_location_events* events,
                                                     zop_error** error) {
    return newLocation<zop_data_location, Location>(streams, copy_owner, events, error);
}

void ZOP_CALL zop_data_location_free(zop_data_location* location) {
    destroy(location);
}

std::int32_t ZOP_CALL zop_data_location_get_copy_streams(zop_data_location* location,
                                                         std::int32_t* streams, zop_error** error) {
    return getCopyStreams(location, streams, error);
}

std::int32_t ZOP_CALL zop_data_location_set_copy_streams(zop_data_location* location,
                                                         std::int32_t streams, zop_error** error) {
    return setCopyStreams(location, streams, error);
}

std::int32_t ZOP_CALL zop_data_location_change(zop_data_location* location, const wchar_t* source,
                                               const wchar_t* dest, std::int32_t* moved,
                                               zop_error** error) {
    return done(error, [&] {
        const std::shared_ptr<Location> shared = locationOf(location);
        const bool result = shared->native.Change(needed(source, L"source"), needed(dest, L"dest"));
        if (moved != nullptr) {
            *moved = result ? 1 : 0;
        }
    });
}

std::int32_t ZOP_CALL zop_data_location_commit(zop_data_location* location, zop_error** error) {
    return commit(location, error);
}

std::int32_t ZOP_CALL zop_data_location_rollback(zop_data_location* location, zop_error** error) {
    return rollback(location, error);
}

zop_list* ZOP_CALL zop_data_location_failed(zop_data_location* location, zop_error** error) {
    return listOf(location, error, &DataLocation::get_Failed);
}

zop_list* ZOP_CALL zop_data_location_left_behind(zop_data_location* location, zop_error** error) {
    return listOf(location, error, &DataLocation::get_LeftBehind);
}

zop_list* ZOP_CALL zop_data_location_pending_restart(zop_data_location* location,
                                                     zop_error** error) {
    return listOf(location, error, &DataLocation::get_PendingRestart);
}
