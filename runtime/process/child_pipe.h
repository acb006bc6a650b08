// Pipes to the standard handles of a program that we start. Our end never blocks, so one thread
// can serve all of them; the program's end is an ordinary one, and the only one that is
// inheritable.
//
// An event says that something has been done, and serve() goes on from there.
#pragma once

#include "runtime/auto_handle.h"

#include <string>
#include <string_view>
#include <vector>
#include <windows.h>

namespace RunTime {

class ChildPipe {
public:
    ChildPipe(const ChildPipe&) = delete;
    ChildPipe& operator=(const ChildPipe&) = delete;

    HANDLE childEnd() const noexcept { return childEnd_.get(); }
    // Once the program has it.
    void closeChildEnd() noexcept { childEnd_.reset(); }

    // Takes up what has been done, and asks for the next piece. Never waits.
    virtual void serve() = 0;

    bool isOpen() const noexcept { return static_cast<bool>(ours_); }
    HANDLE event() const noexcept { return event_.get(); }

protected:
    enum class Direction { FromChild, ToChild };

    explicit ChildPipe(Direction direction); // "Unable to create a pipe"
    ~ChildPipe();

    // Takes up the pending transfer: false while it goes on, and when the other side has closed
    // the pipe, which is then closed here too.
    bool finish(DWORD& count, bool wait);
    // What ReadFile and WriteFile have returned.
    void started(BOOL done);
    void cancel() noexcept;
    void close() noexcept;

    AutoHandle ours_;
    OVERLAPPED overlapped_{};
    bool pending_ = false;

private:
    bool isClosed(DWORD code) const noexcept;

    AutoHandle childEnd_;
    AutoHandle event_;
};

// What the program prints.
class ChildOutput final : public ChildPipe {
public:
    // limit: bytes that are kept; what comes after them is read and dropped.
    explicit ChildOutput(std::size_t limit);
    ~ChildOutput() { cancel(); } // while there is a buffer to read into

    void serve() override;
    // Takes what the program has left in the pipe, without waiting for more: others may hold it
    // open. For when the program has ended.
    void drain();

    const std::string& bytes() const noexcept { return bytes_; }
    bool isTruncated() const noexcept { return truncated_; }

private:
    void keep(DWORD count);
    void read();

    std::size_t limit_;
    std::vector<char> buffer_;
    std::string bytes_;
    bool truncated_ = false;
};

// What the program reads; afterwards it finds the end of its input.
class ChildInput final : public ChildPipe {
public:
    // bytes must live as long as the pipe.
    explicit ChildInput(std::string_view bytes);
    ~ChildInput() { cancel(); }

    void serve() override;

private:
    std::string_view left_;
};

} // namespace RunTime
