#include "runtime/process/execute.h"

#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/process/child_pipe.h"
#include "runtime/process/command_line.h"
#include "runtime/process/job.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <array>
#include <climits>
#include <memory>
#include <optional>

namespace RunTime {

namespace {

constexpr std::size_t maxCommandLine = 32'766; // characters, without the terminator
constexpr DWORD cancelInterval = 50;           // milliseconds between looks for a cancellation

[[noreturn]] void refuse(const std::wstring& program, const wchar_t* reason, DWORD code) {
    _throwError(
        formatString(L"Unable to execute (%s)%s", nicePath(program).c_str(), reason).c_str(), code,
        {L"", "RunTime::Execute::run", __LINE__});
}

// "C:\...", "\\server\..." and their long forms: what no current directory or drive has a say in.
bool isWhole(const std::wstring& path) {
    const std::wstring nice = nicePath(path);
    return nice.starts_with(L"\\\\") || (nice.size() > 2 && nice[1] == L':' && nice[2] == L'\\');
}

// The form that programs expect to be told; the long one only where nothing else will do.
std::wstring startPath(const std::wstring& path) {
    const std::wstring whole = longPath(path);
    std::wstring nice = nicePath(whole);
    return nice.size() < MAX_PATH ? nice : whole;
}

// The bytes of a text that was cut off anywhere, up to its last whole character.
std::string_view wholeCharacters(std::string_view bytes) {
    std::size_t begin = bytes.size(); // of the last character
    while (begin > 0 && bytes.size() - begin < 4 &&
           (static_cast<unsigned char>(bytes[begin - 1]) & 0xC0) == 0x80) {
        --begin;
    }
    if (begin == 0) {
        return bytes;
    }
    const auto lead = static_cast<unsigned char>(bytes[begin - 1]);
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return bytes.size() - begin + 1 < length ? bytes.substr(0, begin - 1) : bytes;
}

std::wstring decode(const ChildOutput& printed) {
    std::string_view bytes = printed.bytes();
    if (bytes.starts_with("\xEF\xBB\xBF")) {
        bytes.remove_prefix(3);
    }
    if (printed.isTruncated()) {
        bytes = wholeCharacters(bytes);
    }
    const int size = static_cast<int>(bytes.size());
    const auto convert = [&](UINT codePage, DWORD flags, wchar_t* text, int room) {
        return size == 0 ? 0
                         : ::MultiByteToWideChar(codePage, flags, bytes.data(), size, text, room);
    };
    if (convert(CP_UTF8, MB_ERR_INVALID_CHARS, nullptr, 0) > 0) {
        return toWide(bytes);
    }
    std::wstring text(static_cast<std::size_t>(convert(CP_OEMCP, 0, nullptr, 0)), L'\0');
    convert(CP_OEMCP, 0, text.data(), static_cast<int>(text.size()));
    return text;
}

// What a new process is told beyond its command line: the handles that it inherits.
class StartupInformation {
public:
    // The handles must be inheritable; errors may be the same as output.
    StartupInformation(HANDLE input, HANDLE output, HANDLE errors)
        : handles_{input, output, errors} {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size); // fails, and tells the size
        memory_.resize(size);
        auto* list = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory_.data());
        if (!::InitializeProcThreadAttributeList(list, 1, 0, &size)) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to prepare a process", code, frame(__LINE__));
        }
        list_.reset(list);
        // The system refuses a list with the same handle twice.
        const std::size_t count = output == errors ? 2 : 3;
        if (!::UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST,
                                         handles_.data(), count * sizeof(HANDLE), nullptr,
                                         nullptr)) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to prepare a process", code, frame(__LINE__));
        }
        startup_.StartupInfo.cb = sizeof startup_;
        startup_.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
        startup_.StartupInfo.hStdInput = input;
        startup_.StartupInfo.hStdOutput = output;
        startup_.StartupInfo.hStdError = errors;
        startup_.lpAttributeList = list;
    }
    StartupInformation(const StartupInformation&) = delete;
    StartupInformation& operator=(const StartupInformation&) = delete;

    STARTUPINFOW* get() noexcept { return &startup_.StartupInfo; }

private:
    struct DeleteList {
        void operator()(LPPROC_THREAD_ATTRIBUTE_LIST list) const noexcept {
            ::DeleteProcThreadAttributeList(list);
        }
    };
    static vexception::CallStackInfo frame(std::int32_t line) {
        return {L"", "RunTime::Execute::run", line};
    }

    std::array<HANDLE, 3> handles_; // the list points here
    std::vector<std::byte> memory_;
    std::unique_ptr<std::remove_pointer_t<LPPROC_THREAD_ATTRIBUTE_LIST>, DeleteList> list_;
    STARTUPINFOEXW startup_{};
};

// The program, in the job and running.
AutoHandle start(const Execute& what, std::wstring line, StartupInformation& startup, Job& job) {
    const std::wstring program = startPath(what.program());
    const std::wstring directory = what.directory.empty()
                                       ? nicePath(parentPath(longPath(what.program())))
                                       : startPath(what.directory);
    PROCESS_INFORMATION created{};
    if (!::CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE,
                          CREATE_SUSPENDED | CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT |
                              EXTENDED_STARTUPINFO_PRESENT,
                          nullptr, directory.c_str(), startup.get(), &created)) {
        const DWORD code = ::GetLastError();
        refuse(what.program(), L"", code);
    }
    AutoHandle process(created.hProcess);
    const AutoHandle thread(created.hThread);
    try {
        job.add(process.get());
        if (::ResumeThread(thread.get()) == static_cast<DWORD>(-1)) {
            const DWORD code = ::GetLastError();
            refuse(what.program(), L"", code);
        }
    } catch (...) { // outside the job nobody else would end it, and it would stay as it is
        ::TerminateProcess(process.get(), ERROR_CANCELLED);
        throw;
    }
    return process;
}

AutoHandle openNothing() {
    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    AutoHandle file(::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  &inherit, OPEN_EXISTING, 0, nullptr));
    if (!file) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to open (NUL)", code, {L"", "RunTime::Execute::run", __LINE__});
    }
    return file;
}

// Serves the pipes until the program has ended.
void waitForEnd(const Execute& what, HANDLE process, const std::vector<ChildPipe*>& pipes) {
    const ULONGLONG started = ::GetTickCount64();
    const auto limit = static_cast<ULONGLONG>(what.timeout.count());
    for (DWORD reason = WAIT_TIMEOUT; reason != WAIT_OBJECT_0;) {
        std::array<HANDLE, 4> handles{process};
        DWORD count = 1;
        for (ChildPipe* pipe : pipes) {
            pipe->serve();
            if (pipe->isOpen()) {
                handles[count++] = pipe->event();
            }
        }
        ThreadCancelation::check();
        DWORD wait = cancelInterval;
        if (limit != 0) {
            const ULONGLONG passed = ::GetTickCount64() - started;
            if (passed >= limit) {
                refuse(what.program(), L": it takes too long", ERROR_TIMEOUT);
            }
            wait = static_cast<DWORD>(std::min<ULONGLONG>(wait, limit - passed));
        }
        reason = ::WaitForMultipleObjects(count, handles.data(), FALSE, wait);
        if (reason == WAIT_FAILED) {
            const DWORD code = ::GetLastError();
            _throwError(L"Unable to wait for a program", code,
                        {L"", "RunTime::Execute::run", __LINE__});
        }
    }
}

DWORD exitStatusOf(HANDLE process) {
    DWORD status = 0;
    if (!::GetExitCodeProcess(process, &status)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to get an exit status", code,
                    {L"", "RunTime::Execute::run", __LINE__});
    }
    return status;
}

} // namespace

Execute::Execute(std::wstring program, std::vector<std::wstring> arguments)
    : program_(std::move(program)), arguments_(std::move(arguments)) {}

Execute::Result Execute::run() const {
    std::wstring line = checkedCommandLine();
    const std::size_t limit = std::min<std::size_t>(outputLimit, INT_MAX);
    ChildOutput out(limit);
    std::vector<ChildPipe*> pipes{&out};
    std::optional<ChildOutput> err;
    std::optional<ChildInput> in;
    AutoHandle nothing;
    if (!mergeErrors) {
        pipes.push_back(&err.emplace(limit));
    }
    if (input.empty()) {
        nothing = openNothing();
    } else {
        pipes.push_back(&in.emplace(input));
    }
    StartupInformation startup(in ? in->childEnd() : nothing.get(), out.childEnd(),
                               err ? err->childEnd() : out.childEnd());
    Job job; // ends before the pipes do: nobody is at their other end then
    const AutoHandle process = start(*this, std::move(line), startup, job);
    for (ChildPipe* pipe : pipes) {
        pipe->closeChildEnd();
    }
    waitForEnd(*this, process.get(), pipes);
    Result result;
    result.exitStatus = exitStatusOf(process.get());
    out.drain();
    result.output = decode(out);
    result.truncated = out.isTruncated();
    if (err) {
        err->drain();
        result.errors = decode(*err);
        result.truncated = result.truncated || err->isTruncated();
    }
    job.release();
    return result;
}

std::wstring Execute::checkedCommandLine() const {
    const auto hasZero = [](const std::wstring& text) {
        return text.find(L'\0') != std::wstring::npos;
    };
    if (timeout.count() < 0) {
        throw ArgumentException(formatString(L"Unable to execute (%s): a time-out is not negative",
                                             nicePath(program_).c_str()),
                                {L"", "RunTime::Execute::run", __LINE__});
    }
    if (!isWhole(program_) || (!directory.empty() && !isWhole(directory))) {
        refuse(program_, L": the whole path is needed", ERROR_INVALID_PARAMETER);
    }
    if (program_.size() < 4 || !equalNames(program_.substr(program_.size() - 4), L".exe") ||
        program_.find(L'"') != std::wstring::npos) {
        refuse(program_, L": it is no .exe file", ERROR_INVALID_PARAMETER);
    }
    if (hasZero(program_) || hasZero(directory) ||
        std::any_of(arguments_.begin(), arguments_.end(), hasZero)) {
        refuse(program_, L": a zero character is in its arguments", ERROR_INVALID_PARAMETER);
    }
    std::wstring line = commandLine(startPath(program_), arguments_);
    if (line.size() > maxCommandLine) {
        refuse(program_, L": its arguments are too long", ERROR_FILENAME_EXCED_RANGE);
    }
    return line;
}

} // namespace RunTime
