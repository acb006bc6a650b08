// Owners of what Windows hands out and wants back.
#pragma once

#include <utility>
#include <windows.h>

namespace RunTime {

// Owns one kernel handle. Null and INVALID_HANDLE_VALUE both mean "nothing owned": OpenProcess
// fails with the one and CreateFileW with the other, and an owner need not know which it was.
class AutoHandle {
public:
    AutoHandle() = default;
    explicit AutoHandle(HANDLE handle) noexcept : handle_(handle) {}
    AutoHandle(AutoHandle&& other) noexcept : handle_(other.release()) {}
    AutoHandle& operator=(AutoHandle&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~AutoHandle() { reset(); }

    HANDLE get() const noexcept { return handle_; }
    explicit operator bool() const noexcept {
        return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE;
    }
    HANDLE release() noexcept { return std::exchange(handle_, nullptr); }
    void reset(HANDLE handle = nullptr) noexcept; // closes the old one, keeps GetLastError()

    // For a call that stores a handle through a pointer; what was owned before is closed.
    HANDLE* put() noexcept {
        reset();
        return &handle_;
    }

    // A second handle to the same object, with the same access, not inheritable.
    // Throws vosexception.
    AutoHandle duplicate() const;

private:
    HANDLE handle_ = nullptr;
};

// Owns one resource whose type has a null value and a release function, both named by Traits.
// Releasing keeps GetLastError(), so that an owner may go between a failed call and its report.
template <class Traits>
class AutoResource {
public:
    using Value = typename Traits::Value;

    AutoResource() = default;
    explicit AutoResource(Value value) noexcept : value_(value) {}
    AutoResource(AutoResource&& other) noexcept : value_(other.release()) {}
    AutoResource& operator=(AutoResource&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~AutoResource() { reset(); }

    Value get() const noexcept { return value_; }
    explicit operator bool() const noexcept { return value_ != Traits::none(); }
    Value release() noexcept { return std::exchange(value_, Traits::none()); }
    void reset(Value value = Traits::none()) noexcept {
        const Value old = std::exchange(value_, value);
        if (old != Traits::none() && old != value) {
            const DWORD code = ::GetLastError();
            Traits::close(old);
            ::SetLastError(code);
        }
    }
    Value* put() noexcept {
        reset();
        return &value_;
    }

private:
    Value value_ = Traits::none();
};

struct FindHandleTraits {
    using Value = HANDLE;
    static Value none() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(Value value) noexcept { ::FindClose(value); }
};

struct RegKeyTraits {
    using Value = HKEY;
    static Value none() noexcept { return nullptr; }
    static void close(Value value) noexcept { ::RegCloseKey(value); }
};

// The handle of FindFirstFileExW and its kin.
using AutoFindHandle = AutoResource<FindHandleTraits>;

// An opened registry key.
using AutoRegKey = AutoResource<RegKeyTraits>;

} // namespace RunTime
