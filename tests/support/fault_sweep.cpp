#include "tests/support/fault_sweep.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/support/import_patch.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <initializer_list>
#include <stdexcept>
#include <string_view>

namespace {

constexpr std::uintptr_t returnsCode = 0xC0DE;

struct Import {
    std::string name;
    void** slot = nullptr;
    void* original = nullptr; // what the slot held when it was armed: the system's, or a fake
    void* thunk = nullptr;
    std::uintptr_t failure = 0; // what a failing call returns, or returnsCode
    std::uintptr_t result = 0;
    bool aborts = false; // its fifth argument, when TRUE, releases
    long calls = 0;
};

struct Sweep {
    std::atomic<DWORD> thread{0}; // 0: not armed
    long failAt = 0;              // 0 only counts
    DWORD code = 0;
    FaultMode mode = FaultMode::Once;
    long calls = 0;
    const Import* hit = nullptr;
    long hitCall = 0;
};
Sweep sweep;
std::set<std::string> excludedByTest;

std::uintptr_t decide(void* self, const std::uintptr_t* arguments) {
    auto* import = static_cast<Import*>(self);
    if (sweep.thread != ::GetCurrentThreadId() ||
        (import->aborts && static_cast<DWORD>(arguments[9]) != 0)) {
        return 0;
    }
    ++import->calls;
    const bool first = ++sweep.calls == sweep.failAt;
    if (!first && !(sweep.hit == import && sweep.mode == FaultMode::Always)) {
        return 0;
    }
    if (first) {
        sweep.hit = import;
        sweep.hitCall = import->calls;
    }
    import->result = import->failure == returnsCode ? sweep.code : import->failure;
    ::SetLastError(sweep.code);
    return 1;
}

// A name that ends in * stands for all that begin so.
bool matches(std::string_view name, std::initializer_list<std::string_view> patterns) {
    for (const std::string_view pattern : patterns) {
        if (pattern.ends_with('*') ? name.starts_with(pattern.substr(0, pattern.size() - 1))
                                   : name == pattern) {
            return true;
        }
    }
    return false;
}

bool isLeftOut(std::string_view name) {
    return matches(
        name,
        {// releases: a failure would only leak, and nobody can act on it
         "CloseHandle", "FindClose", "LocalFree", "GlobalFree", "FreeSid", "RegCloseKey",
         "CloseEncryptedFileRaw", "CloseServiceHandle", "FreeLibrary", "UnmapViewOfFile",
         "DeregisterEventSource",
         // language run time: heap, locks, threads, exceptions, modules, time
         "Heap*", "GetProcessHeap", "Virtual*", "Tls*", "Fls*", "EnterCriticalSection",
         "LeaveCriticalSection", "InitializeCriticalSection*", "DeleteCriticalSection",
         "TryEnterCriticalSection", "AcquireSRW*", "ReleaseSRW*", "TryAcquireSRW*",
         "InitializeSRW*", "WakeConditionVariable", "WakeAll*", "SleepConditionVariable*",
         "InitOnce*", "CreateEvent*", "SetEvent", "ResetEvent", "CreateSemaphore*",
         "ReleaseSemaphore", "WaitForMultipleObjects*", "DuplicateHandle", "GetHandleInformation",
         "CreateThread", "OpenThread", "SuspendThread", "ResumeThread", "GetThread*", "SetThread*",
         "GetCurrent*", "Sleep", "SleepEx", "SwitchToThread", "Rtl*", "RaiseException",
         "__C_specific_handler", "AddVectored*", "RemoveVectored*", "SetUnhandledExceptionFilter",
         "UnhandledExceptionFilter", "IsDebuggerPresent", "DebugBreak", "OutputDebugString*",
         "GetModule*", "GetProcAddress", "LoadLibrary*", "GetTickCount*", "QueryPerformance*",
         "GetSystemTime*", "GetLocalTime", "GetLastError", "SetLastError", "SetErrorMode",
         "GetCommandLine*", "GetStartupInfo*", "GetStdHandle", "GetConsole*", "SetConsole*",
         "WriteConsole*", "GetProcessTimes", "GetProcessAffinityMask", "SetProcessAffinityMask",
         "TerminateProcess", "ExitProcess",
         // conversions and questions about memory: they cannot fail on sound arguments
         "MultiByteToWideChar", "WideCharToMultiByte", "IsDBCS*", "CompareString*", "LCMap*",
         "lstr*", "FormatMessage*", "FileTimeTo*", "SystemTimeTo*", "GetACP", "GetVersion*",
         "VerifyVersion*", "VerSetConditionMask", "IsValid*", "EqualSid", "EqualPrefixSid",
         "GetLengthSid", "GetSidSub*", "GetSidIdentifierAuthority", "GetSecurityDescriptorLength",
         "MapGenericMask", "GetDriveType*", "IsWow64*", "GetNativeSystemInfo", "GetSystemInfo"});
}

std::uintptr_t failureOf(std::string_view name) {
    if (matches(name, {"Reg*", "SetEntriesInAcl*", "GetNamedSecurityInfo*", "SetNamedSecurityInfo*",
                       "GetSecurityInfo", "SetSecurityInfo", "TreeSetNamedSecurityInfo*",
                       "TreeResetNamedSecurityInfo*", "OpenEncryptedFileRaw*",
                       "ReadEncryptedFileRaw", "WriteEncryptedFileRaw", "Lsa*"}) &&
        name != "RegisterEventSourceW") {
        return returnsCode;
    }
    if (matches(name, {"CreateFile*", "FindFirst*", "CreateNamedPipe*", "CreateMailslot*"}) &&
        !name.starts_with("CreateFileMapping")) {
        return reinterpret_cast<std::uintptr_t>(INVALID_HANDLE_VALUE);
    }
    if (matches(name, {"GetFileAttributesA", "GetFileAttributesW", "GetFileSize", "SetFilePointer",
                       "GetCompressedFileSize*", "WaitForSingleObject*"})) {
        return 0xFFFFFFFF;
    }
    return name.starts_with("Nt") ? 0xC0000022 : 0; // STATUS_ACCESS_DENIED
}

std::deque<Import> findImports() {
    std::deque<Import> found; // thunks know their addresses
    forEachImport(nullptr, [&](const char* dll, const char* name, void** slot) {
        if ((_stricmp(dll, "kernel32.dll") != 0 && _stricmp(dll, "advapi32.dll") != 0 &&
             _stricmp(dll, "ntdll.dll") != 0) ||
            isLeftOut(name)) {
            return;
        }
        Import& import = found.emplace_back();
        import.name = name;
        import.slot = slot;
        import.failure = failureOf(import.name);
        import.aborts = import.name == "BackupRead" || import.name == "BackupWrite";
        import.thunk = newImportThunk(&import, decide, &import.result, &import.original);
        DWORD protection = 0;
        ::VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection);
    });
    return found;
}

std::deque<Import>& imports() {
    static std::deque<Import> all = findImports();
    return all;
}

class Armed {
public:
    Armed(long failAt, DWORD code, FaultMode mode) {
        if (sweep.thread != 0) {
            throw std::logic_error("a fault is being tried already");
        }
        sweep.failAt = failAt;
        sweep.code = code;
        sweep.mode = mode;
        sweep.calls = 0;
        sweep.hit = nullptr;
        for (Import& import : imports()) {
            import.calls = 0;
            import.original = nullptr;
            if (!excludedByTest.contains(import.name)) {
                import.original = *import.slot;
                *import.slot = import.thunk;
            }
        }
        sweep.thread = ::GetCurrentThreadId();
    }
    ~Armed() {
        sweep.thread = 0;
        for (Import& import : imports()) {
            if (import.original != nullptr) {
                *import.slot = import.original; // kept in the thunk, for a thread that is in it
            }
        }
    }
    Armed(const Armed&) = delete;
    Armed& operator=(const Armed&) = delete;
};

} // namespace

std::string FaultOutcome::text() const {
    return (fired ? "failing " + function : std::string("no fault")) +
           (error.empty() ? "" : "; error: " + error);
}

FaultOutcome runWithFault(long n, DWORD code, FaultMode mode, const std::function<void()>& fn) {
    FaultOutcome outcome;
    try {
        const Armed armed(n, code, mode);
        fn();
    } catch (const vexception& e) {
        outcome.error = toUtf8(e.what());
    }
    outcome.fired = sweep.hit != nullptr;
    if (outcome.fired) {
        outcome.function = sweep.hit->name + ", call " + std::to_string(sweep.hitCall);
    }
    return outcome;
}

std::map<std::string, long> countCalls(const std::function<void()>& fn) {
    {
        const Armed armed(0, 0, FaultMode::Once);
        fn();
    }
    std::map<std::string, long> counts;
    for (const Import& import : imports()) {
        if (import.calls != 0) {
            counts[import.name] = import.calls;
        }
    }
    return counts;
}

FaultPause::FaultPause() : thread_(sweep.thread.exchange(0)) {}

FaultPause::~FaultPause() {
    sweep.thread = thread_;
}

FaultExclusion::FaultExclusion(std::set<std::string> functions) : before_(excludedByTest) {
    excludedByTest.merge(functions);
}

FaultExclusion::~FaultExclusion() {
    excludedByTest = before_;
}

SweepExtent::SweepExtent(long everyday)
    : isWhole(std::getenv("ZOP_SWEEP") != nullptr), stride(isWhole ? 1 : everyday) {
    if (isWhole) {
        std::sscanf(std::getenv("ZOP_SWEEP"), "%ld-%ld", &first, &last);
    }
}
