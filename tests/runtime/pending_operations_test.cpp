#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/pending_operations.h"
#include "runtime/text.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/pending_list.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <optional>

using namespace RunTime;

namespace {

class PendingOperationsTest : public testing::Test {
protected:
    std::string shown() { return toUtf8(list.shown()); }

    PendingList list;
};

} // namespace

TEST_F(PendingOperationsTest, ATreeIsScheduledFromTheBottomUpUnderAFreshName) {
    const TempDirectory temp;
    temp.writeFile(L"tree\\a\\b\\file");
    temp.writeFile(L"tree\\a\\z");
    temp.writeFile(L"tree\\top");
    if (underWine()) {
        temp.writeFile(L"outside\\kept");
        ASSERT_TRUE(unixSymlink(unixPath(temp / L"outside"), temp / L"tree\\link"));
    }
    const std::wstring now = removeAtRestart(temp.nice() + L"\\tree\\");
    EXPECT_TRUE(beginsWith(now, temp / L"$Removed"));
    EXPECT_FALSE(temp.has(L"tree"));
    const std::wstring all = list.shown();
    const auto at = [&](const std::wstring& item) {
        return all.find(L"\\??\\" + nicePath(now) + item + L"||");
    };
    std::size_t last = at(L"");
    for (const wchar_t* item : {L"\\a\\b\\file", L"\\a\\z", L"\\top", L"\\a\\b", L"\\a"}) {
        EXPECT_NE(at(item), all.npos) << toUtf8(item);
        EXPECT_LT(at(item), last) << toUtf8(item);
    }
    EXPECT_LT(at(L"\\a\\b\\file"), at(L"\\a\\b"));
    EXPECT_LT(at(L"\\a\\b"), at(L"\\a"));
    EXPECT_EQ(all.find(L"outside"), all.npos);
    EXPECT_EQ(all.find(L"kept"), all.npos);
    if (underWine()) {
        EXPECT_NE(at(L"\\link"), all.npos);
    }
    EXPECT_EQ(dropPendingOperations(now), underWine() ? 7 : 6);
    EXPECT_EQ(shown(), "none");
}

TEST_F(PendingOperationsTest, AFailureLeavesNothingScheduledAndTheOldName) {
    const TempDirectory temp;
    temp.writeFile(L"tree\\1");
    temp.writeFile(L"tree\\2");
    const auto refused = [&] {
        try {
            removeAtRestart(temp / L"tree");
            ADD_FAILURE() << "scheduled";
        } catch (const VAccessDeniedException& e) {
            EXPECT_NE(e.message().find(L"Unable to remove (" + temp.nice() + L"\\tree)"),
                      std::wstring::npos)
                << toUtf8(e.message());
        }
        EXPECT_EQ(shown(), "none");
        EXPECT_EQ(temp.list(L"tree"), (std::vector<std::wstring>{L"1", L"2"}));
    };
    {
        FaultPoint set("RegSetValueExW");
        set.failAt = 0;
        set.result = ERROR_ACCESS_DENIED;
        refused();
    }
    {
        FaultPoint move("MoveFileExW");
        move.failAt = 1; // the rename first, then the top
        refused();
        // A tree that cannot be renamed is scheduled as it is.
        move.failAt = move.calls.load();
        EXPECT_EQ(removeAtRestart(temp / L"tree"), temp / L"tree");
    }
    EXPECT_EQ(dropPendingOperations(temp.nice() + L"\\TREE"), 3);
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND,
                                        L"Unable to remove (" + temp.nice() + L"\\missing)",
                                        [&] { removeAtRestart(temp / L"missing"); });
}

TEST_F(PendingOperationsTest, ARenameIsScheduledWithBothNames) {
    const TempDirectory temp;
    temp.makeDirectory(L"from");
    moveAtRestart(temp.nice() + L"\\from", temp / L"to\\");
    EXPECT_EQ(shown(),
              toUtf8(L"\\??\\" + temp.nice() + L"\\from|\\??\\" + temp.nice() + L"\\to||"));
    EXPECT_EQ(dropPendingOperations(temp / L"to"), 1);
    FaultPoint move("MoveFileExW");
    move.failAt = 0;
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED,
                                        L"Unable to move (" + temp.nice() + L"\\from)",
                                        [&] { moveAtRestart(temp / L"from", temp / L"to"); });
}

TEST_F(PendingOperationsTest, OnlyOperationsOnThePathAreDropped) {
    const wchar_t* others = L"\\??\\C:\\data2\\x||"
                            L"\\??\\C:\\other|!\\??\\C:\\dat|"
                            L"\\??\\D:\\data||"
                            L"odd|odd|";
    list.write((std::wstring(others) + L"\\??\\c:\\DATA||"
                                       L"*1\\??\\C:\\data\\a\\b||"
                                       L"\\??\\C:\\elsewhere|!\\??\\C:\\data\\c|"
                                       L"\\??\\C:\\data\\d|\\??\\C:\\elsewhere||"));
    EXPECT_EQ(dropPendingOperations(L"C:\\data\\"), 4);
    EXPECT_EQ(shown(), toUtf8(others) + "|");
    EXPECT_EQ(dropPendingOperations(L"C:\\data"), 0);
    EXPECT_EQ(shown(), toUtf8(others) + "|");
    list.write(L"\\??\\C:\\data||"); // without the closing zero
    EXPECT_EQ(dropPendingOperations(L"\\\\?\\C:\\"), 1);
    EXPECT_EQ(shown(), "none");
    EXPECT_EQ(dropPendingOperations(L"C:\\data"), 0);
}

TEST_F(PendingOperationsTest, AListThatIsNotUnderstoodIsLeftAlone) {
    const auto refused = [&](int line) {
        SCOPED_TRACE(line);
        const auto before = list.shown();
        expectError<vosexception>(ERROR_INVALID_DATA, L"Unable to read pending operations",
                                  [] { dropPendingOperations(L"C:\\data"); });
        EXPECT_EQ(list.shown(), before);
    };
    list.write(L"\\??\\C:\\data||\\??\\C:\\x|"); // no target
    refused(__LINE__);
    list.write(L"\\??\\C:\\data||\\??\\C:\\x"); // no zero
    refused(__LINE__);
    list.write(L"\\??\\C:\\data|||\\??\\C:\\x||"); // something behind the end
    refused(__LINE__);
    list.write(L"\\??\\C:\\data||", REG_MULTI_SZ, 1); // half a character
    refused(__LINE__);
    list.write(L"\\??\\C:\\data||", REG_SZ);
    refused(__LINE__);

    list.write(L"\\??\\C:\\data||\\??\\C:\\x||");
    FaultPoint set("RegSetValueExW");
    set.failAt = 0;
    set.result = ERROR_ACCESS_DENIED;
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED, L"Unable to write pending operations",
                                        [] { dropPendingOperations(L"C:\\data"); });
}
