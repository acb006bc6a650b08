// One of our programs, started as an administrator's shell would start it, with its output caught.
#pragma once

#include "runtime/auto_handle.h"

#include <string>
#include <windows.h>

class Program {
public:
    struct Outcome {
        DWORD exitCode = ~0UL;
        std::string output;
        std::string errors;
    };

    // file: beside the tests. The command line is taken as it stands, quotation marks and all.
    Program(const std::wstring& file, const std::wstring& commandLine);

    // Waits until it prints this to standard output; false when it ends before.
    bool waitFor(const std::string& text);
    // As Ctrl+C does. Under Wine the last word of the command line must be one of its own.
    void interrupt() const;
    // Waits for its end, for a minute at most.
    Outcome finish();

    static std::wstring path(const std::wstring& file);

private:
    RunTime::AutoHandle process_;
    DWORD id_ = 0;
    std::wstring commandLine_;
    RunTime::AutoHandle output_;
    RunTime::AutoHandle errors_;
    std::string printed_;
};

// Runs it to its end.
inline Program::Outcome runProgram(const std::wstring& file, const std::wstring& commandLine) {
    return Program(file, commandLine).finish();
}
