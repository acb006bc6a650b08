// A user by the NetAPI. Each change is of one field alone, so that nothing else that the account
// has, or gets meanwhile, is written over.
#pragma once

#include "runtime/accounts/net_call.h"
#include "runtime/accounts/user_management.h"

#include <cstdint>
#include <optional>
#include <string>

namespace UserManagement {

class NetUser final : public IUser {
public:
    // server  empty for this computer
    NetUser(std::wstring server, std::wstring name);

    // Creates the account with all that it gets in one call, so it is there whole or not at all.
    static void create(const std::wstring& server, const std::wstring& name, const NewUser& user);

    const std::wstring& getName() const noexcept override { return name_; }
    void setPassword(const std::wstring& password) override;
    std::wstring getFullName() override;
    void setFullName(const std::wstring& fullName) override;
    std::wstring getComment() override;
    void setComment(const std::wstring& comment) override;
    std::wstring getDescription() override;
    void setDescription(const std::wstring& description) override;
    std::wstring getHomeDirectory() override;
    void setHomeDirectory(const std::wstring& home) override;
    bool getFlagPasswordNeverExpires() override;
    void setFlagPasswordNeverExpires(bool set) override;
    bool getFlagCannotChangePassword() override;
    void setFlagCannotChangePassword(bool set) override;
    bool isAdministrator() override;
    bool isEnabled() override;
    void enable(bool enabled) override;
    void allowUserRDPLogon(DWORD allow) override;
    std::optional<std::uint64_t> getQuota(const std::wstring& path) override;
    void setQuota(const std::wstring& path, std::uint64_t bytes) override;
    void removeQuota(const std::wstring& path) override;

private:
    using Information = RunTime::NetBuffer<USER_INFO_2, LPBYTE>;

    Information read() const;
    std::wstring readText(wchar_t* USER_INFO_2::*field) const;
    void writeText(DWORD level, const std::wstring& text, const wchar_t* what, int line) const;
    bool hasFlag(DWORD flag) const;
    void setFlag(DWORD flag, bool set) const;
    UserSid sid() const;

    std::wstring server_;
    std::wstring name_;
};

} // namespace UserManagement
