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

std::vector<void*> taken() {
    return std::exchange(released, {});
}

} // namespace

TEST(AutoPtrTest, ReleasesWhatItOwnsOnce) {
    using Buffers = std::vector<void*>;
    int a = 1, b = 2, c = 3;
    {
        Pointer pointer(&a);
        ::SetLastError(ERROR_FILE_NOT_FOUND);
        pointer = &b;
        EXPECT_EQ(::GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(taken(), Buffers{&a});
        pointer = &b;
        Pointer& same = pointer;
        pointer = std::move(same);
        EXPECT_EQ(*pointer, 2);
        Pointer moved(std::move(pointer));
        EXPECT_FALSE(pointer);
        pointer = std::move(moved);
        EXPECT_EQ(taken(), Buffers());
        *pointer.put() = &c;
        EXPECT_EQ(taken(), Buffers{&b});
    }
    EXPECT_EQ(taken(), Buffers{&c});
    {
        Pointer borrowed(&a, false);
        Pointer moved = std::move(borrowed);
        EXPECT_EQ(moved.get(), &a);
        Pointer given(&b);
        EXPECT_EQ(given.release(), &b);
        EXPECT_FALSE(given);
        moved = std::move(given);
    }
    EXPECT_EQ(taken(), Buffers());
}
