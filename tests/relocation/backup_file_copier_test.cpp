// What a tree copy carries over, what it reports, and what it makes of damage.
#include "relocation/backup_file_copier.h"

#include "runtime/exception.h"
#include "runtime/text.h"
#include "tests/relocation/move_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/fault_sweep.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <winioctl.h>

namespace {

using Pieces = std::vector<std::pair<std::int64_t, std::string>>;

class BackupFileCopierTest : public MoveFixture {
protected:
    // A file of this size with data at some offsets and holes between.
    std::wstring makeSparse(const std::wstring& name, std::int64_t size, const Pieces& pieces) {
        const std::wstring path = temp_.writeFile(L"panel\\data\\" + name, "");
        unixCall(unixcall::TruncateTo, unixPath(path).c_str(), unixcall::number(size));
        for (const auto& [offset, text] : pieces) {
            unixWrite(unixPath(path), text, unixcall::ReadWrite, offset);
        }
        ntfs_.setFlags(path, FILE_ATTRIBUTE_SPARSE_FILE);
        return path;
    }
    static void makeSparseStream(const std::wstring& stream) {
        const RunTime::AutoHandle file(::CreateFileW(stream.c_str(), GENERIC_READ | GENERIC_WRITE,
                                                     0, nullptr, CREATE_NEW, 0, nullptr));
        DWORD got = 0;
        const LARGE_INTEGER behindTheHole = {.QuadPart = 512 << 10};
        EXPECT_TRUE(
            ::DeviceIoControl(file.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &got, nullptr));
        EXPECT_TRUE(::WriteFile(file.get(), "first", 5, &got, nullptr) &&
                    ::SetFilePointerEx(file.get(), behindTheHole, nullptr, FILE_BEGIN) &&
                    ::WriteFile(file.get(), sampleBytes(1 << 19).data(), 1 << 19, &got, nullptr));
    }
    void clearTarget() {
        unixRemoveTree(unixPath(target()));
        EXPECT_EQ(ntfs_.openHandles(temp_.path()), 0);
    }
    std::wstring copied(const wchar_t* name) const { return target() + L"\\" + name; }
};

std::int64_t countOf(const backupcopy& copier, CopyLoss kind) {
    return copier.get_report().of(kind).count;
}

TEST_F(BackupFileCopierTest, HolesStreamsLinksAndFlagsTravel) {
    const wchar_t* const sparse[] = {L"head", L"middle", L"tail", L"holes", L"nothing"};
    makeSparse(L"head", 1 << 20, {{(1 << 20) - 4, "last"}});
    makeSparse(L"middle", 3 << 20, {{0, "first"}, {2 << 20, sampleBytes(1 << 20)}});
    makeSparse(L"tail", 1 << 20, {{0, "first"}});
    makeSparse(L"holes", 5 << 20, {});
    makeSparse(L"nothing", 0, {});
    const std::wstring file = temp_.writeFile(L"panel\\data\\streams", "main");
    ntfs_.setStream(file, L"a", "one");
    makeSparseStream(file + L":b");
    ntfs_.setStream(file, L"c", "");
    ntfs_.setStream(source(), L"of the directory", "text");
    ntfs_.setFlags(temp_.writeFile(L"panel\\data\\pressed\\file", "p"), FILE_ATTRIBUTE_COMPRESSED);
    ntfs_.setFlags(source() + L"\\pressed", FILE_ATTRIBUTE_COMPRESSED);
    temp_.writeFile(L"panel\\data\\pressed\\plain", "not compressed");
    const std::wstring secret = temp_.writeFile(L"panel\\data\\secret", sampleBytes(10'000));
    ntfs_.setFlags(secret, FILE_ATTRIBUTE_ENCRYPTED);
    temp_.writeFile(L"victim\\inner");
    ntfs_.makeLink(source() + L"\\to directory", temp_ / L"victim", IO_REPARSE_TAG_SYMLINK, true);
    ntfs_.makeLink(source() + L"\\to file", temp_ / L"victim\\inner", IO_REPARSE_TAG_SYMLINK,
                   false);
    ntfs_.makeLink(source() + L"\\junction", L"C:\\nowhere", IO_REPARSE_TAG_MOUNT_POINT, true);
    const TreeImage before = imageOf(source());
    ntfs_.setEa(file, "extended"); // an image does not show it
    struct Case {
        unsigned seed;
        bool asData;
        DWORD refusal;
    };
    for (const Case& way : {Case{0, false, 0}, Case{7, false, 0}, Case{0, true, 0},
                            Case{0, false, ERROR_NOT_SUPPORTED}}) {
        SCOPED_TRACE(testing::Message() << way.seed << way.asData << way.refusal);
        ntfs_.chunkSeed = way.seed;
        ntfs_.sparseAsData = way.asData;
        ntfs_.backupRefusal = way.refusal;
        backupcopy copier;
        copier.set_copyOwner(true);
        copier.copy(source(), target());
        EXPECT_TRUE(sameTree(before, imageOf(target())));
        EXPECT_EQ(countOf(copier, CopyLoss::Sparse), way.refusal != 0 ? 0 : 1); // the stream "b"
        EXPECT_EQ(ntfs_.ea(copied(L"streams")), way.refusal != 0 ? "" : "extended");
        for (const wchar_t* name : sparse) {
            if (!way.asData) {
                EXPECT_EQ(ntfs_.allocated(copied(name)), ntfs_.allocated(source() + L"\\" + name))
                    << toUtf8(name);
            }
        }
        clearTarget();
    }
}

TEST_F(BackupFileCopierTest, DescriptorsComeOutAsTheyWere) {
    const wchar_t* const lists[] = {L"D:NO_ACCESS_CONTROL",
                                    L"D:",
                                    L"D:P",
                                    L"D:AI(A;ID;FA;;;BU)",
                                    L"D:PAI(A;;FA;;;BU)(D;;FW;;;WD)",
                                    L"D:(A;;FA;;;BU)",
                                    L"D:AI(A;ID;FA;;;BU)(D;;FW;;;WD)"}; // the last in odd order
    for (std::size_t i = 0; i < std::size(lists); ++i) {
        const std::wstring name = L"panel\\data\\" + std::to_wstring(i);
        ntfs_.setSecurity(temp_.writeFile(name), std::wstring(L"O:BUG:BU") + lists[i]);
        ntfs_.setSecurity(temp_.makeDirectory(name + L" d"), std::wstring(L"O:BUG:BU") + lists[i]);
    }
    for (const DWORD refusal : {DWORD(0), DWORD(ERROR_NOT_SUPPORTED)}) {
        for (const bool owner : {true, false}) {
            ntfs_.backupRefusal = refusal;
            backupcopy copier;
            copier.set_copyOwner(owner);
            copier.copy(source(), target());
            for (std::size_t i = 0; i < std::size(lists); ++i) {
                for (const wchar_t* suffix : {L"", L" d"}) {
                    const std::wstring name = L"\\" + std::to_wstring(i) + suffix;
                    const std::wstring was = ntfs_.security(source() + name);
                    const std::wstring is = ntfs_.security(target() + name);
                    EXPECT_EQ(toUtf8(is.substr(is.find(L"D:"))),
                              toUtf8(was.substr(was.find(L"D:"))));
                    EXPECT_EQ(is.starts_with(L"O:BUG:BU"), owner) << toUtf8(is);
                }
            }
            clearTarget();
        }
    }
}

TEST_F(BackupFileCopierTest, KindsThatAreNotAskedForStayBehind) {
    const std::wstring file = temp_.writeFile(L"panel\\data\\file", "data");
    ntfs_.setStream(file, L"note", "text");
    ntfs_.setEa(file, "extended");
    ntfs_.setSecurity(file, L"O:BUG:BUD:P(A;;FA;;;BU)");
    ntfs_.makeLink(source() + L"\\link", L"C:\\nowhere", IO_REPARSE_TAG_SYMLINK, false);
    for (const StreamType left :
         {StreamType::None, StreamType::Data, StreamType::EAData, StreamType::SecurityData,
          StreamType::AlternateData, StreamType::ReparseData}) {
        SCOPED_TRACE(static_cast<int>(left));
        backupcopy copier;
        copier.set_streams(static_cast<StreamType>(127 & ~static_cast<int>(left)));
        copier.copy(source(), target());
        const std::wstring copy = copied(L"file");
        EXPECT_EQ(temp_.readFile(L"store\\data\\file").empty(), left == StreamType::Data);
        EXPECT_EQ(ntfs_.streams(copy).empty(), left == StreamType::AlternateData);
        EXPECT_EQ(ntfs_.ea(copy).empty(), left == StreamType::EAData);
        EXPECT_EQ(ntfs_.security(copy).find(L"D:P") == std::wstring::npos,
                  left == StreamType::SecurityData);
        EXPECT_EQ(imageOf(target()).contains(L"link"), left != StreamType::ReparseData);
        EXPECT_EQ(countOf(copier, CopyLoss::Link), left == StreamType::ReparseData ? 1 : 0);
        clearTarget();
    }
}

TEST_F(BackupFileCopierTest, LossesAreReportedByKindAndCount) {
    for (const wchar_t* name : {L"1", L"2"}) {
        const std::wstring file = temp_.writeFile(std::wstring(L"panel\\data\\") + name, "data");
        ntfs_.setForeignTag(file, IO_REPARSE_TAG_DEDUP, "chunks");
        ntfs_.setObjectId(file, sampleBytes(64, name[0]));
    }
    temp_.writeFile(L"panel\\outside");
    ::CreateHardLinkW((source() + L"\\linked").c_str(), (temp_ / L"panel\\outside").c_str(),
                      nullptr);
    ntfs_.appended = {{10, 0, L"", "transaction"}};
    backupcopy copier;
    copier.copy(source(), target());
    EXPECT_EQ(countOf(copier, CopyLoss::ReparseTag), 2);
    EXPECT_EQ(countOf(copier, CopyLoss::ObjectId), 2); // both are on one volume
    EXPECT_EQ(countOf(copier, CopyLoss::HardLink), 1);
    EXPECT_EQ(countOf(copier, CopyLoss::TransactionData), 4);
    EXPECT_EQ(copier.get_report().of(CopyLoss::ReparseTag).examples[0],
              source().substr(4) + L"\\1");
    const TreeImage copy = imageOf(target());
    EXPECT_EQ(copy.at(L"1").content, "data");
    EXPECT_EQ(copy.at(L"1").reparse, "");
    EXPECT_EQ(copy.at(L"1").attributes & FILE_ATTRIBUTE_REPARSE_POINT, 0u);
}

TEST_F(BackupFileCopierTest, WhatTheTargetsVolumeCannotKeepIsReported) {
    if (testDrive(L"ZOP_TEST_TMPFS_DRIVE").empty()) {
        GTEST_SKIP() << "needs a second drive";
    }
    const TempDirectory other; // on C:
    ntfs_.setVolumeFlags(L'C', FILE_CASE_PRESERVED_NAMES | FILE_UNICODE_ON_DISK);
    const std::wstring file = temp_.writeFile(L"panel\\data\\file", "data");
    ntfs_.setStream(file, L"note", "text");
    ntfs_.setStream(file, L"other", "text");
    ntfs_.setEa(file, "extended");
    ntfs_.setObjectId(file, sampleBytes(64));
    ntfs_.setSecurity(file, L"O:BUG:BUD:P(A;;FA;;;BU)");
    ntfs_.setFlags(temp_.writeFile(L"panel\\data\\secret"), FILE_ATTRIBUTE_ENCRYPTED);
    ntfs_.makeLink(source() + L"\\link", L"C:\\nowhere", IO_REPARSE_TAG_SYMLINK, false);
    for (const DWORD refusal : {DWORD(0), DWORD(ERROR_NOT_SUPPORTED)}) {
        ntfs_.backupRefusal = refusal;
        backupcopy copier;
        const IgnoredErrors errors(copier);
        copier.copy(source(), other / L"copy");
        EXPECT_EQ(other.list(L"copy"), std::vector<std::wstring>{L"file"});
        EXPECT_EQ(other.readFile(L"copy\\file"), "data");
        EXPECT_TRUE(ntfs_.streams(other / L"copy\\file").empty());
        EXPECT_EQ(errors.messages.size(), 2u); // the link, and what must not get there in clear
        EXPECT_EQ(copier.get_failed().size(), 2u);
        EXPECT_GE(countOf(copier, CopyLoss::AlternateStream), 1);
        EXPECT_EQ(countOf(copier, CopyLoss::Security), 1);
        if (refusal == 0) {
            EXPECT_EQ(countOf(copier, CopyLoss::ExtendedAttributes), 1);
            EXPECT_EQ(countOf(copier, CopyLoss::ObjectId), 1);
        }
        unixRemoveTree(unixPath(other / L"copy"));
    }
}

std::int64_t readLimit;
decltype(&::BackupRead) uncutRead;
BOOL WINAPI cutRead(HANDLE file, LPBYTE buffer, DWORD wanted, LPDWORD got, BOOL abort,
                    BOOL security, LPVOID* context) {
    const BOOL done = uncutRead(file, buffer, wanted, got, abort, security, context);
    if (done && !abort && readLimit >= 0) {
        *got = static_cast<DWORD>(std::min<std::int64_t>(*got, readLimit));
        readLimit -= *got;
    }
    return done;
}

// Streams come from drivers and filters, too.
TEST_F(BackupFileCopierTest, DamagedStreamsAreErrorsOfTheirItem) {
    temp_.writeFile(L"panel\\data\\file", "data");
    SECURITY_DESCRIPTOR_RELATIVE past = {
        SECURITY_DESCRIPTOR_REVISION, 0, SE_SELF_RELATIVE | SE_DACL_PRESENT, 0, 0, 0, 20};
    const ACL list = {ACL_REVISION, 0, 4000, 1, 0};
    std::string security(reinterpret_cast<const char*>(&past), 20);
    security.append(reinterpret_cast<const char*>(&list), sizeof list);
    struct Case {
        const char* name;
        std::vector<BackupStream> appended;
        std::int64_t readLimit;
        DWORD code;
    };
    for (const Case& damage :
         {Case{"unknown kind", {{99, 0, L"", "x"}}, -1, ERROR_INVALID_DATA},
          Case{"kind zero", {{0, 0, L"", ""}}, -1, ERROR_INVALID_DATA},
          Case{"endless name", {{4, 0, std::wstring(40'000, L'n'), "x"}}, -1, ERROR_INVALID_DATA},
          Case{"huge small stream",
               {{2, 0, L"", std::string(2 << 20, 'x')}},
               -1,
               ERROR_INVALID_DATA},
          Case{"security past its end", {{3, 0, L"", security}}, -1, ERROR_INVALID_SECURITY_DESCR},
          Case{"short security", {{3, 0, L"", "x"}}, -1, ERROR_INVALID_SECURITY_DESCR},
          Case{"cut in a header", {}, 10, ERROR_INVALID_DATA},
          Case{"cut in a small stream", {}, 30, ERROR_INVALID_DATA}}) {
        SCOPED_TRACE(damage.name);
        for (const unsigned seed : {0u, 5u}) {
            ImportPatch patch("BackupRead", &cutRead);
            uncutRead = patch.original<decltype(&::BackupRead)>();
            backupcopy copier;
            DWORD code = 0;
            const Hook hook = copier.progressEvent_Name2.hook(
                [&](const std::wstring&, const std::wstring&, bool isFile, std::int64_t, bool&) {
                    if (isFile) { // the directory gets over before
                        ntfs_.appended = damage.appended;
                        readLimit = damage.readLimit;
                        ntfs_.chunkSeed = seed;
                    }
                });
            try {
                copier.copy(source(), target());
            } catch (const vosexception& error) {
                code = error.get_errorCode();
            }
            EXPECT_EQ(code, damage.code);
            EXPECT_FALSE(temp_.has(L"store\\data\\file"));
            ntfs_.appended.clear();
            readLimit = -1;
            ntfs_.chunkSeed = 0;
            clearTarget();
        }
    }
}

TEST_F(BackupFileCopierTest, FullDiskLeavesNoPartOfAFile) {
    temp_.writeFile(L"panel\\data\\file", sampleBytes(2 << 20));
    backupcopy copier;
    const Hook hook = copier.progressEvent_Name2.hook(
        [&](const std::wstring&, const std::wstring&, bool isFile, std::int64_t, bool&) {
            ntfs_.writeLimit = isFile ? (1 << 20) + 100 : -1;
        });
    expectError<vosexception>(ERROR_DISK_FULL, L"Unable to write streams",
                              [&] { copier.copy(source(), target()); });
    EXPECT_TRUE(temp_.has(L"store\\data"));
    EXPECT_FALSE(temp_.has(L"store\\data\\file"));
    EXPECT_EQ(copier.get_failed().size(), 1u);
}

TEST_F(BackupFileCopierTest, FileThatChangesIsCopiedAgainAndOneThatGoesIsAnError) {
    for (const DWORD refusal : {DWORD(0), DWORD(ERROR_NOT_SUPPORTED)}) {
        for (const bool always : {false, true}) {
            ntfs_.backupRefusal = refusal;
            std::string content = sampleBytes((1 << 20) + 100);
            const std::wstring file = temp_.writeFile(L"panel\\data\\file", content);
            bool changed = false;
            backupcopy copier;
            const Hook hook = copier.progressEvent_Bytes.hook([&](std::int64_t, bool&) {
                if (always || !changed) {
                    const RunTime::AutoHandle more(
                        ::CreateFileW(file.c_str(), FILE_APPEND_DATA,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, 0, nullptr));
                    DWORD done = 0;
                    EXPECT_TRUE(::WriteFile(more.get(), "more", 4, &done, nullptr));
                    content += "more";
                    changed = true;
                }
            });
            copier.copy(source(), target());
            EXPECT_TRUE(changed);
            EXPECT_EQ(countOf(copier, CopyLoss::ChangedMeanwhile), always ? 1 : 0);
            EXPECT_EQ(temp_.readFile(L"store\\data\\file") == content, !always);
            clearTarget();
        }
    }
    backupcopy copier;
    const Hook hook = copier.progressEvent_Name2.hook(
        [&](const std::wstring& name, const std::wstring&, bool isFile, std::int64_t, bool&) {
            if (isFile) {
                ::DeleteFileW(name.c_str());
            }
        });
    expectError<VFileNotFoundException>(ERROR_FILE_NOT_FOUND,
                                        L"Unable to open (" + source().substr(4) + L"\\file)",
                                        [&] { copier.copy(source(), target()); });
    EXPECT_TRUE(temp_.list(L"store\\data").empty());
}

// System calls are what a copy of small files takes its time for.
TEST_F(BackupFileCopierTest, PlainFileTakesFewCalls) {
    const auto sum = [](const std::map<std::string, long>& counts) {
        return std::accumulate(counts.begin(), counts.end(), 0L,
                               [](long all, const auto& one) { return all + one.second; });
    };
    long copies[2], removals[2];
    int made = 0;
    for (const int files : {10, 40}) {
        const int round = files == 10 ? 0 : 1;
        for (; made < files; ++made) {
            temp_.writeFile(L"panel\\data\\" + std::to_wstring(made), "data");
        }
        copies[round] = sum(countCalls([&] { backupcopy().copy(source(), target()); }));
        removals[round] = sum(countCalls([&] { backupmove().remove(target()); }));
    }
    const long copy = (copies[1] - copies[0]) / 30, removal = (removals[1] - removals[0]) / 30;
    std::cout << copy << " calls to copy a file, " << removal << " to remove one\n";
    EXPECT_LE(copy, 14);
    EXPECT_LE(removal, 3);
}

} // namespace
