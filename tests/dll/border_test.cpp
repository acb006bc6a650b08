// What crosses the border between zopnative.dll and a program with a C++ runtime of its own:
// objects, events, exceptions, memory, threads.
#include "api/data_location.h"
#include "api/exception.h"
#include "api/zop.h"
#include "tests/dll/small_tree.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using zopobsolete::BackupCopyErrorEvent;
using zopobsolete::DataLocation;

} // namespace

TEST(BorderTest, ThePublicExceptionIsCaughtByItsTypeAndByItsBase) {
    DataLocation location;
    for (int round = 0; round < 100; ++round) {
        try {
            location.Change(L"C:\\no such directory", L"C:\\nowhere");
            ADD_FAILURE() << "nothing was thrown";
        } catch (const zopobsolete::Exception& e) {
            const zopobsolete::Exception copy = e;
            EXPECT_NE(copy.message().find(L"Unable to move (C:\\no such directory)"),
                      std::wstring::npos);
            EXPECT_NE(std::string(copy.what()).find("(zopobsolete::DataLocation::Change line "),
                      std::string::npos);
        }
        EXPECT_THROW(location.Change(L"", L""), std::exception);
    }
}

TEST(BorderTest, ListsAndReportsComeOutOfACopy) {
    const SmallTree tree;
    tree.fillTarget();
    std::filesystem::create_directories(tree.target() + L"\\a.txt"); // in the way of a file
    DataLocation location(StreamType::Data | StreamType::SecurityData, true);
    int errors = 0;
    const Hook ignoring = location.ErrorEvent.hook([&](BackupCopyErrorEvent& error) {
        EXPECT_FALSE(error.message.empty());
        error.message.assign(10000, L'x'); // memory of the program in an object of the library
        error.ignore = true;
        ++errors;
    });
    ASSERT_TRUE(location.Change(tree.source(), tree.target()));
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(location.get_Failed().size(), 1U);
    const CopyReport report = location.get_Report();
    EXPECT_FALSE(report.isEmpty());
    EXPECT_GE(report.of(CopyLoss::MergedDirectory).count, 1);
    EXPECT_STRNE(describe(CopyLoss::MergedDirectory), L"");
    location.Rollback();
    EXPECT_TRUE(tree.isWholeAt(tree.source()));
}

TEST(BorderTest, AThrowingListenerFailsTheMoveAndItsTextComesBack) {
    const SmallTree tree;
    tree.fillTarget();
    DataLocation location;
    const std::function<void()> failures[] = {
        [] { throw std::runtime_error("the program's own"); },
        [] { throw zopobsolete::Exception(L"the program's own"); },
    };
    for (const auto& fail : failures) {
        Hook names = location.ProgressEvent_Name.hook(
            [&](const std::wstring&, bool, std::int64_t, bool&) { fail(); });
        try {
            location.Change(tree.source(), tree.target());
            ADD_FAILURE() << "nothing was thrown";
        } catch (const zopobsolete::Exception& e) {
            EXPECT_TRUE(e.message().starts_with(L"the program's own\n")) << e.what();
        }
        names.unhook();
        location.Rollback();
    }
    EXPECT_TRUE(tree.isWholeAt(tree.source()));
    EXPECT_FALSE(tree.isWholeAt(tree.target()));
}

// Each side has its own copy of the threading library. Every thread has an object of its own; log,
// privileges and the root of the volume are shared. A cancelled move that is committed all the same
// is logged as an error.
TEST(BorderTest, ThreadsMoveAtTheSameTimeWithObjectsOfTheirOwn) {
    std::atomic<int> done{0};
    const auto work = [&](int t) {
        for (int round = 0; round < 5; ++round) {
            const bool cancels = (t + round) % 2 == 0;
            const SmallTree tree;
            if (t % 4 < 2) {
                tree.fillTarget();
            }
            DataLocation location;
            const Hook names = location.ProgressEvent_Name.hook(
                [&](const std::wstring&, bool, std::int64_t, bool& cancel) { cancel = cancels; });
            EXPECT_EQ(location.Change(tree.source(), tree.target()), !cancels);
            if (cancels) {
                EXPECT_THROW(location.Commit(), zopobsolete::Exception);
                location.Rollback();
            } else {
                location.Commit();
            }
            EXPECT_TRUE(tree.isWholeAt(cancels ? tree.source() : tree.target()));
            EXPECT_FALSE(tree.isWholeAt(cancels ? tree.target() : tree.source()));
            ++done;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&work, t] {
            try {
                work(t);
            } catch (const std::exception& e) {
                ADD_FAILURE() << e.what();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(done, 30);
}

// No configuration service answers here. What fails without the frame around it comes out as the
// public exception, too.
TEST(BorderTest, TheConfigurationClassWorksAndFailsAsAPublicClass) {
    zopobsolete::zop& panel = zopobsolete::zop::getInstance();
    EXPECT_EQ(&panel, &zopobsolete::zop::getInstance());
    EXPECT_EQ(panel.getUserNameWithoutDomain(L"DOMAIN\\" + std::wstring(1000, L'u')),
              std::wstring(1000, L'u'));
    const std::pair<std::function<void()>, const wchar_t*> failures[] = {
        {[&] { panel.get_Item(L"name"); }, L"Unable to call getString(name)\n"},
        {[&] { panel.get_isVPS(); }, L"Unable to call isVE()\n"},
        {[&] { panel.execBinUtil(L"tool.exe", {L"a"}); }, L"lookup subKey="},
    };
    for (const auto& [call, text] : failures) {
        try {
            call();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const zopobsolete::Exception& e) {
            EXPECT_TRUE(e.message().starts_with(text)) << e.what();
        }
    }
}

// Goes when the program's own statics go, while the library is still there.
TEST(BorderTest, AnObjectMayLiveToTheEndOfTheProcess) {
    static DataLocation location(StreamType::Data);
    static const Hook names =
        location.ProgressEvent_Name.hook([](const std::wstring&, bool, std::int64_t, bool&) {});
    EXPECT_EQ(location.get_CopyStreams(), StreamType::Data);
}
