// The examples of README.md, compiled and run as they stand there.
#include "tests/dll/small_tree.h"

#include <gtest/gtest.h>

// [README
#include "api/data_location.h"
#include "api/exception.h"

#include <cstdio>

// Moves a directory; true when all of it is in the new place.
bool moveData(const std::wstring& source, const std::wstring& target) {
    using namespace zopobsolete;
    DataLocation location;
    const Hook names = location.ProgressEvent_Name.hook(
        [](const std::wstring& name, bool, std::int64_t bytes, bool& cancel) {
            std::printf("%lld %ls\n", static_cast<long long>(bytes), name.c_str());
            cancel = false; // true ends the move
        });
    const Hook errors = location.ErrorEvent.hook([](BackupCopyErrorEvent& error) {
        std::fprintf(stderr, "%ls\n", error.message.c_str());
        error.ignore = false; // true leaves the item in the old place and goes on
    });
    bool moved = false;
    try {
        moved = location.Change(source, target);
    } catch (const Exception& e) { // the only type that comes out
        std::fprintf(stderr, "%s\n", e.what());
    }
    try { // a Commit that fails leaves the new place whole, and is no reason to roll back
        moved ? location.Commit() : location.Rollback();
    } catch (const Exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return false;
    }
    return moved && location.get_Failed().empty();
}
// README]

TEST(ExampleUsage, MovesADirectory) {
    const SmallTree tree;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(moveData(tree.source(), tree.target()));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Move: "), std::string::npos);
    EXPECT_TRUE(tree.isWholeAt(tree.target()));
    EXPECT_FALSE(moveData(tree.source(), tree.target())); // gone: nothing is left to move
    EXPECT_TRUE(tree.isWholeAt(tree.target()));
}
