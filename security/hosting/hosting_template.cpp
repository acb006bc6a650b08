#include "security/hosting/hosting_template.h"

#include "runtime/accounts/user_information.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "security/disk/config_importer.h"
#include "security/disk/path_variables.h"
#include "security/hosting/built_in_templates.h"

#include <algorithm>
#include <utility>

namespace HostingSecurity {

namespace {

using DiskSecurity::AccountLookup;
using DiskSecurity::ConfigImporter;
using DiskSecurity::PolicyEntry;

constexpr std::wstring_view rootVariable = L"[Root]";
constexpr std::wstring_view groupPlaceholder = L"[Group ";

LookupProvider& provider() {
    static LookupProvider replaced;
    return replaced;
}

std::shared_ptr<AccountLookup> accountsOfPanel(bool usersOnly) {
    if (provider()) {
        return provider()();
    }
    return std::make_shared<DiskSecurity::SystemAccountLookup>(
        UserManagement::UserInformation::createInstance()->getDomainServerName(), usersOnly);
}

[[noreturn]] void failUnknown(const std::wstring& placeholder, int line) {
    throw vexception(L"Unknown account placeholder: " + placeholder +
                         L", known are:\n[User]\n[Parent]\n[PoolUser]\n[Group name]",
                     {L"", "HostingSecurity::HostingTemplate::expand", line});
}

// Finds what placeholders stand for; without accounts it only checks them, and finds nobody.
class PlaceholderLookup : public AccountLookup {
public:
    explicit PlaceholderLookup(const HostingAccounts* accounts) : accounts_(accounts) {}

    RunTime::Sid lookup(const std::wstring& account, const std::wstring& domain) override {
        if (!account.starts_with(L'[')) {
            return find(account, domain);
        }
        if (account.starts_with(groupPlaceholder) && account.size() > groupPlaceholder.size() + 1 &&
            account.ends_with(L']')) {
            try {
                return find(account.substr(groupPlaceholder.size(),
                                           account.size() - groupPlaceholder.size() - 1),
                            domain);
            } catch (const VNoneMappedException&) {
                return {}; // nobody is in a group that is not there
            }
        }
        const std::pair<const wchar_t*, std::wstring HostingAccounts::*> placeholders[] = {
            {L"[User]", &HostingAccounts::user},
            {L"[Parent]", &HostingAccounts::parent},
            {L"[PoolUser]", &HostingAccounts::poolUser},
        };
        for (const auto& [name, member] : placeholders) {
            if (account == name) {
                return accounts_ == nullptr || (accounts_->*member).empty()
                           ? RunTime::Sid()
                           : findUser(accounts_->*member, domain);
            }
        }
        failUnknown(account, __LINE__);
    }

private:
    RunTime::Sid find(const std::wstring& name, const std::wstring& domain) {
        if (accounts_ == nullptr) {
            return {};
        }
        if (!system_) {
            system_ = accountsOfPanel(false);
        }
        return system_->lookup(name, domain);
    }
    // Names of the system's own groups are found before those of accounts: a customer named as one
    // must not give its permissions to everybody in it. A domain in the name is left out, as it is
    // where the account is checked and made: both mean the same one.
    RunTime::Sid findUser(const std::wstring& name, const std::wstring& domain) {
        if (!users_) {
            users_ = accountsOfPanel(true);
        }
        return users_->lookup(UserManagement::UserInformation::getNameWithoutDomain(name), domain);
    }

    const HostingAccounts* accounts_;
    std::shared_ptr<AccountLookup> system_; // made when they are first asked
    std::shared_ptr<AccountLookup> users_;
};

// With places in messages only where reading the file itself is what fails.
std::vector<PolicyEntry> import(const std::string& xml, const std::wstring& name,
                                const HostingAccounts* accounts) {
    ConfigImporter importer(std::make_shared<PlaceholderLookup>(accounts), &vetTemplatePaths);
    std::vector<PolicyEntry> entries = importer.importBytes(xml, name);
    for (const PolicyEntry& entry : entries) {
        if ((entry.entryFlags & ~entryFlag::all) != 0) {
            throw vexception(L"Unknown EntryFlags for the path " + entry.path + L" in " + name,
                             {L"", "HostingSecurity::HostingTemplate::expand", __LINE__});
        }
    }
    return entries;
}

const BuiltInTemplate& builtIn(HostingKind kind) {
    switch (kind) {
    case HostingKind::Domain:
        return domainTemplate;
    case HostingKind::Webuser:
        return webuserTemplate;
    case HostingKind::Forwarding:
        break;
    }
    return forwardingTemplate;
}

} // namespace

HostingTemplate HostingTemplate::fromFile(const std::wstring& path) {
    return fromBytes(DiskSecurity::readPolicyFile(path), RunTime::nicePath(path));
}

HostingTemplate HostingTemplate::fromBytes(std::string xml, std::wstring name) {
    import(xml, name, nullptr);
    return {std::move(xml), std::move(name)};
}

void HostingTemplate::save(const std::wstring& path) const {
    constexpr const char* function = "HostingSecurity::HostingTemplate::save";
    const RunTime::AutoHandle file(::CreateFileW(RunTime::longPath(path).c_str(), GENERIC_WRITE, 0,
                                                 nullptr, CREATE_NEW, FILE_FLAG_OPEN_REPARSE_POINT,
                                                 nullptr));
    if (!file) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to create file (%s)", path, code, function, __LINE__);
    }
    DWORD written = 0;
    if (!::WriteFile(file.get(), xml_.data(), static_cast<DWORD>(xml_.size()), &written, nullptr)) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to write file (%s)", path, code, function, __LINE__);
    }
    if (written != xml_.size()) {
        RunTime::throwForPath(L"Unable to write file (%s)", path, ERROR_DISK_FULL, function,
                              __LINE__);
    }
}

std::vector<PolicyEntry> HostingTemplate::expand(const HostingAccounts& accounts) const {
    return import(xml_, name_, &accounts);
}

HostingTemplate loadDomainSecurity() {
    return loadSecurity(HostingKind::Domain);
}

HostingTemplate loadWebuserSecurity() {
    return loadSecurity(HostingKind::Webuser);
}

HostingTemplate loadPathSecurity() {
    return loadSecurity(HostingKind::Forwarding);
}

HostingTemplate loadSecurity(HostingKind kind) {
    const BuiltInTemplate& own = builtIn(kind);
    std::wstring root;
    const LSTATUS status = registry::lookup(HKEY_LOCAL_MACHINE, config::configKey,
                                            config::name::productRoot, root, RegistryView::View32);
    if (status == ERROR_SUCCESS && !root.empty()) {
        const std::wstring file =
            RunTime::combine(RunTime::combine(root, L"etc\\HostingSecurity"), own.file);
        if (RunTime::exists(file)) {
            return HostingTemplate::fromFile(file);
        }
    } else if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND &&
               status != ERROR_PATH_NOT_FOUND) {
        _throwError(L"Unable to get the configuration value PRODUCT_ROOT_D",
                    static_cast<DWORD>(status), {L"", "HostingSecurity::loadSecurity", __LINE__});
    }
    return HostingTemplate::fromBytes(std::string(own.xml), own.file);
}

void vetTemplatePaths(const std::wstring& path, const std::wstring& subPath) {
    if (!path.starts_with(rootVariable) ||
        (path.size() > rootVariable.size() &&
         std::wstring_view(L"\\/").find(path[rootVariable.size()]) == std::wstring_view::npos)) {
        throw vexception(L"The path \"" + path + L"\" does not begin with [Root].",
                         {L"", "HostingSecurity::vetTemplatePaths", __LINE__});
    }
    // A name that is a star stands for any; elsewhere a star is no letter of a name.
    const auto vet = [](std::wstring names) {
        std::replace(names.begin(), names.end(), L'/', L'\\');
        for (std::size_t at = 0; at < names.size(); ++at) {
            const bool first = at == 0 || names[at - 1] == L'\\';
            const bool last = at + 1 == names.size() || names[at + 1] == L'\\';
            if (names[at] == L'*' && first && last) {
                names[at] = L'x';
            }
        }
        DiskSecurity::vetNames(names);
    };
    vet(path.substr(rootVariable.size()));
    vet(subPath);
}

LookupProvider replaceAccountLookup(LookupProvider replacement) {
    return std::exchange(provider(), std::move(replacement));
}

} // namespace HostingSecurity
