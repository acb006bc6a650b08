#include "tests/support/ntfs_fake.h"

#include "tests/support/fault_sweep.h"
#include "tests/support/process_counters.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include "runtime/accounts/privilege_scope.h"
#include "runtime/auto_handle.h"

#include <gtest/gtest.h>
#include <winefs.h>
#include <winioctl.h>

namespace {

using RunTime::AutoHandle;

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

AutoHandle open(const std::wstring& path, DWORD access, DWORD share = shareAll,
                DWORD disposition = OPEN_EXISTING) {
    return AutoHandle(::CreateFileW(path.c_str(), access, share, nullptr, disposition,
                                    FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT,
                                    nullptr));
}

std::string backupOf(const std::wstring& path, bool security = false) {
    const AutoHandle file = open(path, GENERIC_READ);
    std::string all;
    std::vector<BYTE> buffer(5000);
    void* context = nullptr;
    DWORD read = 0;
    do {
        EXPECT_TRUE(::BackupRead(file.get(), buffer.data(), static_cast<DWORD>(buffer.size()),
                                 &read, FALSE, security, &context))
            << ::GetLastError();
        all.append(reinterpret_cast<char*>(buffer.data()), read);
    } while (read != 0);
    EXPECT_TRUE(::BackupRead(file.get(), nullptr, 0, &read, TRUE, security, &context));
    return all;
}

void restore(const AutoHandle& file, std::string all, DWORD expected = 0) {
    void* context = nullptr;
    DWORD written = 0;
    const BOOL done =
        ::BackupWrite(file.get(), reinterpret_cast<BYTE*>(all.data()),
                      static_cast<DWORD>(all.size()), &written, FALSE, TRUE, &context);
    EXPECT_EQ(done ? 0 : ::GetLastError(), expected);
    EXPECT_TRUE(::BackupWrite(file.get(), nullptr, 0, &written, TRUE, TRUE, &context));
}

// NtfsFakeTest: a fake that is kinder than Windows would let faults through.
TEST(NtfsFakeTest, BackupStreamsHaveTheSystemsFormatAndTravelWhole) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring file = temp.writeFile(L"file", "data");
    ntfs.setStream(file, L"note", "N");
    const char16_t name[] = u":note:$DATA";
    EXPECT_EQ(backupOf(file), std::string("\1\0\0\0\0\0\0\0\4\0\0\0\0\0\0\0\0\0\0\0data", 24) +
                                  std::string("\4\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\26\0\0\0", 20) +
                                  std::string(reinterpret_cast<const char*>(name), 22) + "N");

    ntfs.setStream(file, L"large", sampleBytes(100'000));
    ntfs.setStream(file, L"empty", "");
    ntfs.setEa(file, "extended");
    ntfs.setObjectId(file, sampleBytes(64));
    const std::wstring sddl = L"O:BUG:SYD:PAI(D;;FW;;;WD)(A;ID;FA;;;BU)";
    ntfs.setSecurity(file, sddl);
    ntfs.chunkSeed = 7;
    const std::string all = backupOf(file, true);
    ntfs.chunkSeed = 8;
    EXPECT_EQ(backupOf(file, true), all);

    const RunTime::PrivilegeScope privileges({SE_RESTORE_NAME});
    const AutoHandle copy =
        open(temp / L"copy", GENERIC_WRITE | WRITE_DAC | WRITE_OWNER, shareAll, CREATE_NEW);
    ::DeleteFileW(file.c_str());
    restore(copy, all);
    EXPECT_EQ(ntfs.streams(temp / L"copy").size(), 3u);
    EXPECT_EQ(ntfs.streams(temp / L"copy")[L"large"], sampleBytes(100'000));
    EXPECT_EQ(ntfs.ea(temp / L"copy"), "extended");
    EXPECT_EQ(ntfs.security(temp / L"copy"), sddl);
    EXPECT_EQ(imageOf(temp / L"copy").at(L"").streams.at(L":note:$DATA"), "N");

    restore(copy, std::string("\x63\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 20),
            ERROR_INVALID_DATA);
    ntfs.writeLimit = 2;
    void* context = nullptr;
    DWORD written = 0;
    BYTE bytes[20] = {1};
    EXPECT_TRUE(::BackupWrite(copy.get(), bytes, 20, &written, FALSE, TRUE, &context));
    EXPECT_EQ(written, 2u);
    ::BackupWrite(copy.get(), nullptr, 0, &written, TRUE, TRUE, &context);
    ntfs.backupRefusal = ERROR_NOT_SUPPORTED;
    EXPECT_FALSE(::BackupRead(copy.get(), bytes, 20, &written, FALSE, TRUE, &context));
    EXPECT_EQ(::GetLastError(), DWORD(ERROR_NOT_SUPPORTED));
}

TEST(NtfsFakeTest, HolesTravelAsSparseBlocks) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring file = temp.writeFile(L"file", "head");
    const auto extend = [](const AutoHandle& handle, std::int64_t size, const char* text) {
        LARGE_INTEGER to;
        to.QuadPart = size;
        DWORD done = 0;
        ::SetFilePointerEx(handle.get(), to, nullptr, FILE_BEGIN);
        EXPECT_TRUE(
            ::WriteFile(handle.get(), text, static_cast<DWORD>(strlen(text)), &done, nullptr));
        ::SetEndOfFile(handle.get());
    };
    extend(open(file, GENERIC_WRITE), 1 << 20, "middle");
    extend(open(file, GENERIC_WRITE), 1 << 21, "");
    ntfs.setFlags(file, FILE_ATTRIBUTE_SPARSE_FILE);
    using Ranges = std::vector<std::pair<std::int64_t, std::int64_t>>;
    const Ranges ranges = {{0, 4096}, {1 << 20, 4096}};
    EXPECT_EQ(ntfs.allocated(file), ranges);
    const std::string all = backupOf(file);
    EXPECT_EQ(all.size(), 20u + 2 * (28 + 4096) + 28);
    const AutoHandle copy = open(temp / L"copy", GENERIC_WRITE, shareAll, CREATE_NEW);
    DWORD returned = 0;
    EXPECT_TRUE(::DeviceIoControl(copy.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned,
                                  nullptr));
    restore(copy, all);
    EXPECT_EQ(ntfs.allocated(temp / L"copy"), ranges);
    EXPECT_EQ(imageOf(temp / L"copy").at(L"").content, imageOf(file).at(L"").content);
    EXPECT_EQ(imageOf(temp / L"copy").at(L"").attributes & FILE_ATTRIBUTE_SPARSE_FILE,
              DWORD(FILE_ATTRIBUTE_SPARSE_FILE));
}

TEST(NtfsFakeTest, EncryptedFilesTravelRaw) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring file = temp.writeFile(L"file", sampleBytes(10'000));
    void* context = nullptr;
    EXPECT_EQ(::OpenEncryptedFileRawW(file.c_str(), 0, &context), DWORD(ERROR_FILE_NOT_ENCRYPTED));
    ntfs.setFlags(file, FILE_ATTRIBUTE_ENCRYPTED);
    std::string raw;
    EXPECT_EQ(::OpenEncryptedFileRawW(file.c_str(), 0, &context), 0u);
    const auto take = [](PBYTE bytes, PVOID to, ULONG count) -> DWORD {
        static_cast<std::string*>(to)->append(reinterpret_cast<char*>(bytes), count);
        return 0;
    };
    EXPECT_EQ(::ReadEncryptedFileRaw(take, &raw, context), 0u);
    ::CloseEncryptedFileRaw(context);
    EXPECT_EQ(::OpenEncryptedFileRawW((temp / L"copy").c_str(), CREATE_FOR_IMPORT, &context), 0u);
    const auto give = [](PBYTE bytes, PVOID from, PULONG count) -> DWORD {
        auto& left = *static_cast<std::string*>(from);
        *count = static_cast<ULONG>(left.copy(reinterpret_cast<char*>(bytes), *count));
        left.erase(0, *count);
        return 0;
    };
    EXPECT_EQ(::WriteEncryptedFileRaw(give, &raw, context), 0u);
    ::CloseEncryptedFileRaw(context);
    const TreeImage copy = imageOf(temp / L"copy");
    EXPECT_EQ(copy.at(L"").content, imageOf(file).at(L"").content);
    EXPECT_NE(copy.at(L"").attributes & FILE_ATTRIBUTE_ENCRYPTED, 0u);
    ntfs.setVolumeFlags(L'C', FILE_NAMED_STREAMS);
    EXPECT_EQ(::OpenEncryptedFileRawW((temp / L"2").c_str(), CREATE_FOR_IMPORT, &context),
              DWORD(ERROR_VOLUME_NOT_SUPPORT_EFS));
}

TEST(NtfsFakeTest, BreachesOfTheBackupApiAreNoticed) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring path = temp.writeFile(L"file");
    void* context = nullptr;
    DWORD count = 0;
    BYTE bytes[24] = {3, 0, 0, 0, 0, 0, 0, 0, 9}; // security of 9 bytes, the payload not there
    {
        const AutoHandle file = open(path, GENERIC_READ | GENERIC_WRITE);
        const AutoHandle second = open(path, GENERIC_READ);
        ::BackupRead(file.get(), bytes + 20, 1, &count, FALSE, FALSE, &context);
        EXPECT_FALSE(::BackupRead(second.get(), bytes + 20, 1, &count, FALSE, FALSE, &context));
        EXPECT_FALSE(::BackupWrite(file.get(), bytes, 20, &count, FALSE, FALSE, &context));
        EXPECT_FALSE(::BackupSeek(file.get(), 1, 0, &count, &count, &context));
        void* other = nullptr;
        ::BackupWrite(file.get(), bytes, 20, &count, FALSE, FALSE, &other);
    }
    EXPECT_EQ(ntfs.takeViolations(),
              (std::vector<std::string>{"BackupRead: a context of another handle",
                                        "BackupWrite: a context of the other direction",
                                        "BackupSeek: within a header or a name",
                                        "BackupWrite: a small stream in more than one call",
                                        "the handle was closed before its context was ended",
                                        "the handle was closed before its context was ended"}));
}

TEST(NtfsFakeTest, DescriptorsFollowTheRulesOfTheSystem) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring directory = temp.makeDirectory(L"d");
    ntfs.setSecurity(directory, L"O:BAG:BAD:(A;OICI;FA;;;BA)(A;OI;FR;;;BU)(A;;FA;;;SY)");
    const std::wstring file = temp.writeFile(L"d\\f");
    EXPECT_EQ(ntfs.security(file), L"O:BAG:SYD:AI(A;ID;FA;;;BA)(A;ID;FR;;;BU)");
    EXPECT_EQ(ntfs.security(temp.makeDirectory(L"d\\sub")),
              L"O:BAG:SYD:AI(A;OICIID;FA;;;BA)(A;OIIOID;FR;;;BU)");

    SECURITY_DESCRIPTOR wanted;
    ::InitializeSecurityDescriptor(&wanted, SECURITY_DESCRIPTOR_REVISION);
    ::SetSecurityDescriptorDacl(&wanted, TRUE, nullptr, FALSE);
    const WORD marks = SE_DACL_AUTO_INHERITED | SE_DACL_AUTO_INHERIT_REQ;
    const auto set = [&](DWORD access, SECURITY_INFORMATION parts) {
        return ::SetKernelObjectSecurity(open(file, access).get(), parts, &wanted)
                   ? 0
                   : ::GetLastError();
    };
    EXPECT_EQ(set(GENERIC_WRITE, DACL_SECURITY_INFORMATION), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(set(WRITE_DAC, OWNER_SECURITY_INFORMATION), DWORD(ERROR_ACCESS_DENIED));
    EXPECT_EQ(set(WRITE_DAC, SACL_SECURITY_INFORMATION), DWORD(ERROR_PRIVILEGE_NOT_HELD));
    EXPECT_FALSE(open(file, ACCESS_SYSTEM_SECURITY));
    ::SetSecurityDescriptorControl(&wanted, SE_DACL_AUTO_INHERITED, SE_DACL_AUTO_INHERITED);
    EXPECT_EQ(set(WRITE_DAC, DACL_SECURITY_INFORMATION), 0u);
    EXPECT_EQ(ntfs.security(file), L"O:BAG:SYD:NO_ACCESS_CONTROL");
    ::SetSecurityDescriptorControl(&wanted, marks, marks);
    EXPECT_EQ(set(WRITE_DAC, DACL_SECURITY_INFORMATION), 0u);
    EXPECT_EQ(ntfs.security(file), L"O:BAG:SYD:AINO_ACCESS_CONTROL");
    EXPECT_TRUE(::MoveFileExW(file.c_str(), (temp / L"moved").c_str(), 0));
    EXPECT_EQ(ntfs.security(temp / L"moved"), L"O:BAG:SYD:AINO_ACCESS_CONTROL");
}

TEST(NtfsFakeTest, LinksAreItemsOfTheirOwn) {
    const TempDirectory temp;
    NtfsFake ntfs;
    temp.writeFile(L"victim\\inner");
    const std::wstring tree = temp.makeDirectory(L"tree");
    EXPECT_TRUE(unixSymlink("../victim", tree + L"\\a"));
    EXPECT_TRUE(unixSymlink("../victim/inner", tree + L"\\b"));
    EXPECT_TRUE(unixSymlink("nowhere", tree + L"\\c"));
    ntfs.makeLink(tree + L"\\d", temp.nice() + L"\\victim", IO_REPARSE_TAG_MOUNT_POINT, true);
    ntfs.setForeignTag(temp.writeFile(L"tree\\e", "deduplicated"), IO_REPARSE_TAG_DEDUP, "x");
    const TreeImage victim = imageOf(temp / L"victim");
    const TreeImage image = imageOf(tree);
    EXPECT_EQ(image.size(), 6u);
    for (const wchar_t* name : {L"a", L"b", L"c", L"d"}) {
        EXPECT_EQ(image.at(name).kind, ItemImage::Kind::Link) << static_cast<char>(name[0]);
    }
    EXPECT_EQ(image.at(L"e").content, "deduplicated");
    EXPECT_EQ(image.at(L"a").attributes,
              DWORD(FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT));
    EXPECT_EQ(image.at(L"b").attributes, DWORD(FILE_ATTRIBUTE_REPARSE_POINT));
    WIN32_FIND_DATAW data;
    const HANDLE search = ::FindFirstFileW((tree + L"\\d").c_str(), &data);
    EXPECT_EQ(data.dwReserved0, IO_REPARSE_TAG_MOUNT_POINT);
    ::FindClose(search);

    // A copy by reparse data, and by the backup API.
    const auto make = [&](const std::wstring& name, DWORD disposition) {
        const std::wstring path = temp / name;
        return disposition == CREATE_NEW
                   ? open(path, GENERIC_READ | GENERIC_WRITE | DELETE, shareAll, CREATE_NEW)
                   : (::CreateDirectoryW(path.c_str(), nullptr),
                      open(path, GENERIC_READ | GENERIC_WRITE | DELETE));
    };
    restore(make(L"copy a", OPEN_EXISTING), backupOf(tree + L"\\a"));
    restore(make(L"copy d", OPEN_EXISTING), backupOf(tree + L"\\d"));
    std::string reparse = image.at(L"c").reparse;
    DWORD returned = 0;
    const AutoHandle c = make(L"copy c", CREATE_NEW);
    EXPECT_TRUE(::DeviceIoControl(c.get(), FSCTL_SET_REPARSE_POINT, reparse.data(),
                                  static_cast<DWORD>(reparse.size()), nullptr, 0, &returned,
                                  nullptr));
    for (const wchar_t* name : {L"a", L"c", L"d"}) {
        EXPECT_EQ(imageOf(temp / (std::wstring(L"copy ") + name)).at(L"").reparse,
                  image.at(name).reparse);
    }

    // Each way to remove or rename acts on the link.
    EXPECT_FALSE(::DeleteFileW((tree + L"\\a").c_str()));
    EXPECT_TRUE(::RemoveDirectoryW((tree + L"\\a").c_str()));
    EXPECT_TRUE(::DeleteFileW((tree + L"\\b").c_str()));
    EXPECT_TRUE(::MoveFileExW((tree + L"\\c").c_str(), (tree + L"\\c2").c_str(), 0));
    EXPECT_EQ(imageOf(tree).at(L"c2").reparse, reparse);
    FILE_DISPOSITION_INFO gone = {TRUE};
    EXPECT_TRUE(::SetFileInformationByHandle(open(tree + L"\\d", DELETE).get(), FileDispositionInfo,
                                             &gone, sizeof gone));
    EXPECT_EQ(imageOf(tree).size(), 3u);
    EXPECT_TRUE(sameTree(victim, imageOf(temp / L"victim")));
}

TEST(NtfsFakeTest, AHeldDirectoryCannotBeSwappedForALink) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring directory = temp.makeDirectory(L"d");
    temp.writeFile(L"victim\\inner");
    bool swapped = false;
    const auto swap = [&] { swapped = ntfs.swapForLink(directory, unixPath(temp / L"victim")); };
    {
        const AutoHandle held = open(directory, GENERIC_READ, FILE_SHARE_READ);
        swap();
        EXPECT_FALSE(swapped);
        EXPECT_EQ(ntfs.openHandles(temp.path()), 1);
    }
    ntfs.onOpen(directory, 2, swap);
    open(directory, GENERIC_READ);
    EXPECT_FALSE(swapped);
    const AutoHandle opened = open(directory, GENERIC_READ);
    EXPECT_TRUE(swapped);
    FILE_ATTRIBUTE_TAG_INFO tag = {};
    ::GetFileInformationByHandleEx(opened.get(), FileAttributeTagInfo, &tag, sizeof tag);
    EXPECT_EQ(tag.ReparseTag, IO_REPARSE_TAG_SYMLINK);
    const AutoHandle below = open(temp / L"victim\\inner", GENERIC_READ);
    EXPECT_FALSE(::MoveFileExW((temp / L"victim").c_str(), (temp / L"v").c_str(), 0));
    EXPECT_EQ(::GetLastError(), DWORD(ERROR_ACCESS_DENIED));
}

TEST(NtfsFakeTest, AttributesAndTimesAreKeptAsSetAndSweepsSeeTheFake) {
    const TempDirectory temp;
    NtfsFake ntfs;
    EXPECT_TRUE(keepsCreationTimes());
    const DWORD attributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
    {
        TreeBuilder tree(temp / L"one");
        tree.directory(L"d", attributes).file(L".f", "", FILE_ATTRIBUTE_TEMPORARY);
    }
    const TreeImage image = imageOf(temp / L"one");
    EXPECT_EQ(image.at(L"d").attributes, attributes | FILE_ATTRIBUTE_DIRECTORY);
    EXPECT_EQ(image.at(L".f").attributes, DWORD(FILE_ATTRIBUTE_TEMPORARY));
    EXPECT_EQ(image.at(L"d").created, TreeBuilder::defaultTime - 1'000'000'000);
    EXPECT_FALSE(::RemoveDirectoryW((temp / L"one\\d").c_str()));
    EXPECT_FALSE(open(temp / L"one\\d:new", GENERIC_WRITE, 0, CREATE_NEW));

    AutoHandle none;
    EXPECT_TRUE(runWithFault(1, 5, [&] { none = open(temp / L"one\\.f", DELETE); }).fired);
    EXPECT_FALSE(none);
    EXPECT_EQ(countCalls([&] { open(temp / L"one\\.f", DELETE); }),
              (std::map<std::string, long>{{"CreateFileW", 1}}));
    const ProcessCounters growth = growthOver(20, [&] { imageOf(temp / L"one"); });
    EXPECT_EQ(growth.handles, 0);
    EXPECT_EQ(growth.blocks, 0);
    std::vector<AutoHandle> kept;
    std::vector<std::unique_ptr<int>> blocks;
    kept.reserve(10);
    blocks.reserve(10);
    const ProcessCounters leak = growthOver(5, [&] {
        kept.emplace_back(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        blocks.push_back(std::make_unique<int>(1));
    });
    EXPECT_EQ(leak.handles, 5);
    EXPECT_EQ(leak.blocks, 5);

    ntfs.setStream(temp / L"one\\.f", L"s", "");
    ntfs.setSecurity(temp / L"one\\.f", L"O:BUG:SYD:");
    const std::string lines = difference(image, imageOf(temp / L"one"));
    EXPECT_NE(lines.find("'.f' streams:  -> :s:$DATA= ; security:"), lines.npos) << lines;
}

TEST(NtfsFakeTest, FingerprintShowsEveryChange) {
    const TempDirectory temp;
    NtfsFake ntfs;
    const std::wstring file = temp.writeFile(L"tree\\sub\\file", "data");
    std::string last = ntfs.fingerprint(temp / L"tree");
    EXPECT_EQ(ntfs.fingerprint(temp / L"tree"), last);
    const std::function<void()> changes[] = {
        [&] { temp.writeFile(L"tree\\sub\\file", "Data"); },
        [&] { ntfs.setStream(file, L"s", ""); },
        [&] { ntfs.setStream(file, L"s", "text"); },
        [&] { ntfs.setSecurity(file, L"O:BUG:SYD:"); },
        [&] { ntfs.setSecurity(file, L"O:BUG:SYD:NO_ACCESS_CONTROL"); },
        [&] { ::SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_HIDDEN); },
        [&] { ntfs.setEa(file, "e"); },
        [&] {
            FILETIME time = {1, 0x1D00000};
            ::SetFileTime(open(temp / L"tree\\sub", FILE_WRITE_ATTRIBUTES).get(), nullptr, nullptr,
                          &time);
        },
        [&] { temp.makeDirectory(L"tree\\empty"); },
    };
    for (const auto& change : changes) {
        change();
        const std::string now = ntfs.fingerprint(temp / L"tree");
        EXPECT_NE(now, last) << &change - changes;
        last = now;
    }
}

} // namespace
