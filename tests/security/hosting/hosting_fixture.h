// A directory of virtual hosts with one hosting, on a file system that keeps permissions, and
// accounts for its template.
#pragma once

#include "security/hosting/security_manager.h"
#include "security/hosting/undo.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/policy_xml.h"
#include "tests/support/registry_override.h"
#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace HostingSecurity {

class Recorder : public ICommitCallback {
public:
    void onItem(const std::wstring& path) override { items.push_back(path); }
    void onSecurityException(const std::wstring& path, const std::wstring& text) override {
        differences[path] = text;
    }
    void onError(const std::wstring& path, const vexception& error) override {
        errors[path] = error.message();
    }

    std::vector<std::wstring> items;
    std::map<std::wstring, std::wstring> differences;
    std::map<std::wstring, std::wstring> errors;
};

class HostingFixture : public ::testing::Test {
protected:
    HostingFixture() {
        RegistryOverride::setString(L"HTTPD_VHOSTS_D", place / L"vhosts");
        RegistryOverride::setString(L"PRODUCT_DATA_D", place / L"data");
        place.makeDirectory(L"data");
        root = place.makeDirectory(L"vhosts\\d1");
        const auto accounts = std::make_shared<FakeLookup>();
        accounts->sids = {{L"\\d1", L"S-1-5-21-1-2-3-1001"},
                          {L"\\p1", L"S-1-5-21-1-2-3-1002"},
                          {L"\\w1", L"S-1-5-21-1-2-3-1003"},
                          {L"\\ftp_subaccounts", L"S-1-5-21-1-2-3-1004"}};
        before_ = replaceAccountLookup([accounts] { return accounts; });
    }
    ~HostingFixture() override { replaceAccountLookup(std::move(before_)); }

    std::unique_ptr<SecurityManager> manager(const std::string& xml = {}) {
        auto made = std::make_unique<SecurityManager>(root);
        made->setHosting(HostingKind::Domain, {.user = L"d1", .parent = L"", .poolUser = L"p1"});
        if (!xml.empty()) {
            const std::wstring name = L"template" + std::to_wstring(++templates_) + L".xml";
            made->loadFromFile(place.writeFile(name, xml));
        }
        return made;
    }
    std::wstring at(const std::wstring& relative) const {
        return relative.empty() ? root : root + L"\\" + relative;
    }
    static std::wstring nice(const std::wstring& path) { return path.substr(4); }

    RegistryOverride registry;
    NtfsFake ntfs;
    TempDirectory place{memoryDrive()};
    std::wstring root;

private:
    // Undo files are flushed to the disk, which takes its time where there is one.
    static std::wstring memoryDrive() {
        wchar_t drive[8] = {};
        ::GetEnvironmentVariableW(L"ZOP_TEST_TMPFS_DRIVE", drive, 8);
        return drive;
    }

    LookupProvider before_;
    int templates_ = 0;
};

} // namespace HostingSecurity
