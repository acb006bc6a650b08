// Replaces Win32 functions under the code being tested, through the import table of a module: of
// the test executable (the default, which covers every static library in it) or of a DLL.
//
// Not covered: pointers from GetProcAddress (patch the import "GetProcAddress"), calls inside the
// system's own DLLs, other processes. A patch acts on all threads of the process.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <windows.h>

// Every import by name of a module, the test executable for null.
using ImportVisitor = std::function<void(const char* dll, const char* name, void** slot)>;
void forEachImport(HMODULE module, const ImportVisitor& visit);

// Code to stand in the place of a function. It asks decide(self, arguments) first; 0 goes on to
// *original with all arguments in place, anything else returns *result. arguments: r9, r8, rdx,
// rcx, the return address, four words, the fifth argument. It stays: a thread may be in it.
using ImportDecision = std::uintptr_t (*)(void* self, const std::uintptr_t* arguments);
void* newImportThunk(void* self, ImportDecision decide, const void* result, void* const* original);

// One import, replaced for the life of the object. Patches of one import end in reverse order.
//
//     ImportPatch patch("BackupRead", &fakeBackupRead);
//     patch.original<decltype(&::BackupRead)>()(...);
class ImportPatch {
public:
    // Throws std::runtime_error when the module does not import the function by that name.
    template <class Function>
    ImportPatch(const char* name, Function* replacement, HMODULE module = nullptr)
        : ImportPatch(module, name, reinterpret_cast<void*>(replacement)) {}
    ImportPatch(HMODULE module, const char* name, void* replacement);
    ~ImportPatch();
    ImportPatch(const ImportPatch&) = delete;
    ImportPatch& operator=(const ImportPatch&) = delete;

    template <class Function>
    Function original() const noexcept {
        return reinterpret_cast<Function>(original_);
    }

private:
    void write(void* value) const;

    void** slot_;
    void* original_;
};

// Makes chosen calls of an import fail, whatever its parameters. Counts the calls from 0.
//
//     FaultPoint fault("MoveFileExW");
//     fault.failAt = 1;
//     fault.code = ERROR_SHARING_VIOLATION;
class FaultPoint {
public:
    std::atomic<long> failAt{-1};         // the call that fails; -1 only counts
    std::atomic<bool> failOnwards{false}; // so does every later one
    std::atomic<DWORD> code{ERROR_ACCESS_DENIED};
    // What the failing call returns: 0, INVALID_HANDLE_VALUE, or the code itself (registry,
    // NetAPI).
    std::atomic<std::uintptr_t> result{0};
    std::atomic<long> calls{0};

    explicit FaultPoint(const char* name, HMODULE module = nullptr);
    FaultPoint(const FaultPoint&) = delete;
    FaultPoint& operator=(const FaultPoint&) = delete;

    bool fired() const noexcept { return failAt >= 0 && calls > failAt; }

private:
    static std::uintptr_t decide(void* point, const std::uintptr_t*) noexcept;
    static_assert(sizeof(std::atomic<std::uintptr_t>) == sizeof(std::uintptr_t),
                  "the thunk reads the result as a plain word");

    void* original_;
    ImportPatch patch_;
};
