#include "tests/support/child_program.h"

#include "runtime/auto_handle.h"
#include "runtime/format_string.h"
#include "runtime/text.h"
#include "tests/support/unix_call.h"

#include <cwchar>
#include <shellapi.h>
#include <stdexcept>
#include <windows.h>

extern "C" int __cdecl __wgetmainargs(int*, wchar_t***, wchar_t***, int, int*);

namespace {

using RunTime::AutoHandle;

void print(const std::string& bytes, DWORD stream = STD_OUTPUT_HANDLE) {
    DWORD written = 0;
    for (std::size_t at = 0; at < bytes.size(); at += written) {
        if (!::WriteFile(::GetStdHandle(stream), bytes.data() + at,
                         static_cast<DWORD>(bytes.size() - at), &written, nullptr)) {
            ::ExitProcess(99);
        }
    }
}

AutoHandle event(const std::wstring& name) {
    return AutoHandle(::CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
}

void printArguments(const std::vector<std::wstring>& words) {
    int count = 0;
    wchar_t** arguments = nullptr;
    wchar_t** environment = nullptr;
    int mode = 0;
    __wgetmainargs(&count, &arguments, &environment, 0, &mode); // 0: no wildcards
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::size_t at = i + 3; // program, "--child", "args"
        const bool same = at < static_cast<std::size_t>(count) && words[i] == arguments[at];
        print(toUtf8(codeUnits(words[i])) + (same ? "\n" : " differs\n"));
    }
    print(static_cast<std::size_t>(count) == words.size() + 3 ? "end" : "another number");
}

int hold(const std::wstring& file, const std::wstring& name) {
    const AutoHandle held(
        ::CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    const AutoHandle end = event(name + L"-end");
    ::SetEvent(event(name).get());
    return static_cast<int>(::WaitForSingleObject(end.get(), INFINITE));
}

int startHolder(const std::wstring& file, const std::wstring& name, bool wait) {
    std::wstring line = L"\"" + childProgram() + L"\" --child hold \"" + file + L"\" " + name;
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION created{};
    const AutoHandle ready = event(name);
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                          &startup, &created)) {
        return 98;
    }
    const AutoHandle process(created.hProcess);
    const AutoHandle thread(created.hThread);
    print(std::to_string(created.dwProcessId));
    ::WaitForSingleObject(wait ? process.get() : ready.get(), INFINITE);
    return 0;
}

int run(const std::vector<std::wstring>& words) {
    const std::wstring& what = words.at(0);
    if (what == L"args") {
        printArguments({words.begin() + 1, words.end()});
    } else if (what == L"bytes") {
        std::string bytes;
        for (std::size_t at = 0; at + 1 < words.at(1).size(); at += 2) {
            bytes += static_cast<char>(std::stoi(words[1].substr(at, 2), nullptr, 16));
        }
        print(bytes);
    } else if (what == L"print") {
        for (int i = std::stoi(words.at(1)); i > 0; --i) {
            print(std::string(4096, 'o'));
            print(std::string(4096, 'e'), STD_ERROR_HANDLE);
        }
    } else if (what == L"echo") {
        char buffer[5000];
        DWORD count = 0;
        while (
            ::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), buffer, sizeof buffer, &count, nullptr) &&
            count > 0) {
            print(std::string(buffer, count));
        }
    } else if (what == L"exit") {
        print(toUtf8(words.at(2)));
        print(toUtf8(words.at(3)), STD_ERROR_HANDLE);
        return static_cast<int>(std::stoul(words[1]));
    } else if (what == L"directory") {
        wchar_t path[MAX_PATH];
        print(toUtf8(std::wstring(path, ::GetCurrentDirectoryW(MAX_PATH, path))));
    } else if (what == L"line") {
        print(toUtf8(::GetCommandLineW()));
    } else if (what == L"signal") {
        print(::SetEvent(reinterpret_cast<HANDLE>(std::stoull(words.at(1)))) ? "set" : "no");
    } else if (what == L"hold") {
        return hold(words.at(1), words.at(2));
    } else if (what == L"parent" || what == L"leave") {
        return startHolder(words.at(1), words.at(2), what == L"parent");
    }
    return 0;
}

// Before main, which would run tests.
const bool isChild = [] {
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    for (int at = 1; at <= 2 && at + 1 < count; ++at) { // behind a script's path, too
        if (std::wcscmp(arguments[at], L"--child") == 0) {
            ::ExitProcess(static_cast<UINT>(run({arguments + at + 1, arguments + count})));
        }
    }
    ::LocalFree(arguments);
    return false;
}();

} // namespace

std::wstring childProgram() {
    wchar_t path[MAX_PATH];
    return std::wstring(path, ::GetModuleFileNameW(nullptr, path, MAX_PATH));
}

std::vector<std::wstring> childWords(std::vector<std::wstring> words) {
    words.insert(words.begin(), L"--child");
    return words;
}

std::wstring codeUnits(const std::wstring& text) {
    std::wstring units;
    for (const wchar_t c : text) {
        units += formatString(L"%04x", static_cast<unsigned>(c));
    }
    return units;
}

std::wstring besideTests(const std::wstring& file) {
    const std::wstring tests = childProgram();
    return tests.substr(0, tests.rfind(L'\\') + 1) + file;
}

RunTime::Execute::Result runBeside(const wchar_t* program, const std::vector<std::wstring>& words) {
    RunTime::Execute execute(besideTests(program), words);
    execute.timeout = std::chrono::minutes(1);
    return startingAgain([&] { return execute.run(); });
}

namespace {

void sendSignal(std::intptr_t signal, const std::string& word) {
    constexpr long long kill = 62;
    for (const std::string& process : unixEntries("/proc")) {
        const std::string words = unixRead("/proc/" + process + "/cmdline");
        if (process.find_first_not_of("0123456789") == std::string::npos &&
            words.find(word) != std::string::npos) {
            unixCall(kill, unixcall::number(std::stol(process)), unixcall::number(signal));
            return;
        }
    }
    throw std::runtime_error("there is no such process: " + word);
}

} // namespace

void pressCtrlC(const std::string& word) {
    sendSignal(2, word);
}

void killProcess(const std::string& word) {
    sendSignal(9, word);
}
