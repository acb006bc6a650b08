#include "security/disk/path_variables.h"

#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "security/disk/well_known_folders.h"

#include <algorithm>
#include <string_view>

namespace DiskSecurity {

namespace {

constexpr const wchar_t* directoryValues[] = {
    config::name::vhosts,
    config::name::productRoot,
    config::name::productData,
    config::name::namedRunRoot,
};

constexpr std::size_t maxPath = 32'767; // characters; the system knows no longer path

[[noreturn]] void refuse(const wchar_t* format, const std::wstring& path, int line) {
    throw vexception(formatString(format, path.c_str()), {L"", "DiskSecurity::vetPaths", line});
}

std::wstring withBackslashes(std::wstring_view path) {
    std::wstring result(path);
    std::replace(result.begin(), result.end(), L'/', L'\\');
    return result;
}

// Windows takes these for devices in any directory, with any extension.
bool namesDevice(std::wstring_view name) {
    std::wstring_view stem = name.substr(0, name.find(L'.'));
    stem = stem.substr(0, stem.find_last_not_of(L' ') + 1);
    const auto is = [](std::wstring_view text) {
        return [text](const wchar_t* row) { return RunTime::equalNames(text, row); };
    };
    constexpr const wchar_t* single[] = {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"};
    constexpr const wchar_t* numbered[] = {L"COM", L"LPT"};
    return std::any_of(std::begin(single), std::end(single), is(stem)) ||
           (stem.size() == 4 &&
            std::wstring_view(L"123456789\xB9\xB2\xB3").find(stem[3]) != std::wstring_view::npos &&
            std::any_of(std::begin(numbered), std::end(numbered), is(stem.substr(0, 3))));
}

// The components of a path without its drive or variable; one backslash at either end is allowed.
void vetComponents(std::wstring_view components, const std::wstring& whole) {
    if (components.starts_with(L'\\')) {
        components.remove_prefix(1);
    }
    while (!components.empty()) {
        const std::size_t end = std::min(components.find(L'\\'), components.size());
        const std::wstring_view name = components.substr(0, end);
        if (name.empty()) {
            refuse(L"The path \"%s\" has an empty component.", whole, __LINE__);
        }
        if (name == L"..") {
            refuse(L"The path \"%s\" leads upwards.", whole, __LINE__);
        }
        // Windows cuts these off, and "x. " is then another name for "x".
        if (name.back() == L'.' || name.back() == L' ') {
            refuse(L"A name in the path \"%s\" ends in a dot or a blank.", whole, __LINE__);
        }
        if (namesDevice(name)) {
            refuse(L"A name in the path \"%s\" is that of a device.", whole, __LINE__);
        }
        if (std::any_of(name.begin(), name.end(), [](wchar_t c) {
                return c < L' ' ||
                       std::wstring_view(L"<>:\"|?*").find(c) != std::wstring_view::npos;
            })) {
            refuse(L"The path \"%s\" has a character that no name has.", whole, __LINE__);
        }
        components.remove_prefix(std::min(end + 1, components.size()));
    }
}

// Vets a path that begins with a drive. The prefix of long paths may stand before it.
std::wstring vetAbsolute(const std::wstring& path) {
    const std::wstring nice = withBackslashes(RunTime::nicePath(path));
    const wchar_t drive = nice.empty() ? L'\0' : static_cast<wchar_t>(nice[0] | 0x20);
    if (nice.size() < 3 || drive < L'a' || drive > L'z' || nice[1] != L':' || nice[2] != L'\\') {
        refuse(
            L"The path \"%s\" begins neither with a drive (C:\\) nor with a variable ([Windows]).",
            path, __LINE__);
    }
    vetComponents(std::wstring_view(nice).substr(2), path);
    return nice;
}

bool isVariable(std::wstring_view name) {
    const auto named = [&](const auto& row) { return name == row; };
    const std::span<const WellKnownFolder> folders = wellKnownFolders();
    return std::any_of(std::begin(directoryValues), std::end(directoryValues), named) ||
           std::any_of(folders.begin(), folders.end(),
                       [&](const WellKnownFolder& row) { return named(row.name); });
}

// An entry's paths, taken apart.
struct Parts {
    std::wstring variable; // empty for none
    std::wstring below;    // behind the variable, or the whole absolute path
    std::wstring subPath;
};

Parts takeApart(const std::wstring& path, const std::wstring& subPath) {
    Parts parts;
    std::size_t literal = 0;
    if (path.starts_with(L'[')) {
        const std::size_t close = path.find(L']');
        if (close == path.npos) {
            refuse(L"The bracket of the path \"%s\" is not closed.", path, __LINE__);
        }
        parts.variable = path.substr(1, close - 1);
        if (!isVariable(parts.variable)) {
            std::wstring message =
                L"Unknown path variable: " + parts.variable + L", known names are:";
            for (const std::wstring& name : pathVariableNames()) {
                message += L"\n" + name;
            }
            throw vexception(message, {L"", "DiskSecurity::vetPaths", __LINE__});
        }
        literal = close + 1;
        parts.below = withBackslashes(path.substr(literal));
        if (!parts.below.empty() && parts.below.front() != L'\\') {
            refuse(L"Behind the variable of the path \"%s\" a backslash is missing.", path,
                   __LINE__);
        }
        vetComponents(parts.below, path);
    } else {
        parts.below = vetAbsolute(path);
    }
    // A directory may well have brackets in its name, but hardly this name: it is a mistake.
    if (path.find(L'[', literal) != path.npos) {
        for (const std::wstring& name : pathVariableNames()) {
            if (path.find(L"[" + name + L"]", literal) != path.npos) {
                refuse(L"The variable in the path \"%s\" is not at its beginning.", path, __LINE__);
            }
        }
    }
    parts.subPath = withBackslashes(subPath);
    vetComponents(parts.subPath, subPath);
    return parts;
}

std::wstring read(const std::wstring& name) {
    for (const WellKnownFolder& folder : wellKnownFolders()) {
        if (name == folder.name) {
            return folder.path();
        }
    }
    std::wstring value;
    const LSTATUS status =
        registry::lookup(HKEY_LOCAL_MACHINE, config::configKey, name, value, RegistryView::View32);
    if (status != ERROR_SUCCESS) {
        _throwError(
            formatString(L"Unable to get the configuration value %s for a path", name.c_str())
                .c_str(),
            static_cast<DWORD>(status), {L"", "DiskSecurity::PathVariables::value", __LINE__});
    }
    return value;
}

} // namespace

std::vector<std::wstring> pathVariableNames() {
    std::vector<std::wstring> names(std::begin(directoryValues), std::end(directoryValues));
    for (const WellKnownFolder& folder : wellKnownFolders()) {
        names.emplace_back(folder.name);
    }
    return names;
}

void vetPaths(const std::wstring& path, const std::wstring& subPath) {
    takeApart(path, subPath);
}

void vetNames(const std::wstring& path) {
    vetComponents(withBackslashes(path), path);
}

std::wstring PathVariables::resolve(const std::wstring& path, const std::wstring& subPath) {
    Parts parts = takeApart(path, subPath);
    std::wstring whole = parts.variable.empty() ? std::wstring() : value(parts.variable);
    for (std::wstring* part : {&parts.below, &parts.subPath}) {
        const std::wstring_view tail =
            std::wstring_view(*part).substr(part->starts_with(L'\\') ? 1 : 0);
        if (whole.empty() || tail.empty()) {
            whole += tail;
        } else {
            whole = RunTime::combine(whole, tail);
        }
    }
    whole = RunTime::withoutTrailingBackslash(whole);
    if (whole.size() > maxPath) {
        refuse(L"The path \"%s\" is too long.", whole.substr(0, 100) + L"...", __LINE__);
    }
    return whole;
}

const std::wstring& PathVariables::value(const std::wstring& name) {
    const auto known = values_.find(name);
    if (known != values_.end()) {
        return known->second;
    }
    if (!isVariable(name)) {
        takeApart(L"[" + name + L"]", {});
    }
    std::wstring path = read(name);
    try {
        path = vetAbsolute(path);
    } catch (vexception& e) {
        e += {L"The value of the path variable " + name, "DiskSecurity::PathVariables::value",
              __LINE__};
        throw;
    }
    return values_.emplace(name, std::move(path)).first->second;
}

} // namespace DiskSecurity
