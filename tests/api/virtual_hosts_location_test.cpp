#include "api/virtual_hosts_location.h"

#include "api/exception.h"
#include "runtime/files/file.h"
#include "runtime/log_manager.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "tests/api/public_failure.h"
#include "tests/panel/panel.h"
#include "tests/relocation/vhosts/move_vhosts_fixture.h"
#include "tests/support/tree_image.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

using zopobsolete::BackupCopyErrorEvent;
using zopobsolete::VirtualHostsLocation;

// With the utilities as programs.
class VirtualHostsLocationTest : public MoveVHostsFixture {};

} // namespace

TEST_F(VirtualHostsLocationTest, ChangesAndCommitsByTheRealUtilities) {
    const TreeImage tree = imageOf(oldPlace());
    VirtualHostsLocation location(StreamType::None, true);
    EXPECT_EQ(StreamType::All, location.get_CopyStreams());
    location.set_CopyStreams(static_cast<StreamType>(0x100 | 9));
    EXPECT_EQ(static_cast<StreamType>(9), location.get_CopyStreams());
    location.set_CopyStreams(StreamType::All);
    std::vector<std::int32_t> steps;
    std::int64_t bytes = 0;
    const Hook hooks[] = {
        location.StepEvent.hook(
            [&](std::int32_t number, const std::wstring&) { steps.push_back(number); }),
        location.ProgressEvent_Name.hook(
            [&](const std::wstring&, std::int64_t, std::int32_t, std::int64_t itemSize, bool&) {
                bytes += std::max<std::int64_t>(itemSize, 0);
            }),
    };
    EXPECT_FALSE(location.Change(otherVolume()));
    EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
    EXPECT_EQ(17, steps.back());
    EXPECT_GT(bytes, 1000);
    EXPECT_FALSE(location.Commit());
    EXPECT_FALSE(RunTime::exists(oldPlace()));
    EXPECT_EQ(tree.size(), imageOf(otherVolume()).size());
    EXPECT_TRUE(location.get_Failed().empty() && location.get_LeftBehind().empty());
    location.Dispose();
    EXPECT_TRUE(failureOf([&] { location.Rollback(); }).starts_with("The virtual hosts location"));
}

// After a listener's own error, after a cancel, and after an item that failed and was ignored.
TEST_F(VirtualHostsLocationTest, RollbackRestoresWhateverEndedTheChange) {
    const panel::InProcess utilities;
    const auto setDebug = [](DWORD value) {
        registry::setDWORD(HKEY_LOCAL_MACHINE, config::configKey, config::name::debug, value,
                           RegistryView::View32);
    };
    setDebug(0);
    const std::wstring to = otherVolume();
    const std::string before = world({to});
    VirtualHostsLocation location;
    enum { Throw, Cancel, Fail } way = Throw;
    const Hook hooks[] = {
        location.SubProgressEvent_Start.hook([&](bool& cancel) {
            if (way == Throw) {
                throw std::runtime_error("the listener's");
            }
            cancel = way == Cancel; // not heard by a rollback
            if (way == Fail) {      // in the way of a file of the home
                std::filesystem::create_directories(to + L"\\Shop1.example\\www");
                std::ofstream(std::filesystem::path(to + L"\\Shop1.example\\www\\index.html"));
            }
        }),
        location.IgnorebleErrorEvent.hook([](BackupCopyErrorEvent& error) { error.ignore = true; }),
    };
    const auto change = [&] { location.Change(oldPlace(), to); };
    std::wstring logged;
    const auto listener =
        LogManager::getInstance().addListener([&](LogType, const std::wstring& line) {
            logged = line.starts_with(L"the listener's") ? line : logged;
        });
    std::string text;
    for (const DWORD debug : {1, 0}) { // 1: with the whole text in the log
        logged.clear();
        setDebug(debug);
        text = failureOf(change);
        EXPECT_TRUE(text.starts_with("the listener's")) << text;
        EXPECT_TRUE(text.find("\n   at (zopobsolete::VirtualHostsLocation::Change line ") !=
                    text.npos);
        EXPECT_FALSE(logged.empty());
        EXPECT_EQ(debug != 0, logged.find(L"_StartHandler line ") != logged.npos);
        EXPECT_FALSE(location.get_Canceled());
        EXPECT_FALSE(location.Rollback());
    }
    EXPECT_EQ(before, world({to}));

    way = Cancel;
    text = failureOf(change);
    EXPECT_TRUE(text.starts_with("Canceled!")) << text;
    EXPECT_TRUE(location.get_Canceled() && location.get_Failed().empty());
    EXPECT_FALSE(location.Rollback());
    EXPECT_EQ(before, world({to}));

    way = Fail;
    EXPECT_EQ("no failure", failureOf(change));
    EXPECT_EQ(std::vector<std::wstring>{oldPlace() + L"\\Shop1.example\\www\\index.html"},
              location.get_Failed());
    EXPECT_FALSE(location.get_Canceled());
    EXPECT_FALSE(location.Rollback());
}
