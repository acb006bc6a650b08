#include "runtime/auto_ptr.h"

#include <cstdlib>
#include <lm.h>

namespace RunTime {

void _FreeDestroy::destroy(void* buffer) noexcept {
    std::free(buffer);
}

void _LocalFreeDestroy::destroy(void* buffer) noexcept {
    ::LocalFree(buffer);
}

void _NetFreeDestroy::destroy(void* buffer) noexcept {
    ::NetApiBufferFree(buffer);
}

} // namespace RunTime
