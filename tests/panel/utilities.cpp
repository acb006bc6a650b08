// ftphostctl, webhostctl and relink_tool: each by the name that the file has. They change what
// they keep (tests/panel/store.h) as the real ones would change IIS.
#include "tests/panel/utility.h"

#include "runtime/files/path.h"

#include <algorithm>

using panel::Failure;
using panel::Setting;
using panel::Utility;

namespace {

std::wstring escaped(const std::wstring& text) {
    std::wstring result;
    for (const wchar_t c : text) {
        result += c == L'&'   ? L"&amp;"
                  : c == L'<' ? L"&lt;"
                  : c == L'"' ? L"&quot;"
                              : std::wstring(1, c);
    }
    return result;
}

void printSites(const Utility& utility) {
    std::wstring list = L"<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<sites>\r\n";
    for (const Setting& setting : utility.store().settings()) {
        if (setting.owner == L"iis" && setting.key == L"root") {
            list += L"  <site name=\"" + escaped(setting.name) + L"\" path=\"" +
                    escaped(setting.value) + L"\"/>\r\n";
        }
    }
    panel::print(list + L"</sites>\r\n");
}

// Rewrites what the owner keeps of one site and lies below the old path. The new path is the new
// place of the old one, or that of the site's own root.
void updateSite(const Utility& utility, const wchar_t* owner, bool mustExist) {
    const std::wstring site = utility.value(L"--site-name");
    const std::wstring from = utility.directory(L"--old-path");
    std::wstring to = utility.directory(L"--new-path");
    std::vector<Setting> settings = utility.store().settings();
    const auto ours = [&](const Setting& setting) {
        return setting.owner == owner && RunTime::equalNames(setting.name, site);
    };
    const auto root = std::find_if(settings.begin(), settings.end(), [&](const Setting& setting) {
        return ours(setting) && setting.key == L"root";
    });
    if (root == settings.end()) {
        if (mustExist) {
            throw Failure(1, L"There is no site \"" + site + L"\"");
        }
        return;
    }
    if (const std::wstring below = panel::rebased(root->value, from, L"");
        below.starts_with(L'\\') && to.size() > below.size() &&
        RunTime::equalNames(to.substr(to.size() - below.size()), below)) {
        to.resize(to.size() - below.size());
    }
    for (Setting& setting : settings) {
        if (ours(setting)) {
            setting.value = panel::rebased(setting.value, from, to);
        }
    }
    utility.store().write(settings);
}

// Of all sites, what the owner keeps: paths, with semicolons between them.
void reconfigure(const Utility& utility, const wchar_t* owner) {
    const std::wstring from = utility.directory(L"--old-path");
    const std::wstring to = Utility::vhosts();
    std::vector<Setting> settings = utility.store().settings();
    for (Setting& setting : settings) {
        if (setting.owner == owner) {
            std::wstring changed;
            std::size_t begin = 0;
            for (std::size_t end = 0; end != std::wstring::npos; begin = end + 1) {
                end = setting.value.find(L';', begin);
                changed += (begin == 0 ? L"" : L";") +
                           panel::rebased(setting.value.substr(begin, end - begin), from, to);
            }
            setting.value = changed;
        }
    }
    utility.store().write(settings);
}

void work(const Utility& utility) {
    const auto is = [&](const wchar_t* name, const wchar_t* option) {
        return utility.name() == name && utility.has(option);
    };
    if (is(L"ftphostctl.exe", L"--remove-all")) {
        std::vector<Setting> settings = utility.store().settings();
        std::erase_if(settings, [](const Setting& setting) { return setting.owner == L"ftp"; });
        utility.store().write(settings);
    } else if (is(L"webhostctl.exe", L"--get-sites-root-path")) {
        printSites(utility);
    } else if (is(L"webhostctl.exe", L"--update-site-paths")) {
        updateSite(utility, L"iis", true);
    } else if (is(L"relink_tool.exe", L"--update-site-paths")) {
        updateSite(utility, L"relink", false);
    } else if (is(L"relink_tool.exe", L"--reconfigure-aspnet-settings")) {
        reconfigure(utility, L"asp.net");
    } else if (is(L"relink_tool.exe", L"--reconfigure-php-settings")) {
        reconfigure(utility, L"php");
    } else {
        throw Failure(2, L"Unknown command");
    }
}

} // namespace

int wmain(int count, wchar_t* words[]) {
    return Utility({words + 1, words + count}).run(work);
}
