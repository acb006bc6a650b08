// A hosting of the domain a.example, whose user is d1, with the web user w1: in the panel's
// database, on the disk, and as far as a test wants it in the accounts of the machine.
#pragma once

#include "security/hosting/hosting_template.h"
#include "tests/support/account_fake.h"
#include "tests/support/database_fixture.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/policy_xml.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

class HostedDomainFixture : public DatabaseFixture {
protected:
    HostedDomainFixture() {
        const auto sids = std::make_shared<FakeLookup>();
        for (const wchar_t* name : {L"d1", L"w1", L"pool1", L"ftp_subaccounts"}) {
            const std::size_t number = sids->sids.size() + 1001;
            sids->sids[L"\\" + std::wstring(name)] = L"S-1-5-21-1-2-3-" + std::to_wstring(number);
        }
        lookup_ = HostingSecurity::replaceAccountLookup([sids] { return sids; });
    }
    ~HostedDomainFixture() override { HostingSecurity::replaceAccountLookup(std::move(lookup_)); }

    void SetUp() override {
        DatabaseFixture::SetUp();
        if (!database) {
            return;
        }
        configurePanel();
        for (const wchar_t* table : {L"ftp_users", L"hosting", L"domains", L"sys_users"}) {
            database->execute(std::wstring(L"delete from ") + table);
        }
        database->execute(L"insert into sys_users (id, login, password, home) values "
                          L"(1, 'd1', 'secret d1', ''), (2, 'w1', 'secret w1', ''), "
                          L"(3, 'ftp1', 'x', ''), (4, 'ftp2', 'x', '')");
        database->execute(L"insert into domains values (1, 'a.example', 'vrt_hst')");
        database->execute(L"insert into hosting values (1, 1, '', 'pool1')");
        accounts.state.groups[L"zopcln"];
        temp.makeDirectory(L"data");
        temp.makeDirectory(L"vhosts\\a.example\\webusers");
    }

    void configurePanel() const {
        configure(registry);
        RegistryOverride::setString(L"HTTPD_VHOSTS_D", temp.nice() + L"\\vhosts");
        RegistryOverride::setString(L"PRODUCT_DATA_D", temp.nice() + L"\\data");
    }

    std::wstring root() const { return temp.nice() + L"\\vhosts\\a.example"; }
    std::wstring webRoot() const { return root() + L"\\webusers\\w1"; }

    // Everything is there, and as it should be.
    void makeAccounts() {
        for (const wchar_t* name : {L"d1", L"w1", L"pool1"}) {
            accounts.state.users[name].rdpLogon = false;
            accounts.state.groups[L"zopcln"].members.insert(name);
        }
        accounts.state.groups[L"ftp_subaccounts"].comment = L"Tarvo FTP group";
    }

    NtfsFake ntfs;
    RegistryOverride registry;
    TempDirectory temp;
    AccountFake accounts;

private:
    HostingSecurity::LookupProvider lookup_;
};
