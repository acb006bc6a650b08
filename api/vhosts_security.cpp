#include "api/vhosts_security.h"

#include "api/argument_null_exception.h"
#include "api/call_frame.h"
#include "api/relay.h"
#include "api/utils.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/thread_cancelation.h"
#include "security/hosting/account_check.h"
#include "security/hosting/hosting_root.h"
#include "security/hosting/security_manager.h"

namespace zopobsolete {

namespace {

using HostingSecurity::AccountCheck;
using HostingSecurity::CommitMode;
using HostingSecurity::HostingAccounts;
using HostingSecurity::HostingKind;

constexpr wchar_t ftpGroup[] = L"ftp_subaccounts";

// The numbers of flags and modes are not the same: 1 and 2 change places.
CommitMode modeOf(VHostsSecurity::CheckPermissionsFlags flags) {
    switch (flags) {
    case VHostsSecurity::CheckPermissionsFlags::ReadOnly:
        return CommitMode::Report;
    case VHostsSecurity::CheckPermissionsFlags::FastCheck:
        return CommitMode::Fast;
    case VHostsSecurity::CheckPermissionsFlags::None:
        break;
    }
    return CommitMode::Repair;
}

HostingKind kindOf(VHostsSecurity::HostingType hosting) {
    return hosting == VHostsSecurity::HostingType::Webuser ? HostingKind::Webuser
                                                           : HostingKind::Domain;
}

void requireUser(const wchar_t* user) {
    if (user == nullptr) {
        throw ArgumentNullException(L"user");
    }
}

std::wstring orEmpty(const wchar_t* text) {
    return text != nullptr ? Utils::toUnmanagedString(text) : std::wstring();
}

} // namespace

// The native side of the public object: owns the security manager, and turns its callbacks into
// the public events.
class VHostsSecurityProxy : public HostingSecurity::ICommitCallback {
public:
    VHostsSecurityProxy(VHostsSecurity& owner, const std::wstring& root, bool prepareRoot)
        : owner_(owner), information_(UserManagement::UserInformation::createInstance()) {
        if (prepareRoot) {
            HostingSecurity::checkHostRoot(root);
        }
        manager_ = std::make_unique<HostingSecurity::SecurityManager>(root);
    }

    // The accounts of the hosting, in order; what the permissions need to know of them. complete
    // is false when an account is missing after all.
    HostingAccounts checkAccounts(VHostsSecurity::HostingType hosting, const std::wstring& user,
                                  const std::wstring& parent, AccountCheck::Mode mode,
                                  bool& complete) {
        constexpr const char* self = "zopobsolete::VHostsSecurityProxy::checkAccounts";
        AccountCheck check(information_, mode);
        const Hook warnings = check.warningEvent.hook([this](const std::wstring& text) {
            relay("zopobsolete::VHostsSecurityProxy::onWarning", __LINE__,
                  [&] { owner_.Warning.raise(text); });
        });
        HostingAccounts accounts{user, parent, {}};
        check.checkDomainUser(user, kindOf(hosting));
        check.checkFtpSubaccounts(ftpGroup);
        if (!parent.empty()) {
            check.checkDomainUser(parent, HostingKind::Domain);
        }
        switch (hosting) {
        case VHostsSecurity::HostingType::Domain:
            accounts.poolUser = check.getAppPoolUser(manager_->getDomainName());
            check.checkPoolUser(user, accounts.poolUser);
            break;
        case VHostsSecurity::HostingType::Webuser:
            if (parent.empty()) {
                throw vexception(L"Unknown parent user name for webuser", {L"", self, __LINE__});
            }
            // Nothing is done for it here, but the template lets it into the web user's content.
            accounts.poolUser = check.findPoolUser(manager_->getDomainName());
            break;
        default:
            throw vexception(
                formatString(L"Unknown hosting type #%X", static_cast<unsigned>(hosting)),
                {L"", self, __LINE__});
        }
        complete = check.isComplete();
        return accounts;
    }

    void commit(HostingKind kind, HostingAccounts accounts, CommitMode mode) {
        ThreadCancelation::check();
        manager_->setHosting(kind, std::move(accounts));
        manager_->commit(*this, mode, true, true);
    }

    std::int64_t getRepairedCount() const noexcept {
        return static_cast<std::int64_t>(manager_->getReplacedCount());
    }
    const std::wstring& getUndoFile() const noexcept { return manager_->getUndoFile(); }

    void onItem(const std::wstring& path) override {
        relay("zopobsolete::VHostsSecurityProxy::onItem", __LINE__,
              [&] { owner_.Progress.raise(nicePath(path)); });
    }
    void onSecurityException(const std::wstring& path, const std::wstring& text) override {
        relay("zopobsolete::VHostsSecurityProxy::onSecurityException", __LINE__,
              [&] { owner_.SecurityException.raise(nicePath(path), text); });
    }
    void onError(const std::wstring& path, const vexception& error) override {
        relay("zopobsolete::VHostsSecurityProxy::onError", __LINE__,
              [&] { owner_.Error.raise(nicePath(path), error.what()); });
    }

private:
    static std::wstring nicePath(const std::wstring& path) { return RunTime::nicePath(path); }

    VHostsSecurity& owner_;
    std::shared_ptr<UserManagement::IUserInformation> information_;
    std::unique_ptr<HostingSecurity::SecurityManager> manager_;
};

std::wstring VHostsSecurity::translateHostingType(HostingType hosting) {
    return hosting == HostingType::Webuser ? L"web" : L"domain";
}

VHostsSecurity::VHostsSecurity(const std::wstring& root) : VHostsSecurity(root, true) {}

VHostsSecurity::VHostsSecurity(const std::wstring& root, bool prepareRoot)
    : proxy_(
          callFrame({"zopobsolete::VHostsSecurity::VHostsSecurity", __LINE__, __LINE__ + 1}, [&] {
              return std::make_shared<VHostsSecurityProxy>(*this, Utils::toUnmanagedString(root),
                                                           prepareRoot);
          })) {}

VHostsSecurity::~VHostsSecurity() = default;

void VHostsSecurity::CheckPermissions(HostingType hosting, const wchar_t* user,
                                      const wchar_t* parent, CheckPermissionsFlags flags) {
    requireUser(user);
    std::wstring text;
    callFrame({"zopobsolete::VHostsSecurity::CheckPermissions", __LINE__, __LINE__ + 1, &text},
              [&] {
                  const std::wstring userName = Utils::toUnmanagedString(user);
                  const std::wstring parentName = orEmpty(parent);
                  text = formatString(L"Check hosting permissions(%s, %s, %s, #%X",
                                      translateHostingType(hosting).c_str(), userName.c_str(),
                                      parentName.c_str(), static_cast<unsigned>(flags));
                  const auto proxy = native();
                  bool complete = false;
                  HostingAccounts accounts = proxy->checkAccounts(
                      hosting, userName, parentName, AccountCheck::Mode::Repair, complete);
                  proxy->commit(kindOf(hosting), std::move(accounts), modeOf(flags));
              });
}

void VHostsSecurity::CheckFrameForwardingPermissions(CheckPermissionsFlags flags) {
    callFrame(
        {"zopobsolete::VHostsSecurity::CheckFrameForwardingPermissions", __LINE__, __LINE__ + 1},
        [&] { native()->commit(HostingKind::Forwarding, {}, modeOf(flags)); });
}

bool VHostsSecurity::InspectPermissions(HostingType hosting, const wchar_t* user,
                                        const wchar_t* parent) {
    requireUser(user);
    return callFrame(
        {"zopobsolete::VHostsSecurity::InspectPermissions", __LINE__, __LINE__ + 1}, [&] {
            const auto proxy = native();
            bool complete = false;
            HostingAccounts accounts =
                proxy->checkAccounts(hosting, Utils::toUnmanagedString(user), orEmpty(parent),
                                     AccountCheck::Mode::Report, complete);
            if (complete) {
                proxy->commit(kindOf(hosting), std::move(accounts), CommitMode::Report);
            }
            return complete;
        });
}

std::int64_t VHostsSecurity::get_RepairedCount() {
    return callFrame({"zopobsolete::VHostsSecurity::RepairedCount::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->getRepairedCount(); });
}

std::wstring VHostsSecurity::get_UndoFile() {
    return callFrame({"zopobsolete::VHostsSecurity::UndoFile::get", __LINE__, __LINE__ + 1},
                     [&] { return native()->getUndoFile(); });
}

void VHostsSecurity::Dispose() {
    proxy_.reset();
}

std::shared_ptr<VHostsSecurityProxy> VHostsSecurity::native() {
    if (!proxy_) {
        throw vexception(L"The hosting security object has been disposed of",
                         {L"", "VHostsSecurity::native", __LINE__});
    }
    return proxy_;
}

} // namespace zopobsolete
