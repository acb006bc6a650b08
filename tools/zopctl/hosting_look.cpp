#include "tools/zopctl/hosting_look.h"

#include "runtime/accounts/user_information.h"
#include "runtime/database/zop_database.h"
#include "runtime/files/file.h"
#include "runtime/registry/config_values.h"
#include "security/disk/path_variables.h"
#include "security/hosting/hosting_root.h"
#include "tools/zopctl/text_format.h"

namespace zopctl {

namespace {

void requirePlaceForOldPermissions() {
    try {
        DiskSecurity::PathVariables().value(config::name::productData);
    } catch (const vexception& e) {
        throw HostingStop{ExitCode::Failed, e.message(),
                          L"The configuration value PRODUCT_DATA_D must name the panel's data "
                          L"directory, where replaced permissions are kept."};
    }
}

void askForUsers(const HostingCheckOptions& options, ZOPDatabase& panel) {
    try {
        panel.getUserInfo(options.user);
        if (!options.parent.empty()) {
            panel.getUserInfo(options.parent);
        }
    } catch (const VDatabase::StatementException&) {
        throw;
    } catch (const vexception& e) {
        throw HostingStop{ExitCode::Refused, e.message(),
                          L"Give the login of the hosting's account as the panel has it."};
    }
}

void askForPool(const std::wstring& domain, ZOPDatabase& panel) {
    try {
        panel.getAppPoolUser(domain);
    } catch (const VDatabase::StatementException&) {
        throw;
    } catch (const vexception& e) {
        throw HostingStop{ExitCode::Refused, e.message(),
                          L"ROOT must be that of a domain with a web site. For a domain that only "
                          L"forwards there is --forwarding, for a web user --webuser."};
    }
}

void askForGroups(const HostingCheckOptions& options, ZOPDatabase& panel) {
    const auto information = UserManagement::UserInformation::createInstance();
    if (!information->groupExists(L"zopcln")) {
        throw HostingStop{ExitCode::Refused, L"There is no group \"zopcln\".",
                          L"The panel makes it when it is installed: repair its installation."};
    }
    if (options.readOnly) {
        return; // and FTP accounts are told as what they are
    }
    const auto logins = panel.enumFtpDomainSubFtpUsers();
    while (logins->next()) {
        const auto login = logins->text(L"login");
        if (login && !information->userExists(*login)) {
            throw HostingStop{
                ExitCode::Refused,
                L"Windows does not have the account of the FTP user \"" + *login +
                    L"\", whom the panel has.",
                L"Make the account, or remove the user in the panel: the repair would "
                L"end there."};
        }
    }
}

// What the accounts would fail for, in the panel's database and on this machine.
void askPanel(const HostingCheckOptions& options, const std::wstring& domain) {
    try {
        ZOPDatabase panel = ZOPDatabase::connect();
        askForUsers(options, panel);
        if (!options.webuser) {
            askForPool(domain, panel);
        }
        askForGroups(options, panel);
    } catch (const VDatabase::ConnectException& e) {
        throw HostingStop{
            ExitCode::Failed, e.message(),
            L"Start the panel's database server; the configuration values MySQLHost, "
            L"MySQLPort, MySQLLogin, MySQLPassword and MySQLDatabase say where it is."};
    } catch (const vexception& e) {
        throw HostingStop{ExitCode::Failed, e.message(), {}};
    }
}

} // namespace

HostingFound lookAtHosting(const HostingCheckOptions& options) {
    HostingFound found;
    std::wstring domain;
    const std::wstring& root = options.root;
    try {
        domain = HostingSecurity::HostingRoot::findPlace(root).domainName();
        found.isThere = RunTime::isDirectory(root);
        found.isFile = !found.isThere && RunTime::exists(root);
    } catch (const HostingSecurity::RootCorrelationException& e) {
        throw HostingStop{ExitCode::Refused, e.message(),
                          L"\"zopctl config get HTTPD_VHOSTS_D\" prints where virtual hosts are."};
    } catch (const vexception& e) {
        throw HostingStop{
            ExitCode::Failed, e.message(),
            L"The configuration value HTTPD_VHOSTS_D must name the directory of "
            L"virtual hosts (\"zopctl config set\" sets it), and the directory that holds "
            L"ROOT must exist."};
    }
    if (found.isFile && RunTime::fileInformation(root).isDirectory()) {
        throw HostingStop{ExitCode::Refused,
                          quoted(RunTime::nicePath(root)) + L" is a link to a directory.",
                          L"Give that directory, or remove the link."};
    }
    if (options.readOnly && !found.isThere) {
        throw HostingStop{ExitCode::Refused,
                          found.isFile
                              ? quoted(RunTime::nicePath(root)) + L" is no directory."
                              : L"There is no directory " + quoted(RunTime::nicePath(root)) + L".",
                          L"Without --read-only it is made."};
    }
    if (!options.readOnly) {
        requirePlaceForOldPermissions();
    }
    if (!options.forwarding) {
        askPanel(options, domain);
    }
    return found;
}

} // namespace zopctl
