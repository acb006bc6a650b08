// Ctrl+C (and Ctrl+Break, and the console being closed) while a transaction runs. What the key does
// depends on the stage: work is cancelled, a rollback or a commit is finished and the user told so.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <windows.h>

namespace zopctl {

class CancelKey {
public:
    enum class Stage {
        Looking,     // nothing has been changed
        Asking,      // nor here; a read of the console may not end by itself, so the process does
        Working,     // a cancel is rolled back
        Repairing,   // what was done before a cancel stays
        RollingBack, // goes on to its end
        Committing,  // goes on to its end
    };

    // Catches the keys from now on. Work that is cancelled is that of the calling thread. say is
    // called with what the user should know, on a thread of the system's. One object at a time.
    explicit CancelKey(std::function<void(const std::wstring&)> say);
    ~CancelKey();
    CancelKey(const CancelKey&) = delete;
    CancelKey& operator=(const CancelKey&) = delete;

    // Goes on to a stage. A cancel that has not been heard by the work yet is taken back there:
    // true when there was one, and the stage asked for is Committing; the stage stays as it is
    // then, for the caller to roll back.
    bool enter(Stage stage);

    // Asked once per item by progress handlers.
    bool isRequested() const noexcept { return requested_.load(std::memory_order_relaxed); }

    // A key has been pressed; called by the system's handler, and by tests. False when the process
    // is to end at once.
    bool press();

private:
    static BOOL WINAPI handler(DWORD event);

    std::function<void(const std::wstring&)> say_;
    DWORD thread_;
    std::mutex mutex_; // stage and request change together
    Stage stage_ = Stage::Looking;
    std::atomic<bool> requested_{false};
};

} // namespace zopctl
