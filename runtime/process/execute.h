// Runs a program to its end and collects what it prints:
//
//     RunTime::Execute script(php, {path, L"--repair-all"});
//     script.mergeErrors = true;
//     const RunTime::Execute::Result result = script.run();
//     if (result.exitStatus != 0) { ... result.output ... }
//
// The program is started by its whole path and nothing is looked for anywhere. It sees the
// arguments exactly as given, inherits its three standard handles and no other, and has no window
// and no console of ours: Ctrl+C does not reach it.
//
// run() is a cancellation point for as long as the program runs. When it throws, for whatever
// reason, the program and all that it had started have ended. What a program leaves running at its
// own end lives on, and is not waited for.
//
// A value of one thread; different objects may run at once. No thread is made.
#pragma once

#include <chrono>
#include <string>
#include <vector>
#include <windows.h>

namespace RunTime {

class Execute {
public:
    struct Result {
        DWORD exitStatus = 0;
        std::wstring output;    // line ends as they were printed
        std::wstring errors;    // what went to standard error; empty with mergeErrors
        bool truncated = false; // outputLimit was reached
    };

    // program    the whole path of an .exe file, in either form. Nothing else is accepted: a batch
    //            file would have its arguments read by the command interpreter.
    // arguments  any text without a zero character, the empty one included
    Execute(std::wstring program, std::vector<std::wstring> arguments);

    std::wstring directory;   // to work in, whole path; when empty, the one the program lies in
    std::string input;        // what the program reads from standard input, as bytes
    bool mergeErrors = false; // standard error goes to output, in the order printed
    std::size_t outputLimit = 16'777'216; // bytes kept of each stream; the rest is dropped
    std::chrono::milliseconds timeout{0}; // zero: as long as it takes

    // Output is taken for UTF-8 where it is that, and for the console's code page otherwise.
    // Throws vosexception "Unable to execute (%s)", with the program's path and, for what could be
    // refused beforehand, the reason (code 87; 206 for too many arguments; 1460 for the time-out);
    // ArgumentException for a negative time-out; CanceledException.
    Result run() const;

    const std::wstring& program() const noexcept { return program_; }

private:
    std::wstring checkedCommandLine() const;

    std::wstring program_;
    std::vector<std::wstring> arguments_;
};

} // namespace RunTime
