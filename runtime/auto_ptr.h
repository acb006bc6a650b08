// Owning pointers to buffers that the system, or malloc, handed out. Each is released by the
// function that belongs to its allocator:
//
//     RunTime::LocalPtr<wchar_t> text;
//     if (!::ConvertSidToStringSidW(sid, text.put())) { ... }
//
// Plain values of one thread.
#pragma once

#include <utility>
#include <windows.h>

namespace RunTime {

// Buffers from malloc.
struct _FreeDestroy {
    static void destroy(void* buffer) noexcept;
};

// Buffers from ConvertStringSidToSidW and its kin.
struct _LocalFreeDestroy {
    static void destroy(void* buffer) noexcept;
};

// Buffers from the NetAPI.
struct _NetFreeDestroy {
    static void destroy(void* buffer) noexcept;
};

// T is what the buffer holds, P how the system's functions name a pointer to it: the same thing for
// most, LPBYTE for the NetAPI, PSID for a SID. Releasing keeps GetLastError(), so that an owner may
// go between a failed call and its report. Assigning the pointer that is held already releases
// nothing.
template <class T, class P, class Destroy>
class AutoPtr {
public:
    AutoPtr() = default;
    explicit AutoPtr(P pointer, bool owns = true) noexcept
        : pointer_(pointer), owns_(owns ? TRUE : FALSE) {}
    AutoPtr(AutoPtr&& other) noexcept
        : pointer_(std::exchange(other.pointer_, nullptr)),
          owns_(std::exchange(other.owns_, FALSE)) {}
    AutoPtr& operator=(AutoPtr&& other) noexcept {
        if (this != &other) {
            const bool owns = other.owns_ != FALSE;
            assign(std::exchange(other.pointer_, nullptr), owns);
            other.owns_ = FALSE;
        }
        return *this;
    }
    // Takes a new pointer; the old one is released if it was owned.
    AutoPtr& operator=(P pointer) noexcept {
        assign(pointer);
        return *this;
    }
    ~AutoPtr() { assign(nullptr); }

    void assign(P pointer, bool owns = true) noexcept {
        if (owns_ != FALSE && pointer_ != nullptr && pointer_ != pointer) {
            const DWORD code = ::GetLastError();
            Destroy::destroy(pointer_);
            ::SetLastError(code);
        }
        pointer_ = pointer;
        owns_ = pointer != nullptr && owns ? TRUE : FALSE;
    }

    // For an out-parameter; what was held before is released, what comes is owned.
    P* put() noexcept {
        assign(nullptr);
        owns_ = TRUE;
        return &pointer_;
    }
    // Gives the pointer up; the caller releases it.
    P release() noexcept {
        owns_ = FALSE;
        return std::exchange(pointer_, nullptr);
    }

    P get() const noexcept { return pointer_; }
    T* operator->() const noexcept { return reinterpret_cast<T*>(pointer_); }
    T& operator*() const noexcept { return *reinterpret_cast<T*>(pointer_); }
    explicit operator bool() const noexcept { return pointer_ != nullptr; }

private:
    P pointer_ = nullptr;
    BOOL owns_ = FALSE;
};

template <class T, class P = T*>
using FreePtr = AutoPtr<T, P, _FreeDestroy>;
template <class T, class P = T*>
using LocalPtr = AutoPtr<T, P, _LocalFreeDestroy>;
template <class T, class P = T*>
using NetBuffer = AutoPtr<T, P, _NetFreeDestroy>;

} // namespace RunTime
