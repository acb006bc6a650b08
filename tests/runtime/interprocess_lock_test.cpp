#include "runtime/exception.h"
#include "runtime/interprocess_lock.h"
#include "runtime/thread_cancelation.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"

#include <sddl.h>
#include <thread>

using namespace RunTime;

namespace {

std::wstring lockName() {
    return L"Global\\zop-test-" + std::to_wstring(::GetCurrentProcessId());
}

// Holds the lock on a thread of its own.
class Holder {
public:
    explicit Holder(bool abandon = false) {
        const AutoHandle taken(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        thread_ = std::thread([this, abandon, event = taken.get()] {
            mutex_.reset(::CreateMutexW(nullptr, TRUE, lockName().c_str()));
            ::SetEvent(event);
            if (!abandon) {
                ::WaitForSingleObject(release_.get(), INFINITE);
                ::ReleaseMutex(mutex_.get());
            }
        });
        ::WaitForSingleObject(taken.get(), INFINITE);
    }
    ~Holder() {
        ::SetEvent(release_.get());
        thread_.join();
    }
    void release() { ::SetEvent(release_.get()); }

private:
    AutoHandle release_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    AutoHandle mutex_;
    std::thread thread_;
};

} // namespace

TEST(InterprocessLockTest, OneClientAtATimeHoldsIt) {
    InterprocessLock lock(lockName());
    {
        Holder other;
        expectError<vosexception>(ERROR_TIMEOUT, L"Unable to lock Tarvo logs",
                                  [&] { lock.lock(L"Unable to lock Tarvo logs", 30); });
        EXPECT_FALSE(lock.isHeld());
        other.release();
        lock.lock(L"Unable to lock Tarvo logs");
        EXPECT_TRUE(lock.isHeld());
        expectError<vosexception>(ERROR_POSSIBLE_DEADLOCK, L"again", [&] { lock.lock(L"again"); });
        lock.unlock(L"Unable to unlock Tarvo logs");
        EXPECT_FALSE(lock.isHeld());
    }
    { // A client that goes gives up its hold.
        InterprocessLock brief(lockName());
        brief.lock(L"lock");
    }
    std::thread([] {
        InterprocessLock elsewhere(lockName());
        elsewhere.lock(L"lock", 1000);
    }).join();
}

TEST(InterprocessLockTest, AnAbandonedLockIsAcquired) {
    InterprocessLock lock(lockName());
    const Holder dead(true);
    lock.lock(L"lock", 1000);
    EXPECT_TRUE(lock.isHeld());
}

TEST(InterprocessLockTest, OnlyTheOwnerUnlocks) {
    InterprocessLock lock(lockName());
    expectError<vosexception>(ERROR_NOT_OWNER, L"Unable to unlock Tarvo logs",
                              [&] { lock.unlock(L"Unable to unlock Tarvo logs"); });
    lock.lock(L"lock");
    std::thread([&] {
        expectError<vosexception>(ERROR_NOT_OWNER, L"unlock", [&] { lock.unlock(L"unlock"); });
    }).join();
    EXPECT_TRUE(lock.isHeld());
    lock.unlock(L"unlock");
}

TEST(InterprocessLockTest, CancellationEndsTheWait) {
    InterprocessLock lock(lockName());
    const ThreadCancelation::CancelationPoint cancellable;
    const ImportPatch wait( // somebody holds it, and the request comes meanwhile
        "WaitForSingleObject", +[](HANDLE, DWORD) -> DWORD {
            ThreadCancelation::request(::GetCurrentThreadId());
            return WAIT_TIMEOUT;
        });
    expectError<CanceledException>(L"Canceled!", [&] { lock.lock(L"lock"); });
}

TEST(InterprocessLockTest, AdministratorsAndTheSystemOnlyMayUseIt) {
    InterprocessLock lock(lockName());
    lock.lock(L"lock");
    const AutoHandle mutex(::OpenMutexW(READ_CONTROL, FALSE, lockName().c_str()));
    ASSERT_TRUE(mutex);
    BYTE descriptor[1024];
    DWORD size = 0;
    ASSERT_TRUE(::GetKernelObjectSecurity(mutex.get(), DACL_SECURITY_INFORMATION, descriptor,
                                          sizeof(descriptor), &size));
    wchar_t* text = nullptr;
    ASSERT_TRUE(::ConvertSecurityDescriptorToStringSecurityDescriptorW(
        descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
    const std::wstring list = text;
    ::LocalFree(text);
    EXPECT_NE(list.find(L";;;SY)"), list.npos);
    EXPECT_NE(list.find(L";;;BA)"), list.npos);
    EXPECT_EQ(std::count(list.begin(), list.end(), L'('), 2);

    // One that another program made grants less than a creator wants.
    FaultPoint create("CreateMutexW");
    create.failAt = 0;
    InterprocessLock modest(lockName());
    modest.lock(L"lock", 100); // this thread's already
    modest.unlock(L"unlock");
    create.failAt = 1;
    create.code = ERROR_INVALID_HANDLE; // the name belongs to another kind of object
    InterprocessLock wrong(lockName());
    expectError<VInvalidHandleException>(ERROR_INVALID_HANDLE, L"lock",
                                         [&] { wrong.lock(L"lock"); });
}
