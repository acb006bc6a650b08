#include "tests/tools/program.h"

#include "runtime/text.h"
#include "tests/support/unix_call.h"

#include <gtest/gtest.h>

namespace {

constexpr DWORD pipeBytes = 4 << 20; // more than any of them prints, so none waits for its reader

// Empty when there is no more.
std::string readSome(HANDLE pipe) {
    std::string bytes(4096, '\0');
    DWORD length = 0;
    if (!::ReadFile(pipe, bytes.data(), static_cast<DWORD>(bytes.size()), &length, nullptr)) {
        length = 0;
    }
    bytes.resize(length);
    return bytes;
}

std::string readAll(HANDLE pipe) {
    std::string all;
    for (std::string bytes = readSome(pipe); !bytes.empty(); bytes = readSome(pipe)) {
        all += bytes;
    }
    return all;
}

// The words of a Linux process, each with a zero behind it.
std::string wordsOf(const std::string& process) {
    std::string words(4096, '\0');
    const long long file = unixCall(unixcall::Open, ("/proc/" + process + "/cmdline").c_str());
    const long long length =
        file < 0 ? 0
                 : unixCall(unixcall::Pread, unixcall::number(file), words.data(),
                            unixcall::number(static_cast<std::intptr_t>(words.size())));
    if (file >= 0) {
        unixCall(unixcall::Close, unixcall::number(file));
    }
    words.resize(static_cast<std::size_t>(length > 0 ? length : 0));
    return words;
}

} // namespace

std::wstring Program::path(const std::wstring& file) {
    wchar_t own[MAX_PATH];
    const std::wstring path(own, ::GetModuleFileNameW(nullptr, own, MAX_PATH));
    return path.substr(0, path.rfind(L'\\') + 1) + file;
}

Program::Program(const std::wstring& file, const std::wstring& commandLine)
    : commandLine_(commandLine) {
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    RunTime::AutoHandle outputEnd;
    RunTime::AutoHandle errorsEnd;
    EXPECT_TRUE(::CreatePipe(output_.put(), outputEnd.put(), &inherit, pipeBytes));
    EXPECT_TRUE(::CreatePipe(errors_.put(), errorsEnd.put(), &inherit, pipeBytes));
    for (const HANDLE ours : {output_.get(), errors_.get()}) {
        ::SetHandleInformation(ours, HANDLE_FLAG_INHERIT, 0);
    }
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = outputEnd.get();
    startup.hStdError = errorsEnd.get();
    PROCESS_INFORMATION created{};
    std::wstring words = file + L" " + commandLine;
    // A group of its own hears no Ctrl+C, but can be sent Ctrl+Break alone.
    const DWORD flags = underWine() ? 0 : CREATE_NEW_PROCESS_GROUP;
    // Under load Wine now and then fails to set a process up, and says "internal error".
    BOOL started = FALSE;
    for (int attempt = 0; attempt < 3 && !started; ++attempt) {
        started = ::CreateProcessW(path(file).c_str(), words.data(), nullptr, nullptr, TRUE, flags,
                                   nullptr, nullptr, &startup, &created);
        if (!started && ::GetLastError() != ERROR_INTERNAL_ERROR) {
            break;
        }
    }
    if (!started) {
        ADD_FAILURE() << toUtf8(file) << " cannot be started: " << ::GetLastError();
        return;
    }
    const RunTime::AutoHandle thread(created.hThread);
    process_.reset(created.hProcess);
    id_ = created.dwProcessId;
}

bool Program::waitFor(const std::string& text) {
    while (printed_.find(text) == std::string::npos) {
        const std::string bytes = readSome(output_.get());
        if (bytes.empty()) {
            return false;
        }
        printed_ += bytes;
    }
    return true;
}

void Program::interrupt() const {
    if (!underWine()) {
        EXPECT_TRUE(::GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, id_)) << ::GetLastError();
        return;
    }
    constexpr long long kill = 62;
    constexpr std::intptr_t interruptSignal = 2;
    const std::string zero(1, '\0');
    const std::string last =
        zero + toUtf8(commandLine_.substr(commandLine_.rfind(L' ') + 1)) + zero;
    for (const std::string& process : unixEntries("/proc")) {
        if (process.find_first_not_of("0123456789") == std::string::npos &&
            wordsOf(process).find(last) != std::string::npos) {
            unixCall(kill, unixcall::number(std::stol(process)), unixcall::number(interruptSignal));
            return;
        }
    }
    ADD_FAILURE() << "there is no such process";
}

Program::Outcome Program::finish() {
    Outcome result;
    if (::WaitForSingleObject(process_.get(), 60'000) != WAIT_OBJECT_0) {
        ADD_FAILURE() << "it does not end";
        ::TerminateProcess(process_.get(), 99);
    }
    EXPECT_TRUE(::GetExitCodeProcess(process_.get(), &result.exitCode));
    result.output = printed_ + readAll(output_.get());
    result.errors = readAll(errors_.get());
    return result;
}
