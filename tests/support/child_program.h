// A program for tests to start: the test program itself, which does one of these things instead of
// running its tests when its first argument, or the second, is "--child".
//
//     args WORD...       prints the code units of each word, a line each, as two parsers see them
//     bytes HEX          prints these bytes
//     print COUNT        prints COUNT pieces of 4 KiB, "o" to standard output and "e" to standard
//                        error by turns
//     echo               prints what it reads
//     exit STATUS O E    prints O and E to the two streams and ends with STATUS
//     directory          prints the current directory
//     line               prints its command line
//     signal HANDLE      prints whether this number is an event that can be set
//     hold FILE EVENT    keeps FILE open and undeletable; sets EVENT; ends when EVENT + "-end" is
//     parent FILE EVENT  starts "hold", prints its process id and waits for its end
//     leave FILE EVENT   the same, but ends without waiting once EVENT is set
#pragma once

#include "runtime/exception.h"
#include "runtime/process/execute.h"

#include <string>
#include <vector>

std::wstring childProgram();

// {"--child", words...}
std::vector<std::wstring> childWords(std::vector<std::wstring> words);

// The code units of a text as "args" prints them.
std::wstring codeUnits(const std::wstring& text);

// What a function returns that starts a program, which Wine may fail to do (scripts/wine.sh).
template <class Function>
auto startingAgain(Function&& start) {
    for (int attempt = 0;; ++attempt) {
        try {
            return start();
        } catch (const vosexception& e) {
            if (e.get_errorCode() != ERROR_INTERNAL_ERROR || attempt == 2) {
                throw;
            }
        }
    }
}

// The path of a file that lies beside the tests, as the project's programs do.
std::wstring besideTests(const std::wstring& file);

// Runs one of those programs, for a minute at most.
RunTime::Execute::Result runBeside(const wchar_t* program, const std::vector<std::wstring>& words);

// Under Wine: presses Ctrl+C in the process that has this word on its command line, or ends it at
// once.
void pressCtrlC(const std::string& word);
void killProcess(const std::string& word);
