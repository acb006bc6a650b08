#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/temp_directory.h"

#include <algorithm>
#include <chrono>
#include <thread>

using namespace RunTime;

namespace {

// Names that only the prefixed form reaches, and long ones.
const std::wstring oddNames[] = {
    L"trailing dot.",          L"trailing blank ",      L"CON", L"aux.txt", L"...",
    L"\U0001F600\u00E4\u0416", std::wstring(250, L'n'),
};

// A path of well over 260 characters.
std::wstring deepName() {
    std::wstring name;
    for (int i = 0; i < 6; ++i) {
        name += std::wstring(60, static_cast<wchar_t>(L'a' + i)) + L"\\";
    }
    return name + L"last";
}

AutoHandle hold(const std::wstring& path, DWORD share = 0) {
    AutoHandle handle(::CreateFileW(path.c_str(), GENERIC_READ, share, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    EXPECT_TRUE(handle) << toUtf8(path);
    return handle;
}

} // namespace

TEST(FilePrimitivesTest, OddAndLongNamesAreCreatedListedMovedAndDeleted) {
    const TempDirectory temp;
    std::vector<std::wstring> names(std::begin(oddNames), std::end(oddNames));
    names.push_back(deepName());
    for (const std::wstring& name : names) {
        SCOPED_TRACE(toUtf8(name));
        temp.writeFile(L"a\\" + name);
        const std::wstring file = temp / (L"a\\" + name);
        EXPECT_TRUE(exists(file));
        EXPECT_FALSE(isDirectory(file));
        EXPECT_EQ(fileInformation(file).name, lastName(name));
        EXPECT_EQ(fileInformation(file).size, 4);

        const std::wstring directory = file + L"2";
        EXPECT_TRUE(createDirectory(directory));
        EXPECT_FALSE(createDirectory(directory));
        EXPECT_TRUE(isDirectory(directory));
        moveEx(file, directory + L"\\moved.");
        EXPECT_FALSE(exists(file));
        const std::wstring renamed = temporaryMove(directory, L"$Backup");
        EXPECT_TRUE(beginsWith(lastName(renamed), L"$Backup"));
        EXPECT_EQ(parentPath(renamed), parentPath(file));
        EXPECT_EQ(treeSize(renamed).bytes, 4);
        deleteFile(renamed + L"\\moved.");
        removeDirectory(renamed);
        EXPECT_FALSE(exists(renamed));
    }
}

TEST(FileRetryTest, DeletionWaitsForAHolderThatLetsGo) {
    const TempDirectory temp;
    const std::wstring file = temp.writeFile(L"file");
    AutoHandle holder = hold(file);
    std::thread release([&] {
        ::Sleep(60);
        holder.reset();
    });
    deleteFile(file);
    release.join();
    EXPECT_FALSE(temp.has(L"file"));
}
