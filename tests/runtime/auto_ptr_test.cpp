// Owning pointers: what is released, and when.
#include "runtime/auto_ptr.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

std::vector<void*> released;

struct Recorder {
    static void destroy(void* buffer) noexcept {
        released.push_back(buffer);
        ::SetLastError(ERROR_INVALID_HANDLE);
    }
};
using Pointer = RunTime::AutoPtr<int, int*, Recorder>;

} // namespace

TEST(AutoPtrTest, ReleasesWhatItOwnsOnce) {
    int a = 1, b = 2, c = 3, d = 4;
    {
        Pointer pointer(&a);
        ::SetLastError(ERROR_FILE_NOT_FOUND);
        pointer = &b; // releases a
        EXPECT_EQ(::GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
        pointer = &b;
        Pointer& same = pointer;
        pointer = std::move(same);
        Pointer moved(std::move(pointer));
        EXPECT_FALSE(pointer);
        pointer = std::move(moved);
        EXPECT_EQ(*pointer, 2);
        *pointer.put() = &c; // releases b
        Pointer borrowed(&d, false);
        const Pointer lent = std::move(borrowed);
        EXPECT_EQ(*lent, 4);
        EXPECT_EQ(Pointer(&d).release(), &d);
    } // releases c
    EXPECT_EQ(released, (std::vector<void*>{&a, &b, &c}));
}
