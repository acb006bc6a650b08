// Every delete of the tests goes through here: a block whose end was overwritten stops the run at
// once. The system finds that out where the program's "Image File Execution Options" have
// GlobalFlag 0x10; without it only broken heap headers are found.
#include "tests/support/process_counters.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <new>

namespace {

std::atomic<long long> alive{0};

struct SystemHandles { // SystemExtendedHandleInformation
    std::uintptr_t count, reserved;
    struct Entry {
        void* object;
        std::uintptr_t process, handle;
        DWORD access;
        WORD trace, type;
        DWORD attributes, reserved;
    } entries[1];
};

} // namespace

// Those of arrays go through these.
void* operator new(std::size_t size) {
    void* block = std::malloc(size != 0 ? size : 1);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    ++alive;
    return block;
}

void operator delete(void* block) noexcept {
    if (block == nullptr) {
        return;
    }
    static const HANDLE heap = reinterpret_cast<HANDLE>(_get_heap_handle());
    if (!::HeapValidate(heap, 0, block)) {
        std::fputs("a block of the heap is damaged\n", stderr);
        std::abort();
    }
    --alive;
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

ProcessCounters ProcessCounters::now() {
    using Query = LONG(WINAPI*)(int, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    constexpr ULONG size = 8 << 20; // room for more handles than there are
    static auto* const all = static_cast<SystemHandles*>(std::malloc(size));
    ProcessCounters result{0, alive};
    ULONG needed = 0;
    if (query(64, all, size, &needed) >= 0) {
        for (std::uintptr_t i = 0; i < all->count; ++i) {
            result.handles += all->entries[i].process == ::GetCurrentProcessId();
        }
    }
    return result;
}

ProcessCounters growthOver(int rounds, const std::function<void()>& fn) {
    for (int i = 0; i < 3; ++i) {
        fn();
    }
    const ProcessCounters before = ProcessCounters::now();
    for (int i = 0; i < rounds; ++i) {
        fn();
    }
    const ProcessCounters after = ProcessCounters::now();
    return {after.handles - before.handles, after.blocks - before.blocks};
}
