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

void* allocate(std::size_t size) {
    for (;;) {
        if (void* block = std::malloc(size != 0 ? size : 1)) {
            ++alive;
            return block;
        }
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) {
            throw std::bad_alloc();
        }
        handler();
    }
}

void release(void* block) noexcept {
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

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void operator delete(void* block) noexcept {
    release(block);
}
void operator delete[](void* block) noexcept {
    release(block);
}
void operator delete(void* block, std::size_t) noexcept {
    release(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    release(block);
}

ProcessCounters ProcessCounters::now() {
    using Query = LONG(WINAPI*)(int, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    ProcessCounters result;
    result.blocks = alive;
    for (ULONG size = 1 << 20; size <= 1 << 26; size *= 2) {
        const auto buffer = static_cast<SystemHandles*>(std::malloc(size));
        ULONG needed = 0;
        const LONG status = query(64, buffer, size, &needed);
        if (status >= 0) {
            for (std::uintptr_t i = 0; i < buffer->count; ++i) {
                result.handles += buffer->entries[i].process == ::GetCurrentProcessId();
            }
        }
        std::free(buffer);
        if (status != static_cast<LONG>(0xC0000004)) { // STATUS_INFO_LENGTH_MISMATCH
            break;
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
