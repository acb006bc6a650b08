#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/pending_operations.h"
#include "runtime/text.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <optional>

using namespace RunTime;

namespace {

constexpr const wchar_t* listName = L"PendingFileRenameOperations";

// MoveFileExW writes to the real key whatever predefined key is overridden, so the list is kept
// aside for the test and put back.
class PendingOperationsTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE,
                                    L"SYSTEM\\CurrentControlSet\\Control\\Session Manager", 0,
                                    nullptr, 0, KEY_ALL_ACCESS, nullptr, key_.put(), nullptr),
                  ERROR_SUCCESS);
        saved_ = bytes();
        ::RegDeleteValueW(key_.get(), listName);
    }
    void TearDown() override {
        if (saved_) {
            write(*saved_);
        } else {
            ::RegDeleteValueW(key_.get(), listName);
        }
    }

    void write(const std::wstring& data, DWORD type = REG_MULTI_SZ, DWORD cut = 0) {
        ASSERT_EQ(::RegSetValueExW(key_.get(), listName, 0, type,
                                   reinterpret_cast<const BYTE*>(data.data()),
                                   static_cast<DWORD>(data.size() * sizeof(wchar_t)) - cut),
                  ERROR_SUCCESS);
    }
    std::optional<std::wstring> bytes() {
        std::wstring data(64 * 1024, L'\0');
        DWORD size = static_cast<DWORD>(data.size() * sizeof(wchar_t));
        if (::RegQueryValueExW(key_.get(), listName, nullptr, nullptr,
                               reinterpret_cast<BYTE*>(data.data()), &size) != ERROR_SUCCESS) {
            return std::nullopt;
        }
        data.resize(size / sizeof(wchar_t));
        return data;
    }
    // Zeros shown as "|".
    std::string shown() {
        std::wstring data = bytes().value_or(L"none");
        std::replace(data.begin(), data.end(), L'\0', L'|');
        return toUtf8(data);
    }

    static std::wstring data(std::wstring shownData) {
        std::replace(shownData.begin(), shownData.end(), L'|', L'\0');
        return shownData;
    }

    AutoRegKey key_;
    std::optional<std::wstring> saved_;
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
    const std::wstring list = bytes().value_or(L"");
    const auto at = [&](const std::wstring& item) {
        return list.find(data(L"\\??\\" + nicePath(now) + item + L"||"));
    };
    std::size_t last = at(L"");
    for (const wchar_t* item : {L"\\a\\b\\file", L"\\a\\z", L"\\top", L"\\a\\b", L"\\a"}) {
        EXPECT_NE(at(item), list.npos) << toUtf8(item);
        EXPECT_LT(at(item), last) << toUtf8(item);
    }
    EXPECT_LT(at(L"\\a\\b\\file"), at(L"\\a\\b"));
    EXPECT_LT(at(L"\\a\\b"), at(L"\\a"));
    EXPECT_EQ(list.find(L"outside"), list.npos);
    EXPECT_EQ(list.find(L"kept"), list.npos);
    if (underWine()) {
        EXPECT_NE(at(L"\\link"), list.npos);
    }
    EXPECT_EQ(dropPendingOperations(now), underWine() ? 7 : 6);
    EXPECT_EQ(shown(), "none");
}

TEST_F(PendingOperationsTest, AFailureLeavesNothingScheduledAndTheOldName) {
    const TempDirectory temp;
    temp.writeFile(L"tree\\1");
    temp.writeFile(L"tree\\2");
    {
        FaultPoint move("MoveFileExW");
        move.failAt = 2; // the rename, the first file, the second
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
    write(data(std::wstring(others) + L"\\??\\c:\\DATA||"
                                      L"*1\\??\\C:\\data\\a\\b||"
                                      L"\\??\\C:\\elsewhere|!\\??\\C:\\data\\c|"
                                      L"\\??\\C:\\data\\d|\\??\\C:\\elsewhere||"));
    EXPECT_EQ(dropPendingOperations(L"C:\\data\\"), 4);
    EXPECT_EQ(shown(), toUtf8(others) + "|");
    EXPECT_EQ(dropPendingOperations(L"C:\\data"), 0);
    EXPECT_EQ(shown(), toUtf8(others) + "|");
    write(data(L"\\??\\C:\\data||")); // without the closing zero
    EXPECT_EQ(dropPendingOperations(L"\\\\?\\C:\\"), 1);
    EXPECT_EQ(shown(), "none");
    EXPECT_EQ(dropPendingOperations(L"C:\\data"), 0);
}

TEST_F(PendingOperationsTest, AListThatIsNotUnderstoodIsLeftAlone) {
    const auto refused = [&](int line) {
        SCOPED_TRACE(line);
        const auto before = bytes();
        expectError<vosexception>(ERROR_INVALID_DATA, L"Unable to read pending operations",
                                  [] { dropPendingOperations(L"C:\\data"); });
        EXPECT_EQ(bytes(), before);
    };
    write(data(L"\\??\\C:\\data||\\??\\C:\\x|")); // no target
    refused(__LINE__);
    write(data(L"\\??\\C:\\data||\\??\\C:\\x")); // no zero
    refused(__LINE__);
    write(data(L"\\??\\C:\\data|||\\??\\C:\\x||")); // something behind the end
    refused(__LINE__);
    write(data(L"\\??\\C:\\data||"), REG_MULTI_SZ, 1); // half a character
    refused(__LINE__);
    write(data(L"\\??\\C:\\data||"), REG_SZ);
    refused(__LINE__);

    write(data(L"\\??\\C:\\data||\\??\\C:\\x||"));
    FaultPoint set("RegSetValueExW");
    set.failAt = 0;
    set.result = ERROR_ACCESS_DENIED;
    expectError<VAccessDeniedException>(ERROR_ACCESS_DENIED, L"Unable to write pending operations",
                                        [] { dropPendingOperations(L"C:\\data"); });
}
