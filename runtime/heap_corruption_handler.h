// Writes a crash dump when the system finds the heap corrupted, just before it ends the process.
//
// The dump goes to the directory named by the string value "CrashDumpDirectory" under
// HKEY_LOCAL_MACHINE "SOFTWARE\Tarvo\ZOP Config\Config" (32-bit view), which must exist. Without
// the value nothing is written. A dump holds memory of the process, passwords maybe among it: the
// directory should be closed to all but administrators.
#pragma once

#include <windows.h>

// Holds the registration of a vectored exception handler.
class VectoredExceptionHandler {
public:
    VectoredExceptionHandler() = default;
    VectoredExceptionHandler(const VectoredExceptionHandler&) = delete;
    VectoredExceptionHandler& operator=(const VectoredExceptionHandler&) = delete;
    virtual ~VectoredExceptionHandler();

protected:
    void* handle_ = nullptr; // as AddVectoredExceptionHandler returned it
};

// Process-wide; the handler may run on any thread. One object a process is enough.
class HeapCorruptionHandler : public VectoredExceptionHandler {
public:
    // Registers the handler, in front of all others, when enable is set. A refusal of the system
    // is no error: the process then dies without a dump, as it would have anyway.
    explicit HeapCorruptionHandler(bool enable);

private:
    static LONG CALLBACK handle(EXCEPTION_POINTERS* exception);
};
