// php.exe, which runs one script: repair.php.
#include "tests/panel/utility.h"

#include "runtime/database/zop_database.h"
#include "runtime/files/file.h"
#include "runtime/text.h"

#include <filesystem>
#include <fstream>

using panel::Failure;
using panel::Setting;
using panel::Utility;

namespace {

// The directories of all domains with hosting must be in their place by now.
void repairWebspaces() {
    const std::wstring vhosts = Utility::vhosts();
    ZOPDatabase database = ZOPDatabase::connect();
    const auto domains = database.enumDomains();
    int repaired = 0;
    while (domains->next()) {
        const std::wstring directory = vhosts + L"\\" + domains->value(L"name");
        if (domains->value(L"htype") == L"none") {
            continue;
        }
        if (!RunTime::isDirectory(directory)) {
            throw Failure(1, L"There is no directory " + directory);
        }
        ++repaired;
    }
    panel::print(L"Repaired: " + std::to_wstring(repaired) + L"\n");
}

// The sites are made anew from what the database says: a home for each account, and a list in the
// directory that the FTP server has among the virtual hosts.
void reconfigureFtp(const Utility& utility) {
    std::vector<Setting> settings = utility.store().settings();
    std::erase_if(settings, [](const Setting& setting) { return setting.owner == L"ftp"; });
    ZOPDatabase database = ZOPDatabase::connect();
    const auto users = database.enumUsers();
    std::string list;
    while (users->next()) {
        const std::wstring home = users->value(L"home");
        settings.push_back({L"ftp", users->value(L"login"),
                            RunTime::isDirectory(home) ? L"home" : L"missing home", home});
        list += toUtf8(users->value(L"login")) + "\n";
    }
    utility.store().write(settings);
    const std::filesystem::path servers = std::filesystem::path(Utility::vhosts()) / L"Servers";
    std::filesystem::create_directory(servers);
    std::ofstream(servers / L"users.txt", std::ios::binary) << list;
}

void work(const Utility& utility) {
    if (utility.arguments().size() != 2 ||
        !RunTime::equalNames(utility.arguments()[0],
                             utility.productRoot() + L"\\admin\\modlib\\cu\\repair.php") ||
        !RunTime::exists(utility.arguments()[0])) {
        throw Failure(1, L"Could not open input file");
    }
    if (utility.has(L"--repair-all-webspaces-security")) {
        repairWebspaces();
    } else if (utility.has(L"--reconfigure-ftp-sites")) {
        reconfigureFtp(utility);
    } else {
        throw Failure(2, L"Unknown option");
    }
}

} // namespace

int wmain(int count, wchar_t* words[]) {
    return Utility({words + 1, words + count}).run(work);
}
