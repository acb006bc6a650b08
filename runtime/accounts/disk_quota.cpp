#include "runtime/accounts/disk_quota.h"

#include "runtime/files/path.h"
#include "runtime/format_string.h"

#include <limits>
#include <utility>

#define INITGUIDS // defines the identifiers, which no library has
#include <dskquota.h>

namespace UserManagement {

namespace {

constexpr LONGLONG noLimit = -1;

} // namespace

DiskQuota::DiskQuota(const std::wstring& path, std::wstring name, PSID user)
    : volume_(RunTime::nicePath(RunTime::volumeRoot(path))), name_(std::move(name)) {
    HRESULT result = ::CoCreateInstance(CLSID_DiskQuotaControl, nullptr, CLSCTX_INPROC_SERVER,
                                        IID_IDiskQuotaControl, control_.putVoid());
    if (SUCCEEDED(result)) {
        result = control_->Initialize(volume_.c_str(), TRUE);
    }
    if (FAILED(result)) {
        _throwError(
            formatString(L"Unable to open the quotas of the volume (%s)", volume_.c_str()).c_str(),
            static_cast<DWORD>(result), {L"", "UserManagement::DiskQuota::DiskQuota", __LINE__});
    }
    result = control_->FindUserSid(user, DISKQUOTA_USERNAME_RESOLVE_NONE, user_.put());
    if (FAILED(result)) {
        result = control_->AddUserSid(user, DISKQUOTA_USERNAME_RESOLVE_NONE, user_.put());
    }
    if (FAILED(result) || !user_) {
        fail(L"Unable to find", result, __LINE__);
    }
}

DiskQuota::~DiskQuota() = default;

std::optional<std::uint64_t> DiskQuota::limit() {
    LONGLONG bytes = noLimit;
    const HRESULT result = user_->GetQuotaLimit(&bytes);
    if (FAILED(result)) {
        fail(L"Unable to read", result, __LINE__);
    }
    return bytes < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(bytes));
}

void DiskQuota::setLimit(std::optional<std::uint64_t> bytes) {
    // More than the system can count is no limit.
    const bool limited = bytes && *bytes <= std::numeric_limits<LONGLONG>::max();
    const HRESULT result =
        user_->SetQuotaLimit(limited ? static_cast<LONGLONG>(*bytes) : noLimit, TRUE);
    if (FAILED(result)) {
        fail(L"Unable to set", result, __LINE__);
    }
}

void DiskQuota::fail(const wchar_t* what, HRESULT result, int line) const {
    _throwError(formatString(L"%s the quota of the user (%s) on the volume (%s)", what,
                             name_.c_str(), volume_.c_str())
                    .c_str(),
                static_cast<DWORD>(result), {L"", "UserManagement::DiskQuota", line});
}

} // namespace UserManagement
