// A panel to move: a directory of virtual hosts with all that names it. Domains, accounts and sites
// follow from a seed, so the same options make the same panel.
//
//     const TempDirectory directory;
//     panel::Panel panel(directory.nice(), {.domains = 3});
//     panel.build();
//     const std::string before = panel.snapshot();
//     ...
//     EXPECT_EQ(before, panel.snapshot());
//
// In the base directory it makes
//
//     panel\      the product: stand-ins for its utilities (tests/panel/utilities.cpp), its script
//     vhosts\     what is moved: a directory for each domain, "webmail", "Servers"
//     elsewhere\  sites that lie outside of it
//
// It also makes the configuration values, the installer's registry values, and, with the server of
// scripts/sandbox.sh --database, the rows of the panel's tables; all are those of whatever
// HKEY_LOCAL_MACHINE is for this process. One panel at a time.
#pragma once

#include "tests/panel/store.h"

#include <cstdint>
#include <string>
#include <vector>

namespace panel {

struct Options {
    int domains = 300;
    int files = 8; // of a domain, besides those that every domain has
    unsigned seed = 1;
    bool links = false;   // to a directory beside them, and to nowhere
    bool streams = false; // where the file system has them
};

struct Account {
    std::wstring login;
    std::wstring home;
    std::uint64_t quota; // bytes; 0: none
    std::wstring domain;
};

class Panel {
public:
    // base  an existing directory, as people see it
    explicit Panel(const std::wstring& base, const Options& options = {});

    // Nothing of a panel may be in the base directory yet.
    void build() const;
    // Gives the accounts to the stand-in for the system's (tests/panel/netapi32), and puts one of
    // the project's programs where it uses that; the path it has there is returned. Under Wine.
    std::wstring install(const wchar_t* program) const;
    // Takes the registry's part away. Files are left to the owner of the base directory.
    static void removeRegistry();

    const std::wstring& base() const noexcept { return base_; }
    std::wstring productRoot() const { return base_ + L"\\panel"; }
    std::wstring vhosts() const { return base_ + L"\\vhosts"; }
    std::wstring elsewhere() const { return base_ + L"\\elsewhere"; }
    Store store() const { return Store(productRoot()); }
    // The accounts that are in the database, for the system that is to have them as well.
    const std::vector<Account>& accounts() const noexcept { return accounts_; }

    // All that a move may change, a line each: what the panel's own directories and these places
    // hold, the roots of their drives, the registry, the tables, and what the utilities keep. Left
    // out: their calls, the panel's marks of what it has synchronised, and the times of directories
    // in which utilities make files.
    std::string snapshot(const std::vector<std::wstring>& places = {}) const;
    // Its lines without those of files: quicker by far.
    std::string statements() const;
    // The statements that name this place or something below it.
    std::string references(const std::wstring& place) const;

private:
    struct Domain {
        std::wstring name;
        std::wstring directory; // below the directory of virtual hosts
        std::wstring www;
        bool hosted;
    };

    void makeTree() const;
    void makeProduct() const;
    void makeRegistry() const;
    void fillDatabase() const;
    std::vector<Setting> settings() const;

    std::wstring base_;
    Options options_;
    std::vector<Domain> domains_;
    std::vector<Account> accounts_;
};

} // namespace panel
