#include "config/pipe_name.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"

#include <algorithm>
#include <string_view>
#include <windows.h>

namespace config {

namespace {

constexpr std::wstring_view prefix = L"\\\\.\\pipe\\";
constexpr std::size_t maxPathLength = 256; // the system's limit for a pipe

} // namespace

std::wstring pipePath(const std::wstring& name) {
    std::wstring_view bare = name;
    if (::CompareStringOrdinal(name.c_str(), static_cast<int>(std::min(name.size(), prefix.size())),
                               prefix.data(), static_cast<int>(prefix.size()),
                               TRUE) == CSTR_EQUAL) {
        bare.remove_prefix(prefix.size());
    } else if (name.empty()) {
        bare = defaultPipeName;
    }
    // A separator would lead to another machine or another device; dots would be taken out of the
    // path, and a zero would end it.
    constexpr std::wstring_view refused(L"\\/\0", 3);
    if (bare.empty() || bare.find_first_of(refused) != bare.npos ||
        bare.find_first_not_of(L". ") == bare.npos || prefix.size() + bare.size() > maxPathLength) {
        throw ArgumentException(
            formatString(L"'%s' is not the name of a pipe of this machine", name.c_str()),
            {L"", "config::pipePath", __LINE__});
    }
    return std::wstring(prefix).append(bare);
}

std::wstring configuredPipePath() {
    std::wstring configured;
    const LSTATUS status = registry::lookup(HKEY_LOCAL_MACHINE, configKey, name::pipeName,
                                            configured, RegistryView::View32);
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
        _throwError(L"Unable to read the name of the service's pipe", static_cast<DWORD>(status),
                    {L"", "config::configuredPipePath", __LINE__});
    }
    return pipePath(configured);
}

} // namespace config
