#include "tests/support/account_fake.h"

#include "runtime/exception.h"
#include "runtime/text.h"

#include <algorithm>
#include <lm.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

using namespace UserManagement;

namespace {

std::wstring bare(const std::wstring& name) {
    return UserInformation::getNameWithoutDomain(name);
}

[[noreturn]] void refuse(const std::wstring& account, DWORD code) {
    _throwError((L"Unable to use the account (" + account + L")").c_str(), code,
                {L"", "AccountFake", __LINE__});
}

[[noreturn]] void unused() {
    throw std::logic_error("what is tested has never asked this of an account");
}

template <class Map>
auto& found(Map& accounts, const std::wstring& name, DWORD missing) {
    const auto account = accounts.find(name);
    if (account == accounts.end()) {
        refuse(name, missing);
    }
    return account->second;
}

// Nothing is asked of the system, so that a sweep over its calls sees the product's alone.
std::wstring driveOf(std::wstring path) {
    if (path.starts_with(L"\\\\?\\")) {
        path.erase(0, 4);
    }
    path.resize(std::min<std::size_t>(path.size(), 2));
    ::CharUpperW(path.data());
    return path;
}

class FakeUser final : public IUser {
public:
    FakeUser(AccountFake& fake, std::wstring name) : fake_(fake), name_(std::move(name)) {}

    const std::wstring& getName() const noexcept override { return name_; }
    std::wstring getHomeDirectory() override {
        fake_.enter(L"getHomeDirectory", name_);
        return user().home;
    }
    void setHomeDirectory(const std::wstring& value) override {
        fake_.enter(L"setHomeDirectory", name_, value);
        user().home = value;
    }
    bool isAdministrator() override {
        fake_.enter(L"isAdministrator", name_);
        return user().administrator;
    }
    void allowUserRDPLogon(DWORD allow) override {
        fake_.enter(L"allowUserRDPLogon", name_, std::to_wstring(allow));
        user().rdpLogon = allow != 0;
    }
    std::optional<std::uint64_t> getQuota(const std::wstring& path) override {
        fake_.enter(L"getQuota", name_, driveOf(path));
        const auto quota = user().quotas.find(driveOf(path));
        return quota == user().quotas.end() ? std::nullopt : std::optional(quota->second);
    }
    void setQuota(const std::wstring& path, std::uint64_t bytes) override {
        fake_.enter(L"setQuota", name_, driveOf(path) + L" " + std::to_wstring(bytes));
        user().quotas[driveOf(path)] = bytes;
    }
    void removeQuota(const std::wstring& path) override {
        fake_.enter(L"removeQuota", name_, driveOf(path));
        user().quotas.erase(driveOf(path));
    }

    void setPassword(const std::wstring&) override { unused(); }
    std::wstring getFullName() override { unused(); }
    void setFullName(const std::wstring&) override { unused(); }
    std::wstring getComment() override { unused(); }
    void setComment(const std::wstring&) override { unused(); }
    std::wstring getDescription() override { unused(); }
    void setDescription(const std::wstring&) override { unused(); }
    bool getFlagPasswordNeverExpires() override { unused(); }
    void setFlagPasswordNeverExpires(bool) override { unused(); }
    bool getFlagCannotChangePassword() override { unused(); }
    void setFlagCannotChangePassword(bool) override { unused(); }
    bool isEnabled() override { unused(); }
    void enable(bool) override { unused(); }

private:
    AccountFake::User& user() { return found(fake_.state.users, name_, NERR_UserNotFound); }

    AccountFake& fake_;
    std::wstring name_;
};

class FakeGroup final : public IGroup {
public:
    FakeGroup(AccountFake& fake, std::wstring name) : fake_(fake), name_(std::move(name)) {}

    const std::wstring& getName() const noexcept override { return name_; }
    std::wstring getComment() override { unused(); }
    void setComment(const std::wstring& comment) override {
        fake_.enter(L"setGroupComment", name_, comment);
        group().comment = comment;
    }
    std::vector<std::wstring> getMembers() override {
        fake_.enter(L"getMembers", name_);
        return {group().members.begin(), group().members.end()};
    }
    void addMember(const std::wstring& user) override {
        fake_.enter(L"addMember", name_, bare(user));
        found(fake_.state.users, bare(user), ERROR_NO_SUCH_MEMBER);
        group().members.insert(bare(user));
    }
    void removeMember(const std::wstring&) override { unused(); }

private:
    AccountFake::Group& group() { return found(fake_.state.groups, name_, NERR_GroupNotFound); }

    AccountFake& fake_;
    std::wstring name_;
};

class FakeFactory final : public IFactory {
public:
    explicit FakeFactory(AccountFake& fake) : fake_(fake) {}

    std::shared_ptr<IUser> createUser(const NewUser& user) override {
        const std::wstring name = bare(user.name);
        fake_.enter(L"createUser", name);
        if (!fake_.state.users
                 .try_emplace(name, AccountFake::User{.password = user.password,
                                                      .fullName = user.fullName,
                                                      .comment = user.comment,
                                                      .description = user.description})
                 .second) {
            refuse(name, NERR_UserExists);
        }
        return std::make_shared<FakeUser>(fake_, name);
    }
    std::shared_ptr<IUser> getUser(const std::wstring& name) override {
        fake_.enter(L"getUser", bare(name));
        found(fake_.state.users, bare(name), NERR_UserNotFound);
        return std::make_shared<FakeUser>(fake_, bare(name));
    }
    void deleteUser(const std::wstring&) override { unused(); }
    std::shared_ptr<IGroup> createGroup(const std::wstring& name,
                                        const std::wstring& comment) override {
        fake_.enter(L"createGroup", bare(name), comment);
        if (!fake_.state.groups.try_emplace(bare(name), AccountFake::Group{.comment = comment})
                 .second) {
            refuse(name, ERROR_ALIAS_EXISTS);
        }
        return std::make_shared<FakeGroup>(fake_, bare(name));
    }
    std::shared_ptr<IGroup> getGroup(const std::wstring& name) override {
        fake_.enter(L"getGroup", bare(name));
        found(fake_.state.groups, bare(name), NERR_GroupNotFound);
        return std::make_shared<FakeGroup>(fake_, bare(name));
    }
    void deleteGroup(const std::wstring&) override { unused(); }

private:
    AccountFake& fake_;
};

class FakeInformation final : public IUserInformation {
public:
    explicit FakeInformation(AccountFake& fake) : fake_(fake) {}

    std::wstring getDomainServerName() override {
        fake_.enter(L"getDomainServerName", L"");
        return {};
    }
    bool userExists(const std::wstring& name) override {
        fake_.enter(L"userExists", bare(name));
        return fake_.state.users.contains(bare(name));
    }
    bool groupExists(const std::wstring& name) override {
        fake_.enter(L"groupExists", bare(name));
        return fake_.state.groups.contains(bare(name));
    }

private:
    AccountFake& fake_;
};

} // namespace

AccountFake::AccountFake()
    : oldInformation_(UserInformation::replaceProvider(
          [this] { return std::make_unique<FakeInformation>(*this); })),
      oldFactory_(Factory::replaceProvider([this](const std::shared_ptr<IUserInformation>&) {
          return std::make_shared<FakeFactory>(*this);
      })) {}

AccountFake::~AccountFake() {
    Factory::replaceProvider(std::move(oldFactory_));
    UserInformation::replaceProvider(std::move(oldInformation_));
}

void AccountFake::enter(std::wstring_view call, const std::wstring& account,
                        const std::wstring& value) {
    std::wstring text(call);
    for (const std::wstring& part : {account, value}) {
        text += part.empty() ? part : L" " + part;
    }
    calls.push_back(std::move(text));
    if ((failCall.empty() || failCall == call) && failAt.left > 0 && --failAt.left == 0) {
        failAt.fired = true;
        refuse(account, ERROR_ACCESS_DENIED);
    }
}

std::ostream& operator<<(std::ostream& out, const AccountFake::State& state) {
    std::wstring text;
    for (const auto& [name, user] : state.users) {
        text += L"\nuser " + name;
        for (const std::wstring& part :
             {user.password, user.fullName, user.comment, user.description, user.home}) {
            text += L" '" + part + L"'";
        }
        text += user.rdpLogon ? L" 1" : L" 0";
        for (const auto& [drive, bytes] : user.quotas) {
            text += L" " + drive + L"=" + std::to_wstring(bytes);
        }
    }
    for (const auto& [name, group] : state.groups) {
        text += L"\ngroup " + name + L" '" + group.comment + L"':";
        for (const std::wstring& member : group.members) {
            text += L" " + member;
        }
    }
    return out << toUtf8(text);
}
