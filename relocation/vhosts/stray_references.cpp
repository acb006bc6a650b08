#include "relocation/vhosts/stray_references.h"

#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::int64_t maxFileBytes = 1024 * 1024;
constexpr std::size_t maxNames = 100'000; // a search that takes longer is no preflight any more

bool isTextFile(const std::wstring& name) {
    constexpr const wchar_t* endings[] = {L".conf", L".config", L".cfg", L".ini", L".inc",
                                          L".xml",  L".json",   L".php", L".txt", L".properties"};
    return std::any_of(std::begin(endings), std::end(endings), [&](std::wstring_view ending) {
        return name.size() > ending.size() &&
               RunTime::equalNames(name.substr(name.size() - ending.size()), ending);
    });
}

// UTF-16 by its mark, otherwise UTF-8.
std::wstring decode(const std::string& bytes) {
    if (!bytes.starts_with("\xFF\xFE")) {
        return toWide(bytes);
    }
    std::wstring text((bytes.size() - 2) / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data() + 2, text.size() * sizeof(wchar_t));
    return text;
}

} // namespace

void StrayReferences::searchRegistry(const std::wstring& key, RegistryView view,
                                     const IsCovered& isCovered) {
    std::vector<std::wstring> keys{key}; // a list: keys may lie deeper than the stack allows
    for (std::size_t seen = 0; !keys.empty() && seen < maxNames; ++seen) {
        ThreadCancelation::check();
        const std::wstring current = std::move(keys.back());
        keys.pop_back();
        try {
            if (!registry::keyExists(HKEY_LOCAL_MACHINE, current, view)) {
                continue;
            }
            searchKey(current, view, isCovered);
            for (const std::wstring& name : registry::subkeys(HKEY_LOCAL_MACHINE, current, view)) {
                keys.push_back(current + L"\\" + name);
            }
        } catch (const CanceledException&) {
            throw;
        } catch (const vexception&) {
            // not ours to read, or gone
        }
    }
}

void StrayReferences::searchKey(const std::wstring& key, RegistryView view,
                                const IsCovered& isCovered) {
    for (const registry::ValueName& value : registry::values(HKEY_LOCAL_MACHINE, key, view)) {
        std::wstring text;
        if ((value.type == REG_SZ || value.type == REG_EXPAND_SZ) && !isCovered(key, value.name) &&
            registry::lookup(HKEY_LOCAL_MACHINE, key, value.name, text, view) == ERROR_SUCCESS &&
            place_.isIn(text)) {
            add(L"HKEY_LOCAL_MACHINE\\" + key + L"\\" +
                (value.name.empty() ? L"(default)" : value.name));
        }
    }
}

void StrayReferences::searchFiles(const std::wstring& directory) {
    std::vector<std::wstring> directories{RunTime::longPath(directory)};
    for (std::size_t seen = 0; !directories.empty() && seen < maxNames;) {
        const std::wstring current = std::move(directories.back());
        directories.pop_back();
        try {
            const RunTime::AutoHandle handle = RunTime::openPinnedDirectory(current, 1);
            if (!handle) {
                continue;
            }
            RunTime::DirectoryLister lister(handle.get(), current);
            for (RunTime::FileInformation entry; lister.next(entry); ++seen) {
                ThreadCancelation::check();
                if (RunTime::isDotEntry(entry.name) || entry.isLink()) {
                    continue;
                }
                if (entry.isDirectory()) {
                    directories.push_back(RunTime::combine(current, entry.name));
                } else if (isTextFile(entry.name) && entry.size <= maxFileBytes) {
                    searchFile(RunTime::combine(current, entry.name));
                }
            }
        } catch (const vosexception&) {
            // not ours to read, or gone
        }
    }
}

void StrayReferences::searchFile(const std::wstring& path) {
    const RunTime::AutoHandle file = RunTime::openExisting(
        path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
    std::string bytes(static_cast<std::size_t>(maxFileBytes), '\0');
    DWORD count = 0;
    if (!file ||
        !::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr)) {
        return;
    }
    bytes.resize(count);
    if (place_.isIn(decode(bytes))) {
        add(RunTime::nicePath(path));
    }
}

// The two views of the registry may be one.
void StrayReferences::add(const std::wstring& reference) {
    std::wstring folded = reference;
    ::CharLowerBuffW(folded.data(), static_cast<DWORD>(folded.size()));
    if (known_.insert(std::move(folded)).second && found_.size() < limit_) {
        found_.push_back(reference);
    }
}
