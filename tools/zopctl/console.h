// Where zopctl prints: lines for people, and one status line that is drawn over itself. On a
// console text goes out as UTF-16, anywhere else as UTF-8. All functions may be called from any
// thread: the Ctrl+C handler prints from one of its own.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <windows.h>

namespace zopctl {

class Console {
public:
    Console();
    virtual ~Console() = default;
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Whole lines; the line end is added. A status line in the way is wiped and drawn again.
    void line(const std::wstring& text);
    void errorLine(const std::wstring& text); // standard error
    // Draws the status line in place of the last one; "" wipes it. Only where isConsole().
    void status(const std::wstring& text);

    // Standard output is a console, so that a line can be drawn over.
    bool isConsole() const noexcept { return isConsole_; }
    // A question can be asked: standard input is a console, and what is asked will be seen.
    bool canAsk() const noexcept { return canAsk_; }
    // Cells in a line; 80 where there is no console.
    virtual int width() const;
    // Prints the question and waits for a line. True for "y" and "yes" only.
    virtual bool ask(const std::wstring& question);
    // Prints the question and waits for a line, which is not shown while it is typed. False when
    // there was none. Only where canAsk().
    virtual bool askHidden(const std::wstring& question, std::wstring& answer);
    // All that comes from standard input. Nothing when that is a console, cannot be read or is
    // longer than limit, in bytes.
    virtual std::optional<std::string> readInput(std::size_t limit);

protected:
    // For tests: a console that is none.
    Console(bool isConsole, bool canAsk) : isConsole_(isConsole), canAsk_(canAsk) {}
    virtual void write(const std::wstring& text, bool error);

private:
    void prompt(const std::wstring& question);
    void wipe();

    std::mutex mutex_;
    HANDLE output_ = nullptr; // standard handles are not ours to close
    HANDLE error_ = nullptr;
    HANDLE input_ = nullptr;
    bool isConsole_ = false;
    bool canAsk_ = false;
    bool errorIsConsole_ = false;
    std::wstring status_;
};

} // namespace zopctl
