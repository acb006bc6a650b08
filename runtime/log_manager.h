// The process-wide log. A line goes to the outputs that are switched on for its type, then to
// every listener:
//
//     LogManager::getInstance().vAddLog(LogType::Warning, L"Unable to schedule removal of " +
//     path);
//
// Safe from any thread. Logging never fails its caller: an output or a listener that fails is
// passed by.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <windows.h>

enum class LogType { Error, Warning, Information, Debug };

enum class LogOutput {
    DebugOutput, // OutputDebugStringW
    File,        // the file given to openFile
    EventLog,    // the Windows event log
};

class LogManager {
public:
    // message is as it was logged: a listener that shows it uses singleLine().
    using Listener = std::function<void(LogType type, const std::wstring& message)>;

    // Keeps a listener registered. When it has gone, the listener is not running any more and
    // will not run again, unless it goes from inside that very listener.
    class Registration {
    public:
        Registration() = default;
        Registration(Registration&&) noexcept = default;
        Registration& operator=(Registration&& other) noexcept;
        ~Registration() { unregister(); }
        void unregister() noexcept;

    private:
        friend class LogManager;
        struct Entry;
        explicit Registration(std::shared_ptr<Entry> entry) noexcept : entry_(std::move(entry)) {}
        std::shared_ptr<Entry> entry_;
    };

    static LogManager& getInstance();

    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    void vAddLog(LogType type, const std::wstring& message) noexcept;

    // Initially on: everything for the file, once one is opened; everything but Debug for the
    // debug output; errors and warnings for the event log. Listeners get every line.
    void setEnabled(LogOutput output, LogType type, bool enabled) noexcept;
    bool isEnabled(LogOutput output, LogType type) const noexcept;

    // Appends from now on to this file, made if absent, which others may read, write and rename
    // meanwhile. One line of UTF-8 a message: UTC time, process.thread, type, message.
    // Throws vosexception.
    void openFile(const std::wstring& path);
    void closeFile() noexcept;

    // Calls of one listener never overlap. What a listener logs itself goes to the outputs only.
    [[nodiscard]] Registration addListener(Listener listener);

    // The name under which events appear, "zopnative" unless set. Only before the first event.
    void setEventSource(const std::wstring& name);

    // The event log handle, opened at first use and owned by the manager; null where the system
    // has no event log.
    HANDLE getEventLog() noexcept;

    // The message with everything escaped that could pass for the end of a line, or command a
    // terminal that shows it: "\n", "\r", "\t", "\u001b", and the marks that turn the direction
    // of writing.
    static std::wstring singleLine(const std::wstring& message);

private:
    LogManager();
    ~LogManager() = default;

    void writeFile(LogType type, const std::string& text);
    void writeEventLog(LogType type, const std::wstring& text);
    void notify(LogType type, const std::wstring& message);

    struct State;
    State& state_; // never destroyed: threads may log to the very end of the process
};
