#include "runtime/auto_handle.h"

#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"

namespace {

bool isOpen(HANDLE handle) {
    DWORD flags = 0;
    return ::GetHandleInformation(handle, &flags) != FALSE;
}

RunTime::AutoHandle newEvent() {
    return RunTime::AutoHandle(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

} // namespace

TEST(AutoHandleTest, ClosesWhatItOwnsExactlyOnce) {
    FaultPoint closing("CloseHandle");
    HANDLE raw = nullptr;
    {
        RunTime::AutoHandle first = newEvent();
        raw = first.get();
        RunTime::AutoHandle second(std::move(first));
        EXPECT_FALSE(first);
        second = newEvent();
        EXPECT_FALSE(isOpen(raw)) << "replaced, so closed";
        raw = second.get();
        second.reset(second.get());
        EXPECT_TRUE(isOpen(raw)) << "resetting to itself keeps it";
        RunTime::AutoHandle& same = second;
        second = std::move(same);
        EXPECT_TRUE(isOpen(raw));
        *second.put() = nullptr;
        EXPECT_FALSE(isOpen(raw)) << "an out-parameter starts empty";
        const RunTime::AutoHandle null(nullptr);
        const RunTime::AutoHandle invalid(INVALID_HANDLE_VALUE);
        EXPECT_FALSE(null || invalid);
    }
    EXPECT_EQ(2, closing.calls);
}

TEST(AutoHandleTest, ClosingKeepsTheLastError) {
    FaultPoint closing("CloseHandle");
    closing.failAt = 0;
    closing.code = ERROR_INVALID_HANDLE;
    ::SetLastError(ERROR_DISK_FULL);
    newEvent().reset();
    EXPECT_EQ(1, closing.calls);
    EXPECT_NE(DWORD{ERROR_INVALID_HANDLE}, ::GetLastError());
}

TEST(AutoHandleTest, DuplicateIsASecondHandleToTheSameObjectOrAnError) {
    RunTime::AutoHandle event = newEvent();
    const RunTime::AutoHandle copy = event.duplicate();
    EXPECT_NE(event.get(), copy.get());
    ::SetEvent(event.get());
    const std::wstring text = L"Unable to duplicate handle";
    {
        FaultPoint fault("DuplicateHandle");
        fault.failAt = 0;
        expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED, text, [&] { event.duplicate(); });
    }
    event.reset();
    EXPECT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(copy.get(), 0));
    // -1 is also the current process: an empty owner must not hand out the process.
    expectError<VInvalidHandleException>(
        ERROR_INVALID_HANDLE, text, [] { RunTime::AutoHandle(INVALID_HANDLE_VALUE).duplicate(); });
}

TEST(AutoHandleTest, FindHandlesAndKeysHaveTheirOwnWayOut) {
    FaultPoint finds("FindClose");
    FaultPoint keys("RegCloseKey");
    {
        WIN32_FIND_DATAW data;
        const RunTime::AutoFindHandle find(::FindFirstFileW(L"C:\\*", &data));
        EXPECT_TRUE(find);
        const RunTime::AutoFindHandle none(::FindFirstFileW(L"C:\\no such file", &data));
        EXPECT_FALSE(none);
        RunTime::AutoRegKey key;
        EXPECT_EQ(ERROR_SUCCESS,
                  ::RegOpenKeyExW(HKEY_CURRENT_USER, L"Software", 0, KEY_READ, key.put()));
        const RunTime::AutoRegKey moved(std::move(key));
        EXPECT_TRUE(moved && !key);
    }
    EXPECT_EQ(1, finds.calls);
    EXPECT_EQ(1, keys.calls);
}
