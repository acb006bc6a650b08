#include "tools/zopctl/cancel_key.h"

#include "runtime/exception.h"
#include "runtime/thread_cancelation.h"
#include "tools/zopctl/exit_code.h"

#include <condition_variable>

namespace zopctl {

namespace {

// The handler runs on a thread of the system's, which may still be in it when the object goes.
std::mutex currentMutex;
std::condition_variable currentGone;
CancelKey* current = nullptr;
int running = 0; // handlers in press()

} // namespace

CancelKey::CancelKey(std::function<void(const std::wstring&)> say)
    : say_(std::move(say)), thread_(::GetCurrentThreadId()) {
    {
        const std::lock_guard lock(currentMutex);
        current = this;
    }
    if (!::SetConsoleCtrlHandler(handler, TRUE)) {
        const DWORD code = ::GetLastError();
        current = nullptr;
        _throwError(L"Unable to catch Ctrl+C", code, {L"", "zopctl::CancelKey", __LINE__});
    }
}

CancelKey::~CancelKey() {
    ::SetConsoleCtrlHandler(handler, FALSE);
    std::unique_lock lock(currentMutex);
    current = nullptr;
    currentGone.notify_all();
    currentGone.wait(lock, [] { return running == 0; });
    ThreadCancelation::clear(thread_);
}

bool CancelKey::enter(Stage stage) {
    const std::lock_guard lock(mutex_);
    // The work may have ended before it heard; the rollback or commit must not hear it instead.
    ThreadCancelation::clear(thread_);
    if (stage == Stage::Committing && requested_) {
        return true;
    }
    stage_ = stage;
    return false;
}

bool CancelKey::press() {
    std::wstring text;
    bool stays = true;
    {
        const std::lock_guard lock(mutex_);
        stays = stage_ != Stage::Asking;
        switch (stage_) {
        case Stage::Asking:
            text = L"\nCancelled; nothing has been changed."; // below the question
            break;
        case Stage::Looking:
        case Stage::Working:
        case Stage::Repairing:
            if (!requested_.exchange(true)) {
                text = stage_ == Stage::Looking   ? L"Cancelling..."
                       : stage_ == Stage::Working ? L"Cancelling; what was done is undone next..."
                                                  : L"Cancelling; what was done stays...";
            } else {
                text = L"Cancelling already; the current step ends first.";
            }
            ThreadCancelation::request(thread_);
            break;
        case Stage::RollingBack:
            text = L"The rollback must finish, so that everything is as it was before. Please "
                   L"wait.";
            break;
        case Stage::Committing:
            text = L"It is too late to cancel: the move is done, the old copy is still being "
                   L"removed. Please wait.";
            break;
        }
    }
    say_(text);
    return stays;
}

BOOL WINAPI CancelKey::handler(DWORD event) {
    std::unique_lock lock(currentMutex);
    if (current == nullptr) {
        return FALSE;
    }
    CancelKey* const key = current;
    ++running;
    lock.unlock();
    try {
        if (!key->press()) {
            ::ExitProcess(static_cast<UINT>(ExitCode::Cancelled));
        }
    } catch (const vexception&) {
        // The thread of the work has gone: there is nothing left to cancel.
    }
    lock.lock();
    --running;
    currentGone.notify_all();
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
        // The system ends the process when this returns: wait for the work, as long as it lets us.
        currentGone.wait(lock, [] { return current == nullptr; });
    }
    return TRUE;
}

} // namespace zopctl
