#include "security/hosting/account_check.h"

#include "runtime/format_string.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>

namespace HostingSecurity {

namespace {

constexpr wchar_t hostingGroup[] = L"zopcln";
constexpr wchar_t ftpComment[] = L"Tarvo FTP group";

// The span of one step, which has the account in its name.
class Step {
public:
    Step(const std::wstring& name, std::int32_t line)
        : name_(toUtf8(name)), span_(name_.c_str(), line) {
        ThreadCancelation::check();
    }

private:
    std::string name_;
    NativeSpan span_;
};

bool isMember(UserManagement::IGroup& group, const std::wstring& user) {
    const std::wstring name = UserManagement::UserInformation::getNameWithoutDomain(user);
    const std::vector<std::wstring> members = group.getMembers();
    return std::any_of(members.begin(), members.end(), [&name](const std::wstring& member) {
        return ::CompareStringOrdinal(member.c_str(), -1, name.c_str(), -1, TRUE) == CSTR_EQUAL;
    });
}

} // namespace

AccountCheck::AccountCheck(std::shared_ptr<UserManagement::IUserInformation> information, Mode mode)
    : information_(std::move(information)),
      factory_(UserManagement::Factory::createInstance(information_)), mode_(mode) {}

void AccountCheck::checkDomainUser(const std::wstring& user, HostingKind kind) {
    const wchar_t* const type = kind == HostingKind::Webuser ? L"web" : L"domain";
    const Step step(formatString(L"Check %s %s user", type, user.c_str()), __LINE__);
    const ZOPDatabase::UserInfo info = database().getUserInfo(user);
    bool isThere = information_->userExists(user);
    if (!isThere && reports()) {
        warningEvent.raise(formatString(L"%s: The %s user account is absent.", user.c_str(), type));
    } else if (!isThere) {
        warningEvent.raise(formatString(
            L"%s: The %s user account was absent. Tarvo has created it.", user.c_str(), type));
        UserManagement::NewUser account;
        account.name = user;
        account.password = info.password;
        account.fullName = L"Tarvo Domain User";
        account.comment = L"Created by Tarvo";
        factory_->createUser(account);
        isThere = true;
    }
    finishAccount(user, isThere);
}

void AccountCheck::checkPoolUser(const std::wstring& user, const std::wstring& poolUser) {
    const Step step(formatString(L"Check pool %s user", poolUser.c_str()), __LINE__);
    bool isThere = information_->userExists(poolUser);
    if (!isThere && reports()) {
        warningEvent.raise(formatString(L"%s: Application pool user is absent.", poolUser.c_str()));
    } else if (!isThere) {
        warningEvent.raise(formatString(
            L"%s: Application pool user was absent. Tarvo has created it.", poolUser.c_str()));
        const ZOPDatabase::UserInfo info = database().getUserInfo(user);
        UserManagement::NewUser account;
        account.name = poolUser;
        account.password = info.password;
        account.description = L"Tarvo IIS Worker Process Identity Account";
        factory_->createUser(account);
        isThere = true;
    }
    finishAccount(poolUser, isThere);
}

void AccountCheck::checkFtpSubaccounts(const std::wstring& groupName) {
    const Step step(formatString(L"Check FTP sub accounts %s group", groupName.c_str()), __LINE__);
    const bool isThere = information_->groupExists(groupName);
    if (!isThere && reports()) {
        warningEvent.raise(formatString(L"%s: Tarvo group is absent.", groupName.c_str()));
        return;
    }
    if (!isThere) {
        warningEvent.raise(
            formatString(L"%s: Tarvo group was absent. Tarvo has created it.", groupName.c_str()));
        factory_->createGroup(groupName, ftpComment);
    }
    const std::shared_ptr<UserManagement::IGroup> group = factory_->getGroup(groupName);
    if (!reports()) {
        group->setComment(ftpComment);
    }
    const auto logins = database().enumFtpDomainSubFtpUsers();
    while (logins->next()) {
        ThreadCancelation::check();
        const std::optional<std::wstring> login = logins->text(L"login");
        // Only a login that the test does not find is put into the group.
        if (!login || information_->userExists(*login)) {
            continue;
        }
        if (reports()) {
            warningEvent.raise(formatString(L"%s: FTP account is absent.", login->c_str()));
        } else {
            group->addMember(*login);
        }
    }
}

std::wstring AccountCheck::getAppPoolUser(const std::wstring& domain) {
    return database().getAppPoolUser(domain);
}

std::wstring AccountCheck::findPoolUser(const std::wstring& domain) {
    std::wstring poolUser;
    try {
        poolUser = getAppPoolUser(domain);
    } catch (const VDatabase::StatementException&) {
        throw;
    } catch (const VDatabase::ConnectException&) {
        throw;
    } catch (const vexception&) { // the domain has no pool
    }
    return poolUser.empty() || !information_->userExists(poolUser) ? std::wstring() : poolUser;
}

// What every account of a hosting gets, new or old.
void AccountCheck::finishAccount(const std::wstring& user, bool isThere) {
    complete_ = complete_ && isThere;
    if (!isThere) {
        return;
    }
    const std::shared_ptr<UserManagement::IUser> account = factory_->getUser(user);
    if (account->isAdministrator()) {
        const std::wstring text = formatString(
            L"%s: The account is an administrator's, and cannot be a hosting's.", user.c_str());
        if (!reports()) {
            throw vexception(text, {L"", "HostingSecurity::AccountCheck::finishAccount", __LINE__});
        }
        warningEvent.raise(text);
    }
    const std::shared_ptr<UserManagement::IGroup> group = factory_->getGroup(hostingGroup);
    if (!reports()) {
        group->addMember(user);
        // Customers know these accounts' passwords: they are for their sites, not for the desktop.
        account->allowUserRDPLogon(0);
    } else if (!isMember(*group, user)) {
        warningEvent.raise(
            formatString(L"%s: The account is not in the group %s.", user.c_str(), hostingGroup));
    }
}

ZOPDatabase& AccountCheck::database() {
    if (!database_) {
        database_.emplace(ZOPDatabase::connect());
    }
    return *database_;
}

} // namespace HostingSecurity
