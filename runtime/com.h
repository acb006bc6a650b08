// Owners for COM: of the thread's use of it, and of one interface pointer.
//
//     const RunTime::ComScope com;
//     RunTime::ComPtr<ISAXXMLReader> reader;
//     const HRESULT result = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid,
//     reader.putVoid());
#pragma once

#include "runtime/exception.h"

#include <objbase.h>
#include <utility>

namespace RunTime {

// COM, for the thread that makes the object and for the object's life. A thread that uses it
// already, in whichever apartment, goes on as it was. When another thread destroys the object, as a
// finaliser may, COM stays initialised for the first: the other's is not ours to end.
class ComScope {
public:
    // Throws vosexception "Unable to initialize COM" with the result as its code.
    ComScope() : result_(::CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {
        if (FAILED(result_) && result_ != RPC_E_CHANGED_MODE) {
            _throwError(L"Unable to initialize COM", static_cast<DWORD>(result_),
                        {L"", "RunTime::ComScope::ComScope", __LINE__});
        }
    }
    ~ComScope() {
        if (SUCCEEDED(result_) && thread_ == ::GetCurrentThreadId()) {
            ::CoUninitialize();
        }
    }
    ComScope(const ComScope&) = delete;
    ComScope& operator=(const ComScope&) = delete;

private:
    HRESULT result_;
    DWORD thread_ = ::GetCurrentThreadId();
};

// Owns one reference to an interface.
template <class Interface>
class ComPtr {
public:
    ComPtr() = default;
    ComPtr(ComPtr&& other) noexcept : pointer_(std::exchange(other.pointer_, nullptr)) {}
    ComPtr& operator=(ComPtr&& other) noexcept {
        std::swap(pointer_, other.pointer_);
        return *this;
    }
    ~ComPtr() { reset(); }

    Interface* get() const noexcept { return pointer_; }
    Interface* operator->() const noexcept { return pointer_; }
    explicit operator bool() const noexcept { return pointer_ != nullptr; }
    void reset() noexcept {
        if (Interface* old = std::exchange(pointer_, nullptr)) {
            old->Release();
        }
    }
    // For a call that stores a reference; what was owned before is released.
    Interface** put() noexcept {
        reset();
        return &pointer_;
    }
    void** putVoid() noexcept { return reinterpret_cast<void**>(put()); }

private:
    Interface* pointer_ = nullptr;
};

} // namespace RunTime
