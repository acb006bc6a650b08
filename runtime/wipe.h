// Leaves nothing of a secret in memory that is about to be freed.
#pragma once

#include <windows.h>

namespace RunTime {

// Overwrites what a string or vector holds, which the compiler must not leave out, and empties it.
template <class Container>
void wipe(Container& container) noexcept {
    ::SecureZeroMemory(container.data(), container.size() * sizeof(*container.data()));
    container.clear();
}

} // namespace RunTime
