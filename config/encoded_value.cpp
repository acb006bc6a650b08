#include "config/encoded_value.h"

#include "runtime/base64.h"
#include "runtime/registry/config_values.h"

#include <cstring>
#include <string_view>

namespace config {

namespace {

constexpr std::wstring_view prefix = L"[passwd]";
static_assert(sizeof(wchar_t) == 2, "a wide string is UTF-16LE as it stands");

} // namespace

std::wstring toStored(const std::wstring& name, const std::wstring& value) {
    if (name != name::ftpPassword || value.empty()) {
        return value;
    }
    std::wstring text = RunTime::encodeBase64(
        {reinterpret_cast<const std::uint8_t*>(value.data()), value.size() * sizeof(wchar_t)});
    const RunTime::WipeOnExit wipeText(text);
    std::wstring stored;
    stored.reserve(prefix.size() + text.size()); // a block that it outgrew would not be wiped
    return stored.append(prefix).append(text);
}

std::wstring fromStored(const std::wstring& name, const std::wstring& stored) {
    if (name != name::ftpPassword || !stored.starts_with(prefix)) {
        return stored;
    }
    const auto bytes = RunTime::decodeBase64(std::wstring_view(stored).substr(prefix.size()));
    if (!bytes || bytes->size() % sizeof(wchar_t) != 0) {
        return stored;
    }
    std::wstring value(bytes->size() / sizeof(wchar_t), L'\0');
    std::memcpy(value.data(), bytes->data(), bytes->size());
    return value;
}

} // namespace config
