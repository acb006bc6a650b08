// What the tests of the transactional move share: a source tree with one of everything on a file
// system that has everything, and a target beside it.
#pragma once

#include "relocation/backupmove.h"
#include "tests/support/import_patch.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_drive.h"
#include "tests/support/tree_image.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

// Ignores the errors of a walk, a copy or a move, and keeps their messages.
struct IgnoredErrors {
    template <class Source>
    explicit IgnoredErrors(Source& source)
        : hook(source.errorEvent.hook([this](const std::wstring& message, bool& ignore) {
              messages.push_back(message);
              ignore = true;
          })) {}

    std::vector<std::wstring> messages;
    const Hook hook;
};

class MoveFixture : public testing::Test {
protected:
    // Two levels down: a directory right below a drive's root is never set aside.
    std::wstring source() const { return temp_ / L"panel\\data"; }
    std::wstring target() const { return temp_ / L"store\\data"; }

    void SetUp() override {
        temp_.makeDirectory(L"panel");
        temp_.makeDirectory(L"store");
        olderLogs_ = logs();
    }

    void makeRichSource() {
        {
            TreeBuilder builder(source());
            builder.everything();
        }
        ntfs_.setStream(temp_.writeFile(L"panel\\data\\streams.txt", "main"), L"note", "text");
        ntfs_.setStream(source(), L"of the directory", "kept");
        ntfs_.setSecurity(source() + L"\\streams.txt", L"O:BAG:SYD:PAI(A;;FA;;;SY)(A;;FR;;;BU)");
    }

    void makeSmallSource() {
        temp_.writeFile(L"panel\\data\\a.txt", "alpha");
        temp_.writeFile(L"panel\\data\\sub\\b.txt", "beta");
        temp_.makeDirectory(L"panel\\data\\empty");
        ntfs_.setStream(source() + L"\\a.txt", L"note", "text");
    }

    // A target with older things of every kind, some in directories that the source has as well.
    void makeFilledTarget() {
        const std::wstring older = temp_.writeFile(L"store\\data\\older.txt", "older");
        temp_.writeFile(L"store\\data\\sub\\older.bin", "");
        temp_.makeDirectory(L"store\\data\\empty");
        temp_.makeDirectory(L"store\\data\\empty too");
        ntfs_.setStream(older, L"note", "older note");
        ::SetFileAttributesW(older.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN);
        ntfs_.setStream(target(), L"of the directory", "older");
    }

    // Everything below the two places, and the names left in the root of the volume by a log.
    struct World {
        TreeImage source;
        TreeImage store;
        std::string fingerprint; // the same, to be compared first
    };
    std::string fingerprint() {
        return ntfs_.fingerprint(source()) + ntfs_.fingerprint(temp_ / L"store");
    }
    World world() {
        World image{imageOf(source()), imageOf(temp_ / L"store"), fingerprint()};
        image.store[L""].written = 0; // changes with what comes and goes in it
        return image;
    }
    void expectWorld(const World& before) {
        if (fingerprint() !=
            before.fingerprint) { // the images tell what differs, and if it matters
            const World now = world();
            EXPECT_TRUE(sameTree(before.source, now.source));
            EXPECT_TRUE(sameTree(before.store, now.store));
        }
        EXPECT_TRUE(logs().empty()) << "a log was left";
    }
    // Logs in the root of the volume, but for those of runs that were killed.
    std::vector<std::wstring> logs() const {
        std::vector<std::wstring> names;
        WIN32_FIND_DATAW found;
        const std::wstring root = temp_.path().substr(0, 7);
        const HANDLE find =
            ::FindFirstFileW((root + L"{71D2213F-C992-4279-B3B7-EEB2A16870A3}*").c_str(), &found);
        if (find != INVALID_HANDLE_VALUE) {
            do {
                if (std::find(olderLogs_.begin(), olderLogs_.end(), found.cFileName) ==
                    olderLogs_.end()) {
                    names.emplace_back(found.cFileName);
                }
            } while (::FindNextFileW(find, &found));
            ::FindClose(find);
        }
        return names;
    }

    static void WINAPI noPause(DWORD) {}
    ImportPatch noPauses_{"Sleep", &noPause}; // of the retries
    // In memory where there is such a drive: the sweeps make some thousand trees.
    TempDirectory temp_{testDrive(L"ZOP_TEST_TMPFS_DRIVE")};
    NtfsFake ntfs_;
    std::vector<std::wstring> olderLogs_;
};
