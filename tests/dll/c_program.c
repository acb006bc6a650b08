/* What a program in C does with the library. */
#include "tests/dll/c_program.h"

#include <string.h>

struct watch {
    int items;
    int cancel_at;
    const wchar_t* failure;
};

static int32_t ZOP_CALL on_name(void* context, const wchar_t* name, int32_t is_file, int64_t cost,
                                zop_call* call) {
    struct watch* watch = context;
    (void)name;
    (void)is_file;
    (void)cost;
    if (watch->failure != NULL) {
        zop_call_fail(call, watch->failure);
        return 0;
    }
    return ++watch->items == watch->cancel_at;
}

int32_t move_in_c(const wchar_t* source, const wchar_t* dest, int cancel_at, const wchar_t* failure,
                  size_t known, int* items, zop_error** error) {
    struct watch watch = {0, cancel_at, failure};
    zop_data_location_events events;
    zop_data_location* location;
    int32_t moved = -1;
    memset(&events, 0x5A, sizeof(events)); /* what lies behind the size is not to be read */
    events.size = known;
    events.context = &watch;
    events.progress_cost = NULL;
    if (known > offsetof(zop_data_location_events, progress_name)) {
        events.progress_name = &on_name;
    }
    if (known > offsetof(zop_data_location_events, error)) {
        events.error = NULL;
    }
    location = zop_data_location_create(0, 0, &events, error);
    if (location == NULL) {
        return -2;
    }
    if (!zop_data_location_change(location, source, dest, &moved, error)) {
        zop_data_location_rollback(location, NULL);
        moved = -1;
    } else if (moved) {
        zop_list* failed = zop_data_location_failed(location, NULL);
        moved = zop_list_count(failed) == 0 && zop_list_at(failed, 0) == NULL &&
                zop_data_location_commit(location, error);
        zop_list_free(failed);
    } else {
        zop_data_location_rollback(location, NULL);
    }
    zop_data_location_free(location);
    *items = watch.items;
    return moved;
}
