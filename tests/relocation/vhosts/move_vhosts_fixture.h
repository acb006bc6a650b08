// A small panel on C: whose virtual hosts are moved: registry, configuration service, accounts,
// database and utilities.
#pragma once

#include "relocation/vhosts/move_vhosts.h"
#include "tests/panel/in_process.h"
#include "tests/panel/panel.h"
#include "tests/support/account_fake.h"
#include "tests/support/database_fixture.h"
#include "tests/support/local_config_service.h"
#include "tests/support/temp_directory.h"

#include <cstdlib>
#include <optional>
#include <sstream>

class MoveVHostsFixture : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (!database) {
            return;
        }
        service_.emplace();
        panel_.build();
        for (const panel::Account& account : panel_.accounts()) {
            accounts_.state.users[account.login] = {.home = account.home};
        }
    }

    // Everything that a move may change, the accounts included.
    std::string world(const std::vector<std::wstring>& places = {}) {
        std::ostringstream text;
        text << panel_.snapshot(places) << accounts_.state;
        return text.str();
    }

    std::wstring oldPlace() const { return panel_.vhosts(); }
    std::wstring newPlace() const { return directory_.nice() + L"\\store\\new\\vhosts"; }
    // On another volume, where there is one.
    std::wstring otherVolume() const {
        return other_ ? other_->nice() + L"\\new\\vhosts" : newPlace();
    }

    static std::optional<TempDirectory> onOtherVolume() {
        const wchar_t* drive = _wgetenv(L"ZOP_TEST_TMPFS_DRIVE");
        return drive != nullptr ? std::optional<TempDirectory>(std::in_place, drive) : std::nullopt;
    }

    static void WINAPI noPause(DWORD) {}
    ImportPatch noPauses_{"Sleep", &noPause}; // of the retries
    RegistryOverride registry_;
    std::optional<LocalConfigService> service_;
    AccountFake accounts_;
    TempDirectory directory_;
    std::optional<TempDirectory> other_{onOtherVolume()};
    panel::Panel panel_{directory_.nice(), {.domains = 1, .files = 0}};
};
