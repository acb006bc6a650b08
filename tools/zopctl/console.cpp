#include "tools/zopctl/console.h"

#include "runtime/text.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>
#include <atomic>

namespace zopctl {

namespace {

bool isConsoleHandle(HANDLE handle) {
    DWORD mode = 0;
    return handle != nullptr && handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle, &mode);
}

// Switches the echo of a console off. Ctrl+C ends the process while somebody types, and the
// console, which stays, must not be left so.
class NoEcho {
public:
    explicit NoEcho(HANDLE input) {
        if (::GetConsoleMode(input, &mode_)) {
            console_ = input;
            ::SetConsoleCtrlHandler(restore, TRUE);
            ::SetConsoleMode(input, mode_ & ~static_cast<DWORD>(ENABLE_ECHO_INPUT));
        }
    }
    ~NoEcho() {
        restore(0);
        ::SetConsoleCtrlHandler(restore, FALSE);
    }
    NoEcho(const NoEcho&) = delete;
    NoEcho& operator=(const NoEcho&) = delete;

private:
    static BOOL WINAPI restore(DWORD) {
        const HANDLE console = console_.exchange(nullptr);
        if (console != nullptr) {
            ::SetConsoleMode(console, mode_);
        }
        return FALSE; // the next handler ends the process
    }
    static inline std::atomic<HANDLE> console_{nullptr};
    static inline DWORD mode_ = 0;
};

} // namespace

Console::Console()
    : output_(::GetStdHandle(STD_OUTPUT_HANDLE)), error_(::GetStdHandle(STD_ERROR_HANDLE)),
      input_(::GetStdHandle(STD_INPUT_HANDLE)), isConsole_(isConsoleHandle(output_)),
      canAsk_(isConsole_ && isConsoleHandle(input_)), errorIsConsole_(isConsoleHandle(error_)) {}

void Console::line(const std::wstring& text) {
    const std::lock_guard lock(mutex_);
    const std::wstring status = status_;
    wipe();
    write(text + L"\n", false);
    if (!status.empty()) {
        write(status, false);
        status_ = status;
    }
}

void Console::errorLine(const std::wstring& text) {
    const std::lock_guard lock(mutex_);
    const std::wstring status = status_;
    wipe();
    write(text + L"\n", true);
    if (!status.empty()) {
        write(status, false);
        status_ = status;
    }
}

void Console::status(const std::wstring& text) {
    const std::lock_guard lock(mutex_);
    if (!isConsole_ || text == status_) {
        return;
    }
    // Drawn over in one write, with blanks for what the last one had more: no flicker.
    const int surplus = cellWidth(status_) - cellWidth(text);
    std::wstring drawn = L"\r" + text;
    if (surplus > 0) {
        drawn.append(static_cast<std::size_t>(surplus), L' ');
    }
    if (text.empty()) {
        drawn += L'\r';
    }
    write(drawn, false);
    status_ = text;
}

int Console::width() const {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!isConsole_ || !::GetConsoleScreenBufferInfo(output_, &info)) {
        return 80;
    }
    return std::max(info.srWindow.Right - info.srWindow.Left + 1, 20);
}

bool Console::ask(const std::wstring& question) {
    prompt(question);
    wchar_t answer[64];
    DWORD length = 0;
    if (!::ReadConsoleW(input_, answer, static_cast<DWORD>(std::size(answer)), &length, nullptr)) {
        return false; // Ctrl+C ends the read
    }
    std::wstring text(answer, length);
    text.erase(text.find_last_not_of(L" \r\n") + 1);
    return ::CompareStringOrdinal(text.c_str(), -1, L"y", -1, TRUE) == CSTR_EQUAL ||
           ::CompareStringOrdinal(text.c_str(), -1, L"yes", -1, TRUE) == CSTR_EQUAL;
}

bool Console::askHidden(const std::wstring& question, std::wstring& answer) {
    prompt(question);
    wchar_t line[1024];
    DWORD length = 0;
    BOOL done = FALSE;
    {
        const NoEcho noEcho(input_);
        done = ::ReadConsoleW(input_, line, static_cast<DWORD>(std::size(line)), &length, nullptr);
    }
    const bool whole = done && length > 0 && line[length - 1] == L'\n'; // else it is too long
    if (whole) {
        answer.assign(line, length);
        answer.erase(answer.find_last_not_of(L"\r\n") + 1);
    }
    ::SecureZeroMemory(line, sizeof line);
    const std::lock_guard lock(mutex_);
    write(L"\n", false); // the one that was typed was not shown either
    return whole;
}

std::optional<std::string> Console::readInput(std::size_t limit) {
    if (input_ == nullptr || input_ == INVALID_HANDLE_VALUE || isConsoleHandle(input_)) {
        return std::nullopt;
    }
    char piece[4096];
    std::string bytes;
    bytes.reserve(limit + sizeof piece); // a block that it outgrew would keep what may be a secret
    for (DWORD count = 1; count != 0;) {
        if (!::ReadFile(input_, piece, sizeof piece, &count, nullptr)) {
            if (::GetLastError() != ERROR_BROKEN_PIPE) {
                return std::nullopt;
            }
            count = 0; // the writer has gone
        }
        bytes.append(piece, count);
        ::SecureZeroMemory(piece, sizeof piece);
        if (bytes.size() > limit) {
            return std::nullopt;
        }
    }
    return bytes;
}

void Console::prompt(const std::wstring& question) {
    const std::lock_guard lock(mutex_);
    wipe();
    ::FlushConsoleInputBuffer(input_); // what was typed before was no answer
    write(question, false);
}

void Console::wipe() {
    if (!status_.empty()) {
        const auto cells = static_cast<std::size_t>(cellWidth(status_));
        write(L"\r" + std::wstring(cells, L' ') + L"\r", false);
        status_.clear();
    }
}

// A failing write has nobody to be told: the reader of the pipe has gone, and the work matters more
// than its report.
void Console::write(const std::wstring& text, bool error) {
    const HANDLE handle = error ? error_ : output_;
    DWORD written = 0;
    if (error ? errorIsConsole_ : isConsole_) {
        // Older consoles refuse more than 64 KiB at once.
        for (std::size_t at = 0; at < text.size(); at += written) {
            const auto part = static_cast<DWORD>(std::min<std::size_t>(text.size() - at, 16384));
            if (!::WriteConsoleW(handle, text.data() + at, part, &written, nullptr) ||
                written == 0) {
                return;
            }
        }
        return;
    }
    std::string bytes;
    for (const char c : toUtf8(text)) {
        if (c == '\n') {
            bytes += '\r';
        }
        bytes += c;
    }
    for (std::size_t at = 0; at < bytes.size(); at += written) {
        if (!::WriteFile(handle, bytes.data() + at, static_cast<DWORD>(bytes.size() - at), &written,
                         nullptr) ||
            written == 0) {
            return;
        }
    }
}

} // namespace zopctl
