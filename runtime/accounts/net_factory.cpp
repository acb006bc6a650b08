#include "runtime/accounts/net_factory.h"

#include "runtime/accounts/net_group.h"
#include "runtime/accounts/net_user.h"

#include <utility>

namespace UserManagement {

namespace {

class NetFactory final : public IFactory {
public:
    explicit NetFactory(std::shared_ptr<IUserInformation> information)
        : information_(std::move(information)) {}

    std::shared_ptr<IUser> createUser(const NewUser& user) override {
        const std::wstring name = accountName(user.name);
        const std::wstring server = information_->getDomainServerName();
        auto created = std::make_shared<NetUser>(server, name); // nothing may fail once it is there
        NetUser::create(server, name, user);
        return created;
    }

    std::shared_ptr<IUser> getUser(const std::wstring& name) override {
        const std::wstring user = accountName(name);
        const std::wstring server = information_->getDomainServerName();
        RunTime::NetBuffer<BYTE> found;
        const NET_API_STATUS status =
            ::NetUserGetInfo(serverOf(server), user.c_str(), 0, found.put());
        if (status != NERR_Success) {
            throwForAccount(L"Unable to open the user", user, status,
                            {L"", "UserManagement::NetFactory::getUser", __LINE__});
        }
        return std::make_shared<NetUser>(server, user);
    }

    void deleteUser(const std::wstring& name) override {
        const std::wstring user = accountName(name);
        const std::wstring server = information_->getDomainServerName();
        const NET_API_STATUS status = ::NetUserDel(serverOf(server), user.c_str());
        if (status != NERR_Success) {
            throwForAccount(L"Unable to delete the user", user, status,
                            {L"", "UserManagement::NetFactory::deleteUser", __LINE__});
        }
    }

    std::shared_ptr<IGroup> createGroup(const std::wstring& name,
                                        const std::wstring& comment) override {
        const std::wstring group = accountName(name);
        const std::wstring server = information_->getDomainServerName();
        auto created = std::make_shared<NetGroup>(server, group, GroupKind::Local);
        NetGroup::create(server, group, comment);
        return created;
    }

    std::shared_ptr<IGroup> getGroup(const std::wstring& name) override { return openGroup(name); }

    void deleteGroup(const std::wstring& name) override { openGroup(name)->remove(); }

private:
    std::shared_ptr<NetGroup> openGroup(const std::wstring& name) const {
        const std::wstring group = accountName(name);
        const std::wstring server = information_->getDomainServerName();
        const GroupKind kind = findGroup(server, group);
        if (kind == GroupKind::Missing) {
            throwForAccount(L"Unable to open the group", group, NERR_GroupNotFound,
                            {L"", "UserManagement::NetFactory::openGroup", __LINE__});
        }
        return std::make_shared<NetGroup>(server, group, kind);
    }

    std::shared_ptr<IUserInformation> information_;
};

} // namespace

std::shared_ptr<IFactory> makeNetFactory(std::shared_ptr<IUserInformation> information) {
    return std::make_shared<NetFactory>(std::move(information));
}

} // namespace UserManagement
