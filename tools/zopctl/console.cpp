#include "tools/zopctl/console.h"

#include "runtime/text.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>

namespace zopctl {

namespace {

bool isConsoleHandle(HANDLE handle) {
    DWORD mode = 0;
    return handle != nullptr && handle != INVALID_HANDLE_VALUE && ::GetConsoleMode(handle, &mode);
}

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
    {
        const std::lock_guard lock(mutex_);
        wipe();
        ::FlushConsoleInputBuffer(input_); // what was typed before was no answer
        write(question, false);
    }
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
