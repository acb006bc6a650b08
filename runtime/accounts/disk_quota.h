// What one user's files may take on one volume.
//
//     DiskQuota(L"D:\\vhosts", name, sid).setLimit(bytes);
//
// One thread at a time; COM is initialised for it.
#pragma once

#include "runtime/com.h"

#include <cstdint>
#include <optional>
#include <string>

struct IDiskQuotaControl;
struct IDiskQuotaUser;

namespace UserManagement {

class DiskQuota {
public:
    // path  anything on the volume; need not exist
    // name  of the user, for messages
    // Throws vosexception, "Unable to open the quotas of the volume", such as for one of a file
    // system that has none.
    DiskQuota(const std::wstring& path, std::wstring name, PSID user);
    ~DiskQuota();
    DiskQuota(const DiskQuota&) = delete;
    DiskQuota& operator=(const DiskQuota&) = delete;

    // In bytes; a user without an entry of its own has the volume's default.
    std::optional<std::uint64_t> limit();
    void setLimit(std::optional<std::uint64_t> bytes);

private:
    [[noreturn]] void fail(const wchar_t* what, HRESULT result, int line) const;

    RunTime::ComScope com_;
    std::wstring volume_;
    std::wstring name_;
    RunTime::ComPtr<IDiskQuotaControl> control_;
    RunTime::ComPtr<IDiskQuotaUser> user_;
};

} // namespace UserManagement
