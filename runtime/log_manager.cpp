#include "runtime/log_manager.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/text.h"

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

namespace {

constexpr std::size_t typeCount = 4;
constexpr std::size_t outputCount = 3;

// An event takes 31,839 characters a string; more is refused as a whole.
constexpr std::size_t longestEvent = 31000;

const char* nameOf(LogType type) noexcept {
    switch (type) {
    case LogType::Error:
        return "error";
    case LogType::Warning:
        return "warning";
    case LogType::Information:
        return "information";
    default:
        return "debug";
    }
}

WORD eventTypeOf(LogType type) noexcept {
    switch (type) {
    case LogType::Error:
        return EVENTLOG_ERROR_TYPE;
    case LogType::Warning:
        return EVENTLOG_WARNING_TYPE;
    default:
        return EVENTLOG_INFORMATION_TYPE;
    }
}

bool breaksLine(wchar_t c) noexcept {
    return c < 0x20 || (c >= 0x7F && c <= 0x9F) || // control characters; 0x85 is a line end too
           (c >= 0x2028 && c <= 0x202E) ||         // line and paragraph separators, overrides
           (c >= 0x2066 && c <= 0x2069);           // isolates
}

template <class Function>
void passBy(Function&& function) noexcept {
    try {
        function();
    } catch (...) { // one output or listener that fails must not cost the others their line
    }
}

thread_local bool inListener = false;

} // namespace

struct LogManager::Registration::Entry {
    std::recursive_mutex running; // recursive: a listener may unregister itself
    std::atomic<bool> registered{true};
    Listener listener;
};

struct LogManager::State {
    std::array<std::array<std::atomic<bool>, typeCount>, outputCount> enabled{};

    std::mutex fileMutex;
    RunTime::AutoHandle file;

    std::mutex eventSourceMutex;
    std::wstring eventSource = L"zopnative";
    std::once_flag eventLogOnce;
    HANDLE eventLog = nullptr;

    // Replaced as a whole, so that a line is passed on without holding the lock.
    using Listeners = std::vector<std::shared_ptr<Registration::Entry>>;
    std::mutex listenersMutex;
    std::shared_ptr<const Listeners> listeners = std::make_shared<Listeners>();

    // Leaves out whoever has unregistered.
    void replaceListeners(const std::shared_ptr<Registration::Entry>& added) {
        const std::lock_guard lock(listenersMutex);
        auto next = std::make_shared<Listeners>(*listeners);
        std::erase_if(*next, [](const auto& entry) { return !entry->registered; });
        if (added) {
            next->push_back(added);
        }
        listeners = std::move(next);
    }
};

LogManager& LogManager::getInstance() {
    static LogManager instance; // only refers to its state, so there is nothing to destroy
    return instance;
}

LogManager::LogManager() : state_(*std::make_unique<State>().release()) {
    for (const LogType type :
         {LogType::Error, LogType::Warning, LogType::Information, LogType::Debug}) {
        const bool serious = type == LogType::Error || type == LogType::Warning;
        setEnabled(LogOutput::File, type, true);
        setEnabled(LogOutput::DebugOutput, type, type != LogType::Debug);
        setEnabled(LogOutput::EventLog, type, serious);
    }
}

void LogManager::vAddLog(LogType type, const std::wstring& message) noexcept {
    const DWORD code = ::GetLastError(); // a caller may be about to read it
    passBy([&] {
        const std::wstring text = singleLine(message);
        if (isEnabled(LogOutput::DebugOutput, type)) {
            passBy([&] { ::OutputDebugStringW((text + L"\n").c_str()); });
        }
        if (isEnabled(LogOutput::File, type)) {
            passBy([&] { writeFile(type, toUtf8(text)); });
        }
        if (isEnabled(LogOutput::EventLog, type)) {
            passBy([&] { writeEventLog(type, text); });
        }
    });
    passBy([&] { notify(type, message); });
    ::SetLastError(code);
}

void LogManager::writeFile(LogType type, const std::string& text) {
    const std::lock_guard lock(state_.fileMutex);
    if (!state_.file) {
        return;
    }
    SYSTEMTIME now;
    ::GetSystemTime(&now);
    const std::string head = toUtf8(
        formatString(L"%04d-%02d-%02dT%02d:%02d:%02d.%03dZ %lu.%lu %hs: ", now.wYear, now.wMonth,
                     now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds,
                     ::GetCurrentProcessId(), ::GetCurrentThreadId(), nameOf(type)));
    const std::string line = head + text + "\r\n";
    DWORD written = 0;
    // In one piece, so that processes that share the file do not tear each other's lines. A line
    // that cannot be written is lost: there is nowhere left to report it.
    ::WriteFile(state_.file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
}

void LogManager::writeEventLog(LogType type, const std::wstring& text) {
    const HANDLE log = getEventLog();
    if (log != nullptr) {
        const std::wstring event = text.substr(0, longestEvent);
        const wchar_t* strings[] = {event.c_str()};
        ::ReportEventW(log, eventTypeOf(type), 0, 0, nullptr, 1, 0, strings, nullptr);
    }
}

void LogManager::setEventSource(const std::wstring& name) {
    const std::lock_guard lock(state_.eventSourceMutex);
    state_.eventSource = name;
}

HANDLE LogManager::getEventLog() noexcept {
    passBy([this] {
        std::call_once(state_.eventLogOnce, [this] {
            const std::lock_guard lock(state_.eventSourceMutex);
            state_.eventLog = ::RegisterEventSourceW(nullptr, state_.eventSource.c_str());
        });
    });
    return state_.eventLog;
}

void LogManager::notify(LogType type, const std::wstring& message) {
    if (inListener) {
        return;
    }
    std::unique_lock lock(state_.listenersMutex);
    const auto listeners = state_.listeners;
    lock.unlock();
    inListener = true;
    for (const auto& entry : *listeners) {
        passBy([&] {
            const std::lock_guard running(entry->running);
            if (entry->registered) {
                entry->listener(type, message);
            }
        });
    }
    inListener = false;
}

void LogManager::setEnabled(LogOutput output, LogType type, bool enabled) noexcept {
    state_.enabled[static_cast<std::size_t>(output)][static_cast<std::size_t>(type)] = enabled;
}

bool LogManager::isEnabled(LogOutput output, LogType type) const noexcept {
    return state_.enabled[static_cast<std::size_t>(output)][static_cast<std::size_t>(type)];
}

void LogManager::openFile(const std::wstring& path) {
    // FILE_APPEND_DATA without FILE_WRITE_DATA: each write goes to the end, whoever else writes.
    RunTime::AutoHandle file(
        ::CreateFileW(path.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!file) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"Unable to open the log file (%s)", path.c_str()).c_str(), code,
                    {L"", "LogManager::openFile", __LINE__});
    }
    const std::lock_guard lock(state_.fileMutex);
    state_.file = std::move(file);
}

void LogManager::closeFile() noexcept {
    const std::lock_guard lock(state_.fileMutex);
    state_.file.reset();
}

LogManager::Registration LogManager::addListener(Listener listener) {
    auto entry = std::make_shared<Registration::Entry>();
    entry->listener = std::move(listener);
    state_.replaceListeners(entry);
    return Registration(std::move(entry));
}

std::wstring LogManager::singleLine(const std::wstring& message) {
    std::wstring result;
    result.reserve(message.size());
    for (const wchar_t c : message) {
        if (!breaksLine(c)) {
            result.push_back(c);
        } else if (c == L'\n') {
            result += L"\\n";
        } else if (c == L'\r') {
            result += L"\\r";
        } else if (c == L'\t') {
            result += L"\\t";
        } else {
            result += formatString(L"\\u%04x", static_cast<unsigned>(c));
        }
    }
    return result;
}

LogManager::Registration& LogManager::Registration::operator=(Registration&& other) noexcept {
    if (this != &other) {
        unregister();
        entry_ = std::move(other.entry_);
    }
    return *this;
}

void LogManager::Registration::unregister() noexcept {
    const std::shared_ptr<Entry> entry = std::move(entry_);
    if (!entry) {
        return;
    }
    entry->registered = false;
    passBy([&] { const std::lock_guard running(entry->running); });
    passBy([] { getInstance().state_.replaceListeners(nullptr); }); // else the next change does it
}
