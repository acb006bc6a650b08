#include "relocation/vhosts/panel_check.h"

#include "config/config_service_exception.h"
#include "config/tarvo_srv_client.h"
#include "relocation/place_check.h"
#include "relocation/vhosts/move_vhosts.h"
#include "relocation/vhosts/old_path.h"
#include "relocation/vhosts/place_text.h"
#include "relocation/vhosts/stray_references.h"
#include "relocation/vhosts/tarvo_iis_sites.h"
#include "runtime/accounts/user_information.h"
#include "runtime/database/zop_database.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/files/volume_kind.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>

namespace {

using RunTime::combine;
using RunTime::nicePath;
using Special = TreeContents::Special;

constexpr wchar_t panelKey[] = L"SOFTWARE\\Tarvo";
constexpr wchar_t environmentKey[] =
    L"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\Environment";

// What a move runs, below the product's root.
struct Program {
    const wchar_t* path;
    const wchar_t* use;
};
constexpr Program programs[] = {
    {L"admin\\bin64\\ftphostctl.exe", L"FTP sites are taken down with it"},
    {L"admin\\bin64\\webhostctl.exe", L"IIS sites are listed and changed with it"},
    {L"admin\\bin\\relink_tool.exe", L"sites and their settings are changed with it"},
    {L"admin\\bin64\\php.exe", L"the panel's scripts are run with it"},
    {L"admin\\modlib\\cu\\repair.php", L"permissions and FTP sites are repaired with it"},
};

std::wstring productRoot() {
    std::wstring root;
    const LSTATUS status = registry::lookup(HKEY_LOCAL_MACHINE, config::configKey,
                                            config::name::productRoot, root, RegistryView::View32);
    return status == ERROR_SUCCESS ? root : std::wstring();
}

void note(Special& special, const std::wstring& text) {
    if (++special.count <= static_cast<std::int64_t>(TreeContents::maxExamples)) {
        special.examples.push_back(text);
    }
}

// Links are not followed: a home that is one stays where it is.
bool isDirectory(const std::wstring& path) {
    try {
        return RunTime::isDirectory(path);
    } catch (const vexception&) {
        return false;
    }
}

} // namespace

struct PanelCheck::Account {
    std::wstring login;
    bool hasHome; // in the directory
    bool isHomeOnDisk;
};

struct PanelCheck::Place {
    OldPath old;
    PlaceText text;
};

std::wstring PanelCheck::readConfiguredPlace(const std::wstring& given) {
    std::wstring configured;
    try {
        configured = TarvoSrvClient::getInstance().getString(config::name::vhosts);
    } catch (const ConfigServiceException& e) {
        if (e.status() != ConfigServiceException::noSuchValue) {
            refuse("no-config-service",
                   L"The configuration service does not answer: " + e.cause() + L".",
                   L"Start it, and start this again: sc start zopconfigsvc");
            return {};
        }
    }
    if (configured.empty()) {
        // What a rollback could not set back must not be overwritten.
        refuse("not-configured",
               L"The configuration does not say where the virtual hosts are: HTTPD_VHOSTS_D is "
               L"not set.",
               L"Set it to the place where they are now: zopctl config set HTTPD_VHOSTS_D "
               L"\"C:\\...\"");
    } else if (!given.empty() && !RunTime::equalNames(nicePath(given), nicePath(configured)) &&
               !(isThere(given) && RunTime::theSameDirectory(given, configured))) {
        warn("other-than-configured",
             L"The configuration names " + quoted(configured) + L", not the source " +
                 quoted(given) +
                 L". After the move it names the target; installer values are rewritten where "
                 L"they name " +
                 quoted(configured) + L".",
             L"Leave out --source to move " + quoted(configured) + L".");
    }
    return configured;
}

void PanelCheck::checkPrograms() {
    const std::wstring root = productRoot();
    if (root.empty()) {
        canListSites_ = false;
        return refuse("no-product-root",
                      L"The configuration does not say where the panel is: PRODUCT_ROOT_D is not "
                      L"set.",
                      L"Set it to the panel's directory: zopctl config set PRODUCT_ROOT_D "
                      L"\"C:\\...\"");
    }
    for (const Program& program : programs) {
        const std::wstring path = combine(root, program.path);
        if (!isThere(path)) {
            canListSites_ = false;
            refuse("missing-program",
                   L"The panel's program " + quoted(path) + L" is not there; " + program.use + L".",
                   L"Repair the panel's installation, or correct PRODUCT_ROOT_D, which is " +
                       quoted(root) + L".");
        }
    }
}

void PanelCheck::checkDatabase(const std::wstring& source) {
    const Place place{source, PlaceText(source)}; // its failure is not one of the database
    try {
        ZOPDatabase database = ZOPDatabase::connect();
        checkAccounts(database, place);
        checkWwwRoots(database, place);
        // The others that the move reads or writes.
        database.enumDomains();
        database.database().query(L"SELECT `serviceNodeId`, `section`, `name` FROM "
                                  L"`ServiceNodeEnvironment` LIMIT 1");
    } catch (const VDatabase::ConnectException& e) {
        canListSites_ = false;
        refuse("no-database", L"The panel's database cannot be reached: " + e.message() + L".",
               L"Start the database server, or correct the values MySQLHost, MySQLPort, "
               L"MySQLLogin and MySQLPassword.");
    } catch (const VDatabase::StatementException& e) {
        canListSites_ = false;
        refuse("bad-database", L"The panel's database is not as expected: " + e.message() + L".",
               L"Check that MySQLDatabase names the panel's database, and repair it.");
    } catch (const CanceledException&) {
        throw;
    } catch (const vexception& e) {
        canListSites_ = false;
        refuse("no-database", L"The panel's database cannot be read: " + e.message() + L".",
               L"Check the values MySQL... of the configuration.");
    }
}

void PanelCheck::checkAccounts(ZOPDatabase& database, const Place& place) {
    Special missingHomes;
    std::vector<Account> accounts;
    const auto rows = database.enumUsers();
    while (rows->next()) {
        ThreadCancelation::check();
        const std::wstring login = rows->text(L"login").value_or(L"");
        const std::wstring home = rows->text(L"home").value_or(L"");
        const bool inside = place.old.isNamedBy(home);
        accounts.push_back({login, inside, inside && isDirectory(home)});
        result_.quotas += inside && rows->text(L"quota").value_or(L"0") != L"0";
        if (inside && !isThere(home)) {
            note(missingHomes, login + L": " + home);
        }
    }
    checkUsers(accounts);
    if (missingHomes.count != 0) {
        warn("missing-homes",
             L"Homes of accounts that do not exist on disk: " + number(missingHomes.count) + L" " +
                 exampleText(missingHomes) +
                 L". The accounts and the database are changed, and nothing is moved.");
    }
}

void PanelCheck::checkUsers(const std::vector<Account>& accounts) {
    Special missing;
    try {
        const auto information = UserManagement::UserInformation::createInstance();
        for (const Account& account : accounts) {
            ThreadCancelation::check();
            if (!information->userExists(account.login)) {
                note(missing, account.login);
                continue;
            }
            result_.homes += account.hasHome;
            result_.homesOnDisk += account.isHomeOnDisk;
        }
    } catch (const vosexception& e) {
        return refuse("no-accounts",
                      L"The accounts of Windows cannot be looked up: " + e.message() + L".",
                      L"Check that the domain controller answers, where accounts are in a "
                      L"domain.");
    }
    if (missing.count != 0) {
        warn("missing-users",
             L"Accounts of the panel that do not exist in Windows: " + number(missing.count) +
                 L" " + exampleText(missing) + L". Their homes are not changed in the database.",
             L"Create or remove them in the panel before the move.");
    }
}

void PanelCheck::checkWwwRoots(ZOPDatabase& database, const Place& place) {
    Special unmatched;
    const auto rows = database.enumHostings();
    while (rows->next()) {
        const std::wstring root = rows->text(L"www_root").value_or(L"");
        std::wstring windows = root;
        std::replace(windows.begin(), windows.end(), L'/', L'\\');
        if (place.old.isNamedBy(windows)) {
            ++result_.wwwRoots;
        } else if (place.text.isIn(root)) {
            note(unmatched, L"domain " + rows->text(L"dom_id").value_or(L"?") + L": " + root);
        }
    }
    if (unmatched.count != 0) {
        warn("unmatched-roots",
             L"Document roots that name the old place and are no path in it: " +
                 number(unmatched.count) + L" " + exampleText(unmatched) +
                 L". They are not changed.",
             L"Correct them in the panel before the move.");
    }
}

void PanelCheck::checkSites(const std::wstring& source) {
    if (!canListSites_) {
        return; // what is missing has been told
    }
    try {
        TarvoIIsSites sites;
        sites.getSites(source);
        result_.sites = static_cast<std::int64_t>(sites.get_sites().size());
    } catch (const CanceledException&) {
        throw;
    } catch (const vexception& e) {
        refuse("no-sites", L"The IIS sites cannot be listed: " + e.message() + L".",
               L"See what \"" + combine(productRoot(), programs[1].path) +
                   L"\" --get-sites-root-path says.");
    }
}

void PanelCheck::checkInstaller(const std::wstring& source) {
    InstallerPaths paths(HKEY_LOCAL_MACHINE, installerKey);
    try {
        paths.save(source);
    } catch (const vexception& e) {
        return refuse("installer-unreadable",
                      L"The installer's registry values cannot be read: " + e.message() + L".",
                      std::wstring(L"Check your rights to HKEY_LOCAL_MACHINE\\") + installerKey +
                          L".");
    }
    result_.installerValues = static_cast<std::int64_t>(paths.entries().size());
    checkReferences(source, paths);
}

void PanelCheck::checkReferences(const std::wstring& source, const InstallerPaths& covered) {
    StrayReferences stray(source, VHostsPreflight::maxReferences);
    const auto isCovered = [&](const std::wstring& key, const std::wstring& value) {
        return (RunTime::equalNames(value, config::name::vhosts) &&
                RunTime::equalNames(key, config::configKey)) ||
               std::any_of(covered.entries().begin(), covered.entries().end(),
                           [&](const RegValueTraits& entry) {
                               return RunTime::equalNames(entry.getValueName(), value) &&
                                      RunTime::equalNames(entry.getKeyName(), key);
                           });
    };
    stray.searchRegistry(panelKey, RegistryView::View32, isCovered);
    stray.searchRegistry(panelKey, RegistryView::View64, isCovered);
    stray.searchRegistry(environmentKey, RegistryView::View64, isCovered);
    if (const std::wstring root = productRoot(); !root.empty()) {
        stray.searchFiles(combine(root, L"etc"));
    }
    result_.notCovered = stray.get_found();
    Special listed;
    listed.count = static_cast<std::int64_t>(stray.get_count());
    listed.examples = stray.get_found();
    listed.examples.resize(std::min(listed.examples.size(), TreeContents::maxExamples));
    if (listed.count != 0) {
        warn("not-covered",
             L"Settings that name the old place and are not changed by the move: " +
                 number(listed.count) + L" " + exampleText(listed) + L".",
             L"See whether they matter, and change them yourself after the move.");
    }
}

void PanelCheck::checkWebmail(const std::wstring& source, const std::wstring& target) {
    const std::wstring file = nicePath(MoveVHosts::webmailFile(source));
    if ((source + target).find(L'\'') != std::wstring::npos && isThere(file)) {
        warn("quotation-mark",
             L"The source's or the target's name has a quotation mark (') in it, which would end a "
             L"text in the settings of webmail: " +
                 quoted(file) + L" is moved as it is.",
             L"Choose another target, or change in that file what names the source after the "
             L"move.");
    }
}

void PanelCheck::checkVolumes(const std::wstring& source, const std::wstring& target) {
    result_.otherVolume = !RunTime::theSameVolume(source, target);
    const bool hasQuotas = (RunTime::volumeKind(target).flags & FILE_VOLUME_QUOTAS) != 0;
    if (result_.otherVolume && result_.quotas != 0 && !hasQuotas) {
        warn("no-quotas",
             L"The target's volume keeps no disk quotas. Accounts that have one and will be "
             L"unlimited there: " +
                 number(result_.quotas) + L".",
             L"Choose a volume with disk quotas if the limits matter.");
    }
}
