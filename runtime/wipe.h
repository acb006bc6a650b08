// Leaves nothing of a secret in memory that is about to be freed, where it would get into crash
// dumps, the page file or a later block.
#pragma once

#include <cstddef>
#include <memory>
#include <windows.h>

namespace RunTime {

// Overwrites all that a string or vector has room for, what it held earlier included, which the
// compiler must not leave out, and empties it. Blocks that it outgrew are not reached.
template <class Container>
void wipe(Container& container) noexcept {
    container.resize(container.capacity()); // as much as there is, so this does not allocate
    ::SecureZeroMemory(container.data(), container.size() * sizeof(*container.data()));
    container.clear();
}

// Wipes when the scope is left, by an exception too.
template <class Container>
class WipeOnExit {
public:
    explicit WipeOnExit(Container& container) noexcept : container_(container) {}
    ~WipeOnExit() { wipe(container_); }
    WipeOnExit(const WipeOnExit&) = delete;
    WipeOnExit& operator=(const WipeOnExit&) = delete;

private:
    Container& container_;
};

// For a vector that wipes every block that it gives back, those that it outgrew included. Not for
// strings: a short one lies in the object itself.
template <class T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <class Other>
    WipingAllocator(const WipingAllocator<Other>&) noexcept {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* block, std::size_t count) noexcept {
        ::SecureZeroMemory(block, count * sizeof(T));
        std::allocator<T>().deallocate(block, count);
    }
    friend bool operator==(const WipingAllocator&, const WipingAllocator&) noexcept { return true; }
};

} // namespace RunTime
