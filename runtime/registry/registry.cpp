#include "runtime/registry/registry.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace registry {

namespace {

using RunTime::AutoRegKey;

REGSAM viewFlag(RegistryView view) {
    switch (view) {
    case RegistryView::View32:
        return KEY_WOW64_32KEY;
    case RegistryView::View64:
    case RegistryView::View64Alternative:
        return KEY_WOW64_64KEY;
    default:
        return 0;
    }
}

// Names are passed on as C strings: one with a zero character in it would reach another key or
// value than it names.
bool hasZero(const std::wstring& name) {
    return name.find(L'\0') != std::wstring::npos;
}

LSTATUS open(HKEY hive, const std::wstring& subKey, REGSAM access, RegistryView view,
             AutoRegKey& key) {
    return hasZero(subKey)
               ? ERROR_FILE_NOT_FOUND
               : ::RegOpenKeyExW(hive, subKey.c_str(), 0, access | viewFlag(view), key.put());
}

LSTATUS openToRead(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
                   RegistryView view, AutoRegKey& key) {
    return hasZero(valueName) ? ERROR_FILE_NOT_FOUND
                              : open(hive, subKey, KEY_QUERY_VALUE, view, key);
}

[[noreturn]] void invalidType(const wchar_t* function, const std::wstring& subKey,
                              const std::wstring& valueName, int line) {
    throw vexception(std::wstring(function) + L" invalid type of '" + subKey + L"\\" + valueName +
                         L"'",
                     {L"", "registry::lookup", line});
}

// The detail is a format with the key as its only argument.
[[noreturn]] void fail(const wchar_t* detail, const std::wstring& subKey, LSTATUS status,
                       const char* function, int line) {
    _throwError(formatString(detail, subKey.c_str()).c_str(), static_cast<DWORD>(status),
                {L"", function, line});
}

// What changes whenever names are added or removed. The time alone is too coarse for two changes
// that follow each other closely.
struct KeyState {
    DWORD subkeys = 0;
    DWORD values = 0;
    DWORD longestSubkey = 0; // characters, without the terminator
    DWORD longestValue = 0;
    FILETIME written = {};

    bool sameNames(const KeyState& other) const {
        return subkeys == other.subkeys && values == other.values &&
               written.dwLowDateTime == other.written.dwLowDateTime &&
               written.dwHighDateTime == other.written.dwHighDateTime;
    }
};

LSTATUS queryState(HKEY key, KeyState& state) {
    return ::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &state.subkeys, &state.longestSubkey,
                              nullptr, &state.values, &state.longestValue, nullptr, nullptr,
                              &state.written);
}

// The name at an index, and the type for a value.
using EnumerateName = LSTATUS (*)(HKEY key, DWORD index, wchar_t* name, DWORD* length, DWORD* type);

LSTATUS enumerateSubkey(HKEY key, DWORD index, wchar_t* name, DWORD* length, DWORD*) {
    return ::RegEnumKeyExW(key, index, name, length, nullptr, nullptr, nullptr, nullptr);
}

LSTATUS enumerateValue(HKEY key, DWORD index, wchar_t* name, DWORD* length, DWORD* type) {
    return ::RegEnumValueW(key, index, name, length, nullptr, type, nullptr, nullptr);
}

// ERROR_NO_MORE_ITEMS when there were count of them, none of them longer.
LSTATUS readNames(HKEY key, EnumerateName enumerate, DWORD count, DWORD longest,
                  std::vector<ValueName>& names) {
    std::wstring buffer(std::size_t{longest} + 1, L'\0');
    names.clear();
    names.reserve(count);
    LSTATUS status = ERROR_SUCCESS;
    for (DWORD index = 0; status == ERROR_SUCCESS && index <= count; ++index) {
        DWORD length = static_cast<DWORD>(buffer.size());
        DWORD type = REG_NONE;
        status = enumerate(key, index, buffer.data(), &length, &type);
        std::wstring name = buffer.substr(0, length);
        if (status == ERROR_SUCCESS && !hasZero(name)) {
            names.push_back({std::move(name), type});
        }
    }
    return status;
}

// Indices shift when names come and go, so that one may be seen twice or not at all. A list is
// taken for whole only if the key was the same before and after.
LSTATUS listNames(HKEY key, EnumerateName enumerate, std::vector<ValueName>& names) {
    constexpr int tries = 32;
    const bool keys = enumerate == &enumerateSubkey;
    for (int i = 0; i < tries; ++i) {
        KeyState before;
        LSTATUS status = queryState(key, before);
        if (status != ERROR_SUCCESS) {
            return status;
        }
        const LSTATUS end = readNames(key, enumerate, keys ? before.subkeys : before.values,
                                      keys ? before.longestSubkey : before.longestValue, names);
        if (end != ERROR_SUCCESS && end != ERROR_NO_MORE_ITEMS && end != ERROR_MORE_DATA) {
            return end;
        }
        KeyState after;
        status = queryState(key, after);
        if (status != ERROR_SUCCESS) {
            return status;
        }
        if (end == ERROR_NO_MORE_ITEMS && before.sameNames(after)) {
            return ERROR_SUCCESS;
        }
    }
    return ERROR_BUSY;
}

std::vector<ValueName> list(HKEY hive, const std::wstring& subKey, RegistryView view,
                            EnumerateName enumerate, const char* function) {
    const REGSAM access = enumerate == &enumerateSubkey ? KEY_ENUMERATE_SUB_KEYS : 0;
    AutoRegKey key;
    LSTATUS status = open(hive, subKey, KEY_QUERY_VALUE | access, view, key);
    if (status != ERROR_SUCCESS) {
        fail(L"Unable to open registry key (%s)", subKey, status, function, __LINE__);
    }
    std::vector<ValueName> names;
    status = listNames(key.get(), enumerate, names);
    if (status != ERROR_SUCCESS) {
        fail(L"Unable to list registry key (%s)", subKey, status, function, __LINE__);
    }
    return names;
}

// RegGetValueW could do it, but would have to rely on the terminator of the stored text.
LSTATUS expand(std::wstring& text) {
    std::wstring expanded(MAX_PATH, L'\0');
    for (;;) {
        const DWORD size = ::ExpandEnvironmentStringsW(text.c_str(), expanded.data(),
                                                       static_cast<DWORD>(expanded.size()));
        if (size == 0) {
            return static_cast<LSTATUS>(::GetLastError());
        }
        if (size <= expanded.size()) {
            expanded.resize(size - 1);
            text = std::move(expanded);
            return ERROR_SUCCESS;
        }
        expanded.resize(size);
    }
}

// The text as it is stored, with what follows its first zero character, and without the last one.
LSTATUS readText(HKEY hive, const std::wstring& subKey, const std::wstring& valueName, DWORD types,
                 std::wstring& text, DWORD& type, RegistryView view) {
    AutoRegKey key;
    LSTATUS status = openToRead(hive, subKey, valueName, view, key);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    std::wstring buffer(MAX_PATH, L'\0');
    DWORD bytes = 0;
    for (;;) {
        bytes = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
        status = ::RegGetValueW(key.get(), nullptr, valueName.c_str(), types | RRF_NOEXPAND, &type,
                                buffer.data(), &bytes);
        if (status != ERROR_MORE_DATA ||
            buffer.size() > std::numeric_limits<DWORD>::max() / sizeof(wchar_t) / 2) {
            break;
        }
        // The size is a hint: the value may grow. Doubling ends also where it grows for ever.
        buffer.resize(std::max(std::size_t{bytes} / sizeof(wchar_t) + 1, buffer.size() * 2));
    }
    if (status == ERROR_UNSUPPORTED_TYPE) {
        invalidType(L"RegGetValue", subKey, valueName, __LINE__);
    }
    if (status == ERROR_SUCCESS) {
        buffer.resize(std::min(buffer.size(), std::size_t{bytes} / sizeof(wchar_t)));
        if (buffer.ends_with(L'\0')) {
            buffer.pop_back();
        }
        text = std::move(buffer);
    }
    return status;
}

[[noreturn]] void failLookup(const std::wstring& subKey, const std::wstring& valueName,
                             LSTATUS status) {
    const vexception::CallStackInfo frame(L"", "registry::getstr", 736);
    throw vexception(L"lookup subKey=" + subKey + L" value=" + valueName + L": " +
                         vosexception(static_cast<DWORD>(status), nullptr, frame).message(),
                     frame);
}

AutoRegKey openToWrite(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
                       RegistryView view, MissingKey missing, const char* function) {
    if (hasZero(subKey) || hasZero(valueName)) {
        throw ArgumentException(L"The name of a registry key or value has a zero character in it",
                                {L"", function, __LINE__});
    }
    AutoRegKey key;
    LSTATUS status = ERROR_SUCCESS;
    if (missing == MissingKey::Create) {
        status = ::RegCreateKeyExW(hive, subKey.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                   KEY_SET_VALUE | viewFlag(view), nullptr, key.put(), nullptr);
    } else {
        status = open(hive, subKey, KEY_SET_VALUE, view, key);
    }
    if (status != ERROR_SUCCESS) {
        fail(L"Unable to open registry key (%s)", subKey, status, function, __LINE__);
    }
    return key;
}

void set(HKEY key, const std::wstring& subKey, const std::wstring& valueName, DWORD type,
         const void* data, DWORD bytes, const char* function) {
    const LSTATUS status =
        ::RegSetValueExW(key, valueName.c_str(), 0, type, static_cast<const BYTE*>(data), bytes);
    if (status != ERROR_SUCCESS) {
        fail(L"Unable to set registry value (%s)", subKey + L"\\" + valueName, status, function,
             __LINE__);
    }
}

void writeText(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
               const std::wstring& text, RegistryView view, MissingKey missing,
               const char* function) {
    if (text.size() >= std::numeric_limits<DWORD>::max() / sizeof(wchar_t)) {
        fail(L"Unable to set registry value (%s)", valueName, ERROR_BUFFER_OVERFLOW, function,
             __LINE__);
    }
    const AutoRegKey key = openToWrite(hive, subKey, valueName, view, missing, function);
    set(key.get(), subKey, valueName, REG_SZ, text.c_str(),
        static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)), function);
}

} // namespace

LSTATUS lookup(HKEY hive, const std::wstring& subKey, const std::wstring& valueName, DWORD& value,
               RegistryView view) {
    AutoRegKey key;
    LSTATUS status = openToRead(hive, subKey, valueName, view, key);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    DWORD type = REG_NONE;
    DWORD data = 0;
    DWORD bytes = sizeof data;
    status = ::RegQueryValueExW(key.get(), valueName.c_str(), nullptr, &type,
                                reinterpret_cast<BYTE*>(&data), &bytes);
    // The type is known also where four bytes do not hold the value.
    if ((status == ERROR_SUCCESS || status == ERROR_MORE_DATA) && type != REG_DWORD) {
        invalidType(L"RegQueryValueEx", subKey, valueName, __LINE__);
    }
    if (status == ERROR_SUCCESS && bytes != sizeof data) {
        status = ERROR_INVALID_DATA;
    }
    if (status == ERROR_SUCCESS) {
        value = data;
    }
    return status;
}

LSTATUS lookup(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
               std::wstring& value, RegistryView view) {
    std::wstring text;
    DWORD type = REG_NONE;
    LSTATUS status =
        readText(hive, subKey, valueName, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ, text, type, view);
    if (status == ERROR_SUCCESS) {
        text.resize(std::min(text.find(L'\0'), text.size()));
        status = type == REG_EXPAND_SZ ? expand(text) : ERROR_SUCCESS;
    }
    if (status == ERROR_SUCCESS) {
        value = std::move(text);
    }
    return status;
}

std::wstring getstr(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
                    RegistryView view) {
    std::wstring value;
    const LSTATUS status = lookup(hive, subKey, valueName, value, view);
    if (status != ERROR_SUCCESS) {
        failLookup(subKey, valueName, status);
    }
    return value;
}

std::wstring getStored(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
                       RegistryView view) {
    std::wstring text;
    DWORD type = REG_NONE;
    const LSTATUS status = readText(hive, subKey, valueName, RRF_RT_REG_SZ, text, type, view);
    if (status != ERROR_SUCCESS) {
        failLookup(subKey, valueName, status);
    }
    return text;
}

bool keyExists(HKEY hive, const std::wstring& subKey, RegistryView view) {
    AutoRegKey key;
    const LSTATUS status = open(hive, subKey, KEY_QUERY_VALUE, view, key);
    switch (status) {
    case ERROR_SUCCESS:
    case ERROR_ACCESS_DENIED: // only a key that is there denies access
        return true;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_KEY_DELETED:
        return false;
    default:
        fail(L"Unable to open registry key (%s)", subKey, status, "registry::keyExists", __LINE__);
    }
}

std::vector<std::wstring> subkeys(HKEY hive, const std::wstring& subKey, RegistryView view) {
    std::vector<std::wstring> names;
    for (ValueName& entry : list(hive, subKey, view, &enumerateSubkey, "registry::subkeys")) {
        names.push_back(std::move(entry.name));
    }
    return names;
}

std::vector<ValueName> values(HKEY hive, const std::wstring& subKey, RegistryView view) {
    return list(hive, subKey, view, &enumerateValue, "registry::values");
}

void setString(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
               const std::wstring& value, RegistryView view, MissingKey missing) {
    if (hasZero(value)) {
        throw ArgumentException(
            formatString(L"The text for registry value (%s) has a zero character in it",
                         valueName.c_str()),
            {L"", "registry::setString", __LINE__});
    }
    writeText(hive, subKey, valueName, value, view, missing, "registry::setString");
}

void setStored(HKEY hive, const std::wstring& subKey, const std::wstring& valueName,
               const std::wstring& text, RegistryView view) {
    writeText(hive, subKey, valueName, text, view, MissingKey::Fail, "registry::setStored");
}

void setDWORD(HKEY hive, const std::wstring& subKey, const std::wstring& valueName, DWORD value,
              RegistryView view, MissingKey missing) {
    const AutoRegKey key =
        openToWrite(hive, subKey, valueName, view, missing, "registry::setDWORD");
    set(key.get(), subKey, valueName, REG_DWORD, &value, sizeof value, "registry::setDWORD");
}

} // namespace registry
