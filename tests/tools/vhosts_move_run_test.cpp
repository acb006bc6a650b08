// The real program moves the virtual hosts of a stand-in panel, whose utilities are processes, too.
#include "tests/panel/panel.h"

#include "runtime/auto_handle.h"
#include "runtime/files/file.h"
#include "runtime/process/execute.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "tests/support/child_program.h"
#include "tests/support/local_config_service.h"
#include "tests/support/temp_directory.h"
#include "tests/support/tree_image.h"
#include "tests/support/unix_call.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <thread>

namespace {

// The program uses the machine's registry: not where a panel keeps its values there.
class VhostsMoveRunTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* drive = std::getenv("ZOP_TEST_TMPFS_DRIVE");
        if (!underWine() || drive == nullptr || std::getenv("ZOP_TEST_DB_PORT") == nullptr) {
            GTEST_SKIP() << "no accounts, drive or database: run by scripts/sandbox.sh --database";
        }
        if (registry::keyExists(HKEY_LOCAL_MACHINE, config::configKey, RegistryView::View32)) {
            GTEST_SKIP() << "this machine has a configuration";
        }
        directory_.emplace();
        other_.emplace(toWide(drive));
        // Found again on the command line of the process, and by nobody else's test.
        LARGE_INTEGER now;
        ::QueryPerformanceCounter(&now);
        target_ = other_->nice() + L"\\hosting " + std::to_wstring(now.QuadPart) + L"\\vhosts";
        panel_.emplace(directory_->nice(), panel::Options{.domains = 3, .files = 3});
        panel_->build();
        program_ = panel_->install(L"zopctl.exe");
        service_.emplace();
        before_ = panel_->snapshot({target_});
    }
    void TearDown() override {
        service_.reset();
        if (panel_) {
            panel::Panel::removeRegistry();
        }
    }

    RunTime::Execute::Result move(const std::vector<std::wstring>& options) const {
        std::vector<std::wstring> words = {L"vhosts", L"move", target_};
        words.insert(words.end(), options.begin(), options.end());
        return run(words);
    }
    RunTime::Execute::Result run(const std::vector<std::wstring>& words) const {
        RunTime::Execute execute(program_, words);
        execute.timeout = std::chrono::minutes(5);
        const auto run = [&] { return startingAgain([&] { return execute.run(); }); };
        RunTime::Execute::Result result = run();
        for (int attempt = 0; attempt < 2 && couldNotStart(result); ++attempt) {
            panel_->store().forgetCalls();
            result = run();
        }
        return result;
    }
    // Whether a utility could not even be started, for a reason of Wine's own (scripts/wine.sh),
    // and the failed move has been undone as any other is, or the recovery has kept its record.
    bool couldNotStart(const RunTime::Execute::Result& result) const {
        wchar_t text[256] = L"";
        ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                         ERROR_INTERNAL_ERROR, 0, text, 256, nullptr);
        const std::wstring reason(text, std::wcscspn(text, L"\r\n"));
        const std::wstring all = result.output + result.errors;
        const std::size_t begin = std::min(all.find(L"Unable to execute ("), all.size());
        const std::wstring line = all.substr(begin, all.find(L'\n', begin) - begin);
        return underWine() && !reason.empty() && line.find(reason) != std::wstring::npos &&
               (result.exitStatus == 4 ? before_ == panel_->snapshot({target_})
                                       : result.exitStatus == 6 && hasRecord());
    }
    bool hasRecord() const {
        return RunTime::exists(panel_->productRoot() + L"\\var\\vhosts-move\\running");
    }
    void expectNothingChanged() const { EXPECT_EQ(before_, panel_->snapshot({target_})); }

    std::optional<TempDirectory> directory_;
    std::optional<TempDirectory> other_;
    std::optional<panel::Panel> panel_;
    std::optional<LocalConfigService> service_;
    std::wstring target_;
    std::wstring program_;
    std::string before_;
};

} // namespace

TEST_F(VhostsMoveRunTest, EverythingThatNamedTheOldPlaceNamesTheNewOne) {
    const std::string named = panel_->references(panel_->vhosts());
    TreeImage tree = imageOf(panel_->vhosts());
    const auto moved = move({L"--yes", L"--json"});
    EXPECT_EQ(moved.exitStatus, 0U) << toUtf8(moved.output + moved.errors);
    std::istringstream events(toUtf8(moved.output));
    for (std::string event; std::getline(events, event);) {
        EXPECT_TRUE(nlohmann::json::parse(event).contains("event"));
    }

    // What does not follow: expandable values of the registry, sites of domains without hosting.
    const std::string left = panel_->references(panel_->vhosts());
    std::istringstream lines(left);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.find("Expandable") != line.npos || line.starts_with("iis | O'brien3"))
            << line;
    }
    const std::string now = panel_->references(target_);
    EXPECT_EQ(std::count(now.begin(), now.end(), '\n') + std::count(left.begin(), left.end(), '\n'),
              std::count(named.begin(), named.end(), '\n'))
        << now;
    EXPECT_FALSE(directory_->has(L"vhosts"));

    TreeImage image = imageOf(target_);
    const std::wstring webmail = L"webmail\\atmail\\libs\\Atmail\\config.php";
    EXPECT_EQ(image[webmail].content,
              "<?php\n$root = '" + toUtf8(target_) + "\\webmail';\n$log = \"" + toUtf8(target_) +
                  "\\webmail\\log\";\n$other = '" + toUtf8(panel_->elsewhere()) + "';\n");
    for (const std::wstring& changed : {webmail, std::wstring(L"Servers\\users.txt")}) {
        tree.erase(changed);
        image.erase(changed);
    }
    for (const std::wstring& around : {std::wstring(), std::wstring(L"Servers"),
                                       std::wstring(L"webmail\\atmail\\libs\\Atmail")}) {
        tree[around].written = image[around].written = 0;
    }
    EXPECT_TRUE(sameTree(tree, image));
}

TEST_F(VhostsMoveRunTest, ATrialChangesNothing) {
    const auto tried = move({L"--dry-run"});
    EXPECT_EQ(tried.exitStatus, 0U) << toUtf8(tried.output + tried.errors);
    EXPECT_NE(tried.output.find(target_), std::wstring::npos) << toUtf8(tried.output);
    expectNothingChanged();
    for (const panel::Words& call : panel_->store().calls()) {
        EXPECT_EQ(call.back(), L"--get-sites-root-path"); // which only asks
    }
}

TEST_F(VhostsMoveRunTest, AUtilityThatFailsAtTheEndLeavesNothingChanged) {
    panel_->store().setControl(
        {{L"print", L"1", L"--repair-all-webspaces-security", L"3000000"},
         {L"half", L"1", L"--reconfigure-ftp-sites", L"255", L"the site is locked"}});
    const auto failed = move({L"--yes"});
    EXPECT_EQ(failed.exitStatus, 4U)
        << toUtf8(failed.output.substr(0, 5000) + failed.errors.substr(0, 5000));
    EXPECT_NE(failed.errors.find(L"the site is locked"), std::wstring::npos);
    expectNothingChanged();
}

TEST_F(VhostsMoveRunTest, CtrlCDuringAUtilityLeavesNothingChanged) {
    const std::wstring name = L"zop-hangs-" + std::to_wstring(::GetCurrentProcessId());
    const RunTime::AutoHandle hangs(::CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    panel_->store().setControl({{L"hang", L"2", L"relink_tool.exe --update-site-paths", name}});
    RunTime::Execute::Result cancelled;
    {
        const std::jthread run([&] { cancelled = move({L"--yes"}); });
        EXPECT_EQ(::WaitForSingleObject(hangs.get(), 120'000), WAIT_OBJECT_0);
        pressCtrlC(toUtf8(target_) + '\0' + "--yes");
    }
    EXPECT_EQ(cancelled.exitStatus, 5U) << toUtf8(cancelled.output + cancelled.errors);
    expectNothingChanged();
}

// The system ends the program in the middle; the next ones say so, and put everything back.
TEST_F(VhostsMoveRunTest, AMoveThatWasKilledIsRecovered) {
    const std::wstring name = L"zop-hangs-" + std::to_wstring(::GetCurrentProcessId());
    const RunTime::AutoHandle hangs(::CreateEventW(nullptr, TRUE, FALSE, name.c_str()));
    panel_->store().setControl({{L"hang", L"2", L"relink_tool.exe --update-site-paths", name}});
    {
        const std::jthread killed([this] { move({L"--yes"}); });
        EXPECT_EQ(::WaitForSingleObject(hangs.get(), 120'000), WAIT_OBJECT_0);
        const auto during = run({L"vhosts", L"recover", L"--yes"});
        EXPECT_EQ(during.exitStatus, 3U) << toUtf8(during.output + during.errors);
        killProcess(toUtf8(target_) + '\0' + "--yes");
    }
    panel_->store().setControl({});

    const auto refused = move({L"--yes", L"--json"});
    EXPECT_EQ(refused.exitStatus, 3U) << toUtf8(refused.output + refused.errors);
    EXPECT_NE(refused.output.find(L"interrupted-move"), std::wstring::npos);
    const std::string halfway = panel_->snapshot({target_});
    const auto shown = run({L"vhosts", L"recover", L"--dry-run", L"--json"});
    EXPECT_EQ(shown.exitStatus, 0U) << toUtf8(shown.output + shown.errors);
    EXPECT_NE(shown.output.find(L"\"way\":\"put-back\""), std::wstring::npos);
    EXPECT_EQ(halfway, panel_->snapshot({target_}));
    const auto recovered = run({L"vhosts", L"recover", L"--yes"});
    EXPECT_EQ(recovered.exitStatus, 7U) << toUtf8(recovered.output + recovered.errors);
    EXPECT_NE(recovered.output.find(L"Left:  \"" + target_ + L"\""), std::wstring::npos)
        << toUtf8(recovered.output);
    // But for the copy, and the log of it in the root of its drive.
    const auto withoutCopy = [this](const std::string& world) {
        return world.substr(0, world.find("\n[" + toUtf8(target_)));
    };
    EXPECT_EQ(withoutCopy(before_), withoutCopy(panel_->snapshot({target_})));
    const auto again = run({L"vhosts", L"recover", L"--yes"});
    EXPECT_EQ(again.exitStatus, 0U);
    EXPECT_NE(again.output.find(L"nothing to recover"), std::wstring::npos);
}
