// A group by the NetAPI: a local one, which in a domain is one of the domain's own kind, or a
// global one of the domain.
#pragma once

#include "runtime/accounts/net_call.h"
#include "runtime/accounts/user_management.h"

#include <string>
#include <vector>

namespace UserManagement {

class NetGroup final : public IGroup {
public:
    // server  empty for this computer
    // kind    of a group that there is
    NetGroup(std::wstring server, std::wstring name, GroupKind kind);

    // A local one.
    static void create(const std::wstring& server, const std::wstring& name,
                       const std::wstring& comment);
    void remove();

    const std::wstring& getName() const noexcept override { return name_; }
    std::wstring getComment() override;
    void setComment(const std::wstring& comment) override;
    std::vector<std::wstring> getMembers() override;
    void addMember(const std::wstring& user) override;
    void removeMember(const std::wstring& user) override;

private:
    bool isGlobal() const noexcept { return kind_ == GroupKind::Global; }

    std::wstring server_;
    std::wstring name_;
    GroupKind kind_;
};

} // namespace UserManagement
