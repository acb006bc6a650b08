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

    // Calls rounds(renames, to, before) for each of the two ways in which a tree moves: by copy to
    // another volume, and, with accounts that Windows does not know, so that no home is copied
    // first, by a rename.
    template <class Rounds>
    void forEachWay(Rounds&& rounds) {
        const AccountFake::State accounts = accounts_.state;
        for (const bool renames : {false, true}) {
            SCOPED_TRACE(renames ? "rename" : "copy");
            if (renames) {
                accounts_.state.users.clear();
            }
            const std::wstring to = renames ? newPlace() : otherVolume();
            rounds(renames, to, world({to}));
        }
        accounts_.state = accounts;
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
