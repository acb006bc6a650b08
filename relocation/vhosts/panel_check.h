// What of the panel takes part in a move of the virtual hosts, as the preflight sees it: whether
// its parts are there and answer, and what in them names the directory. Asks only, changes nothing.
#pragma once

#include "relocation/move_findings.h"
#include "relocation/vhosts/multiple_key_value_change.h"
#include "relocation/vhosts/vhosts_preflight.h"

#include <string>
#include <vector>

class ZOPDatabase;

class PanelCheck : MoveFindings {
public:
    // The result must outlive the object.
    explicit PanelCheck(VHostsPreflight::Result& result) : MoveFindings(result), result_(result) {}

    // The directory that the configuration names; empty where there is none, or the service does
    // not answer. given: the source that the user named; empty for none.
    std::wstring readConfiguredPlace(const std::wstring& given);
    void checkPrograms();
    // Accounts and document roots.
    void checkDatabase(const std::wstring& source);
    // After checkPrograms and checkDatabase, without which there is no list of sites.
    void checkSites(const std::wstring& source);
    // The installer's values, and what else names the source.
    void checkInstaller(const std::wstring& source);
    void checkWebmail(const std::wstring& source, const std::wstring& target);
    // After checkDatabase.
    void checkVolumes(const std::wstring& source, const std::wstring& target);

private:
    struct Account;
    struct Place;

    void checkAccounts(ZOPDatabase& database, const Place& place);
    void checkUsers(const std::vector<Account>& accounts);
    void checkWwwRoots(ZOPDatabase& database, const Place& place);
    void checkReferences(const std::wstring& source, const InstallerPaths& covered);

    VHostsPreflight::Result& result_;
    bool canListSites_ = true;
};
