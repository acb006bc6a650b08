// Fails any Win32 call of an operation: the n-th, whichever function it is. A test that runs the
// operation with n = 1, 2, 3, ... until no fault fires has tried them all.
//
//     for (long n = 1, fired = 1; fired; ++n) {
//         makeTrees();
//         const FaultOutcome outcome = runWithFault(n, ERROR_DISK_FULL, [&] { mover.move(...); });
//         SCOPED_TRACE(outcome.text());
//         fired = outcome.fired;
//         ...
//     }
//
// What counts: calls that the test executable makes, on this thread and while the function runs, of
// the functions that it imports from kernel32, advapi32 and ntdll. Left out is what releases
// (CloseHandle, BackupRead with its abort flag, ...), what has no failure to report, and what the
// language's own run time needs (heap, locks, threads, exceptions, conversions of text). Fakes that
// replace imports must be made before and are failed like the real functions; what they call
// themselves does not count.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <windows.h>

enum class FaultMode {
    Once,   // the next call works again
    Always, // so fails every later call of the same function
};

struct FaultOutcome {
    bool fired = false;
    std::string function; // the one that failed, and which of its calls: "WriteFile, call 3"
    std::string error;    // text of the vexception that came out; empty for none

    std::string text() const; // for SCOPED_TRACE
};

// n counts from 1. A vexception of fn ends here (see FaultOutcome::error), any other passes.
// code is what the failing call leaves, or returns where it returns its code. Not to be nested.
FaultOutcome runWithFault(long n, DWORD code, FaultMode mode, const std::function<void()>& fn);
inline FaultOutcome runWithFault(long n, DWORD code, const std::function<void()>& fn) {
    return runWithFault(n, code, FaultMode::Once, fn);
}

// How often fn calls which function: what a fault could hit. Exceptions pass.
std::map<std::string, long> countCalls(const std::function<void()>& fn);

// While it lives nothing counts and nothing fails: for what stands in another program's place.
class FaultPause {
public:
    FaultPause();
    ~FaultPause();
    FaultPause(const FaultPause&) = delete;
    FaultPause& operator=(const FaultPause&) = delete;

private:
    DWORD thread_;
};

// Functions that are left out besides, for as long as the object lives.
class FaultExclusion {
public:
    explicit FaultExclusion(std::set<std::string> functions);
    ~FaultExclusion();
    FaultExclusion(const FaultExclusion&) = delete;
    FaultExclusion& operator=(const FaultExclusion&) = delete;

private:
    std::set<std::string> before_;
};

// The rounds that a sweep goes through: every stride-th one; but with the environment variable
// ZOP_SWEEP every single one, or those of its range ("all", "200-399").
struct SweepExtent {
    explicit SweepExtent(long everyday);

    bool isWhole; // nothing is to be left out
    long first = 1;
    long last = 0x7FFFFFFF;
    long stride;
};
