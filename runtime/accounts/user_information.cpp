#include "runtime/accounts/user_information.h"

#include "runtime/accounts/net_call.h"
#include "runtime/exception.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"

#include <dsgetdc.h>
#include <mutex>
#include <utility>

namespace UserManagement {

namespace {

// Asks the server for accounts; getDomainServerName says which.
class ServerInformation : public IUserInformation {
public:
    bool userExists(const std::wstring& name) override {
        const std::wstring user = UserInformation::getNameWithoutDomain(name);
        if (user.empty() || user.size() > UNLEN) { // the system would call it a bad argument
            return false;
        }
        const std::wstring server = getDomainServerName();
        RunTime::NetBuffer<BYTE> found;
        const DWORD status = ::NetUserGetInfo(serverOf(server), user.c_str(), 0, found.put());
        if (status != NERR_Success && status != NERR_UserNotFound) {
            throwForAccount(L"Unable to find out whether the user exists", user, status,
                            {L"", "UserManagement::UserInformation::userExists", __LINE__});
        }
        return status == NERR_Success;
    }

    bool groupExists(const std::wstring& name) override {
        const std::wstring group = UserInformation::getNameWithoutDomain(name);
        return findGroup(getDomainServerName(), group) != GroupKind::Missing;
    }
};

class LocalInformation final : public ServerInformation {
public:
    std::wstring getDomainServerName() override { return {}; }
};

class DomainInformation final : public ServerInformation {
public:
    std::wstring getDomainServerName() override {
        RunTime::NetBuffer<DOMAIN_CONTROLLER_INFOW> found;
        const DWORD status =
            ::DsGetDcNameW(nullptr, nullptr, nullptr, nullptr,
                           DS_DIRECTORY_SERVICE_REQUIRED | DS_WRITABLE_REQUIRED, found.put());
        if (status != ERROR_SUCCESS) {
            _throwError(L"Unable to find a domain controller", status,
                        {L"", "UserManagement::UserInformation::getDomainServerName", __LINE__});
        }
        const std::wstring name = found->DomainControllerName;
        return name.substr(std::min(name.find_first_not_of(L'\\'), name.size()));
    }
};

bool isActiveDirectory() {
    DWORD mode = 0;
    const LSTATUS status =
        registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, config::name::activeDirectoryMode,
                         mode, RegistryView::View32);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        _throwError(L"Unable to read where the accounts live", static_cast<DWORD>(status),
                    {L"", "UserManagement::UserInformation::createInstance", __LINE__});
    }
    return mode != 0;
}

std::mutex providerMutex;

UserInformation::Provider& current() {
    static UserInformation::Provider replaced;
    return replaced;
}

} // namespace

std::unique_ptr<IUserInformation> UserInformation::createInstance() {
    Provider replaced;
    {
        const std::lock_guard lock(providerMutex);
        replaced = current();
    }
    if (replaced) {
        return replaced();
    }
    if (isActiveDirectory()) {
        return std::make_unique<DomainInformation>();
    }
    return std::make_unique<LocalInformation>();
}

std::wstring UserInformation::getNameWithoutDomain(const std::wstring& name) {
    const std::size_t backslash = name.rfind(L'\\');
    std::wstring user = backslash != std::wstring::npos ? name.substr(backslash + 1)
                                                        : name.substr(0, name.rfind(L'@'));
    return user.empty() ? name : user;
}

UserInformation::Provider UserInformation::replaceProvider(Provider provider) {
    const std::lock_guard lock(providerMutex);
    return std::exchange(current(), std::move(provider));
}

} // namespace UserManagement
