#include "tests/panel/panel.h"

#include "runtime/auto_handle.h"
#include "runtime/database/zop_database.h"
#include "runtime/files/file.h"
#include "runtime/format_string.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"
#include "tests/panel/netapi32/account_store.h"
#include "tests/support/child_program.h"
#include "tests/support/tree_image.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <lmaccess.h> // after windows.h
#include <random>
#include <sstream>
#include <stdexcept>
#include <windows.h>

namespace panel {

namespace {

constexpr wchar_t installerKey[] = L"SOFTWARE\\TARVO\\Installer";

// What directories of web sites are called, and what programs that take names apart fall over.
constexpr const wchar_t* names[] = {
    L"Shop",      L"b\u00FCcher",
    L"o'brien",   L"\u043F\u0440\u0438\u043C\u0435\u0440",
    L"100%d",     L"\u4F8B\u3048",
    L"a & b",     L"\U0001F600 smile",
    L"%PATH%",    L"\u0645\u062B\u0627\u0644",
    L"{x} [y] z", L"stra\u00DFe",
};

void set(const wchar_t* name, const std::wstring& text) {
    registry::setString(HKEY_LOCAL_MACHINE, config::configKey, name, text, RegistryView::View32,
                        registry::MissingKey::Create);
}

void setInstaller(const std::wstring& key, const wchar_t* name, const std::wstring& text,
                  DWORD type = REG_SZ) {
    RunTime::AutoRegKey opened;
    const std::wstring path = installerKey + key;
    if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0,
                          KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, opened.put(),
                          nullptr) != ERROR_SUCCESS ||
        ::RegSetValueExW(opened.get(), name, 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                         static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))) !=
            ERROR_SUCCESS) {
        throw std::runtime_error("Unable to write " + toUtf8(path));
    }
}

// Where this process's HKEY_LOCAL_MACHINE lies below HKEY_CURRENT_USER; empty: it is the real one.
std::wstring redirectedRegistry() {
    using Query = LONG(NTAPI*)(HANDLE, int, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<Query>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQueryKey")));
    constexpr int keyNameInformation = 3;
    RunTime::AutoRegKey key;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE", 0, KEY_QUERY_VALUE, key.put());
    alignas(8) char buffer[4096];
    ULONG size = 0;
    if (query(key.get(), keyNameInformation, buffer, sizeof buffer, &size) != 0) {
        throw std::runtime_error("The registry key has no name");
    }
    ULONG length = 0; // in front of the name: its bytes
    std::memcpy(&length, buffer, sizeof length);
    const std::wstring path(reinterpret_cast<const wchar_t*>(buffer + 4), length / 2);
    constexpr std::wstring_view users = L"\\Registry\\User\\";
    if (!RunTime::beginsWith(path, users)) {
        return {};
    }
    const std::size_t begin = path.find(L'\\', users.size()) + 1;
    return path.substr(begin, path.rfind(L'\\') - begin);
}

// Gives a file that lies beside the tests another place, which takes no time where that can be.
void link(const std::wstring& file, const std::wstring& target) {
    const std::wstring source = besideTests(file);
    if (!::CreateHardLinkW(target.c_str(), source.c_str(), nullptr) &&
        !::CopyFileW(source.c_str(), target.c_str(), TRUE)) {
        throw std::runtime_error("Unable to copy " + toUtf8(source));
    }
}

// Adds rows, many with one statement.
void insert(VDatabase& database, const std::wstring& table,
            const std::vector<std::vector<VDatabase::Value>>& rows) {
    constexpr std::size_t most = 200;
    for (std::size_t at = 0; at < rows.size(); at += most) {
        std::wstring sql = L"insert into " + table + L" values ";
        VDatabase::Values values;
        for (std::size_t i = at; i < std::min(rows.size(), at + most); ++i) {
            std::wstring marks;
            for (const VDatabase::Value& value : rows[i]) {
                marks += marks.empty() ? L"?" : L",?";
                values.push_back(value);
            }
            sql += (i == at ? L"(" : L",(") + marks + L")";
        }
        database.execute(sql, values);
    }
}

std::uint64_t hash(const std::string& bytes) {
    std::uint64_t value = 14695981039346656037U;
    for (const unsigned char byte : bytes) {
        value = (value ^ byte) * 1099511628211U;
    }
    return value;
}

void addTitle(std::string& text, const std::wstring& title) {
    text.append("\n[").append(toUtf8(title)).append("]\n");
}

void addPlace(std::string& text, const std::wstring& place) {
    const TreeImage image = imageOf(place);
    addTitle(text, place);
    text += image.empty() ? "not there\n" : "";
    for (const auto& [name, item] : image) {
        if (name.starts_with(L"var\\stand-in") || name.starts_with(L"admin\\bin")) {
            continue; // the stand-ins are no part of what they stand for
        }
        // "var": a move keeps its record there while it works.
        const bool madeAnew = name.empty() || name == L"var" || name.starts_with(L"Servers");
        text += toUtf8(formatString(L"%s | %d %lx %lld bytes %016llx, written %lld", name.c_str(),
                                    static_cast<int>(item.kind), item.attributes, item.size,
                                    hash(item.content), madeAnew ? 0 : item.written)) +
                " " + std::to_string(hash(item.security)) + item.reparse;
        for (const auto& [stream, content] : item.streams) {
            text.append(" ").append(toUtf8(stream)).append(std::to_string(hash(content)));
        }
        text += item.error != 0 ? std::string(" error ") + std::to_string(item.error) : "";
        text += "\n";
    }
}

void addDriveRoot(std::string& text, const std::wstring& drive) {
    addTitle(text, drive);
    const RunTime::AutoHandle root = RunTime::openPinnedDirectory(drive);
    RunTime::DirectoryLister entries(root.get(), drive);
    for (RunTime::FileInformation entry; entries.next(entry);) {
        text += toUtf8(entry.name) + "\n";
    }
}

void addRegistry(std::string& text, const std::wstring& key, RegistryView view) {
    if (!registry::keyExists(HKEY_LOCAL_MACHINE, key, view)) {
        return;
    }
    RunTime::AutoRegKey opened;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0,
                    KEY_QUERY_VALUE |
                        (view == RegistryView::View32 ? KEY_WOW64_32KEY : KEY_WOW64_64KEY),
                    opened.put());
    for (const registry::ValueName& value : registry::values(HKEY_LOCAL_MACHINE, key, view)) {
        wchar_t data[2048] = L"";
        DWORD size = sizeof data - sizeof(wchar_t);
        ::RegQueryValueExW(opened.get(), value.name.c_str(), nullptr, nullptr,
                           reinterpret_cast<BYTE*>(data), &size);
        text +=
            toUtf8(key + L" | " + value.name + L" | " + std::to_wstring(value.type) + L" | " +
                   (value.type == REG_DWORD ? std::to_wstring(data[0] | data[1] << 16) : data)) +
            "\n";
    }
    for (const std::wstring& subkey : registry::subkeys(HKEY_LOCAL_MACHINE, key, view)) {
        addRegistry(text, key + L"\\" + subkey, view);
    }
}

void addTables(std::string& text) {
    ZOPDatabase panel = ZOPDatabase::connect();
    for (const auto& [table, rest] :
         {std::pair(L"sys_users", L" order by id"), std::pair(L"domains", L" order by id"),
          std::pair(L"hosting", L" order by dom_id"), std::pair(L"ftp_users", L" order by id"),
          std::pair(L"ServiceNodeEnvironment", L" where name <> 'synced' order by 2, 3")}) {
        const auto rows = panel.database().query(std::wstring(L"select * from ") + table + rest);
        while (rows->next()) {
            text += toUtf8(table);
            for (const std::wstring& column : rows->columns()) {
                text.append(" | ").append(toUtf8(rows->text(column).value_or(L"NULL")));
            }
            text += "\n";
        }
    }
}

// In upper case, with backslashes and one at the end.
std::wstring comparable(std::wstring text) {
    ::CharUpperBuffW(text.data(), static_cast<DWORD>(text.size()));
    std::replace(text.begin(), text.end(), L'/', L'\\');
    return text + L'\\';
}

bool hasDatabase() {
    return std::getenv("ZOP_TEST_DB_PORT") != nullptr;
}

} // namespace

Panel::Panel(const std::wstring& base, const Options& options) : base_(base), options_(options) {
    std::mt19937 random(options.seed);
    for (int i = 0; i < options.domains; ++i) {
        const std::wstring number = std::to_wstring(i + 1);
        Domain domain{names[i % std::size(names)] + number + L".example", {}, {}, i % 10 != 2};
        domain.directory = vhosts() + L"\\" + domain.name;
        domain.www =
            (i % 10 == 1 ? elsewhere() + L"\\" + domain.name : domain.directory) + L"\\www";
        const auto addAccount = [&](const std::wstring& login, const std::wstring& below) {
            accounts_.push_back({login + number, domain.directory + below,
                                 std::uint64_t{random() % 4} << 30, domain.name});
        };
        if (domain.hosted) {
            addAccount(i % 4 == 1 ? L"m\u00FCller" : L"d", L"");
        }
        if (i % 2 == 0) {
            addAccount(L"web", L"\\web_users\\web" + number);
        }
        if (i % 3 == 0) {
            addAccount(L"ftp", L"\\www\\images");
        }
        if (i % 5 == 0) {
            addAccount(L"gone", L"\\web_users\\gone");
        }
        domains_.push_back(std::move(domain));
    }
}

void Panel::build() const {
    makeTree();
    makeProduct();
    makeRegistry();
    std::vector<Setting> made = settings();
    if (hasDatabase()) {
        fillDatabase();
        for (const Account& account : accounts_) {
            made.push_back({L"ftp", account.login,
                            RunTime::isDirectory(account.home) ? L"home" : L"missing home",
                            account.home});
        }
    }
    store().write(made);
}

void Panel::makeTree() const {
    std::mt19937 random(options_.seed);
    TreeBuilder other(elsewhere());
    other.file(L"wwwroot\\index.html", "default");
    TreeBuilder tree(vhosts());
    std::string users;
    for (const Account& account : accounts_) {
        users += toUtf8(account.login) + "\n";
    }
    tree.file(L"Servers\\users.txt", users)
        .file(L"webmail\\atmail\\index.php", "<?php")
        .file(L"webmail\\atmail\\libs\\Atmail\\config.php",
              "<?php\n$root = '" + toUtf8(vhosts()) + "\\webmail';\n$log = \"" + toUtf8(vhosts()) +
                  "\\webmail\\log\";\n$other = '" + toUtf8(elsewhere()) + "';\n");
    for (std::size_t i = 0; i < domains_.size(); ++i) {
        const Domain& domain = domains_[i];
        const std::wstring& in = domain.name;
        tree.file(in + L"\\www\\index.html", "<h1>" + toUtf8(in) + "</h1>")
            .file(in + L"\\www\\images\\logo.png",
                  sampleBytes(1000 + random() % 10000, static_cast<unsigned>(i)))
            .file(in + L"\\logs\\access.log", std::string(random() % 3000, '.'))
            .file(in + L"\\logs\\empty.log")
            .directory(in + L"\\private", FILE_ATTRIBUTE_HIDDEN)
            .file(in + L"\\private\\passwords", "secret",
                  FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN)
            .directory(in + L"\\cgi-bin");
        if (i % 2 == 0) {
            tree.file(in + L"\\web_users\\web" + std::to_wstring(i + 1) + L"\\page.html", "page");
        }
        for (int file = 0; file < options_.files; ++file) {
            tree.file(formatString(L"%s\\www\\part %d\\page %d.html", in.c_str(), file / 20, file),
                      std::string(100 + random() % 2000, 'p'),
                      random() % 20 == 0 ? DWORD{FILE_ATTRIBUTE_READONLY} : 0);
        }
        if (i % 10 == 0) {
            const std::wstring part(90, L'l');
            tree.file(in + L"\\www\\" + part + L"1\\" + part + L"2\\" + part + L"3\\deep", "deep");
        }
        if (i % 10 == 1) {
            other.file(in + L"\\www\\index.html", "elsewhere");
        }
        if (options_.streams && i % 4 == 0) {
            tree.file(in + L"\\www\\index.html:zone", "stream");
        }
        if (options_.links && i % 4 == 0) {
            tree.link(in + L"\\www\\link", "images").link(in + L"\\www\\broken", "/nowhere");
        }
    }
}

void Panel::makeProduct() const {
    TreeBuilder(productRoot())
        .directory(L"var\\stand-in")
        .directory(L"admin\\bin")
        .directory(L"admin\\bin64")
        .file(L"admin\\modlib\\cu\\repair.php", "<?php");
    for (const auto& [from, to] :
         {std::pair(L"panel\\panel_utilities.exe", L"\\admin\\bin64\\webhostctl.exe"),
          std::pair(L"panel\\panel_utilities.exe", L"\\admin\\bin64\\ftphostctl.exe"),
          std::pair(L"panel\\panel_utilities.exe", L"\\admin\\bin\\relink_tool.exe"),
          std::pair(L"panel\\panel_php.exe", L"\\admin\\bin64\\php.exe")}) {
        link(from, productRoot() + to);
    }
}

std::wstring Panel::install(const wchar_t* program) const {
    for (const Account& account : accounts_) {
        setText(userPath(account.login), L"home", account.home.c_str());
        setNumber(userPath(account.login), L"flags", UF_NORMAL_ACCOUNT);
    }
    const std::wstring directory = productRoot() + L"\\admin\\bin64\\";
    const std::wstring key =
        std::wstring(L"Software\\Wine\\AppDefaults\\") + program + L"\\DllOverrides";
    for (const wchar_t* dll : {L"netapi32", L"wtsapi32"}) {
        link(std::wstring(L"panel\\") + dll + L".dll", directory + dll + L".dll");
        constexpr wchar_t order[] = L"native,builtin";
        ::RegSetKeyValueW(HKEY_CURRENT_USER, key.c_str(), dll, REG_SZ, order, sizeof order);
    }
    link(program, directory + program);
    return directory + program;
}

void Panel::makeRegistry() const {
    set(config::name::productRoot, productRoot());
    set(config::name::productData, productRoot() + L"\\var");
    set(config::name::vhosts, vhosts());
    if (hasDatabase()) {
        const auto environment = [](const char* name) { return toWide(std::getenv(name)); };
        set(config::name::mySqlHost, environment("ZOP_TEST_DB_HOST"));
        set(config::name::mySqlLogin, environment("ZOP_TEST_DB_USER"));
        set(config::name::mySqlPassword, environment("ZOP_TEST_DB_PASSWORD"));
        set(config::name::mySqlDatabase, L"zop_test");
        registry::setDWORD(HKEY_LOCAL_MACHINE, config::configKey, config::name::mySqlPort,
                           static_cast<DWORD>(std::atoi(std::getenv("ZOP_TEST_DB_PORT"))),
                           RegistryView::View32);
    }
    std::wstring shouted = vhosts();
    ::CharUpperW(shouted.data());
    setInstaller(L"", L"InstallDir", productRoot());
    setInstaller(L"", L"VHostsDir", vhosts());
    setInstaller(L"", L"Empty", L"");
    setInstaller(L"", L"Neighbour", vhosts() + L"2\\x");
    setInstaller(L"\\Components\\Webmail", L"Path", shouted + L"\\webmail\\");
    setInstaller(L"\\Components\\Webmail", L"ShortPath",
                 RunTime::shortPath(domains_.empty() ? vhosts() : domains_[0].directory));
    setInstaller(L"\\Components\\Webmail", L"Expandable", vhosts(), REG_EXPAND_SZ);
    setInstaller(L"\\Components\\FTP\\Servers", L"", vhosts() + L"\\Servers");
}

void Panel::removeRegistry() {
    for (const auto& [key, view] : {std::pair(L"SOFTWARE\\Tarvo", KEY_WOW64_32KEY),
                                    std::pair(L"SOFTWARE\\TARVO", KEY_WOW64_64KEY)}) {
        RunTime::AutoRegKey opened;
        ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_ALL_ACCESS | view, opened.put());
        ::RegDeleteTreeW(opened.get(), view == KEY_WOW64_32KEY ? L"ZOP Config" : L"Installer");
    }
    deleteAccount(L"Users");
}

void Panel::fillDatabase() const {
    ZOPDatabase connection = ZOPDatabase::connect();
    VDatabase& database = connection.database();
    VDatabase::Transaction transaction(database);
    for (const wchar_t* table :
         {L"ftp_users", L"hosting", L"domains", L"sys_users", L"ServiceNodeEnvironment"}) {
        database.execute(std::wstring(L"delete from ") + table);
    }
    std::vector<std::vector<VDatabase::Value>> domains, users, hostings, ftp;
    for (std::size_t i = 0; i < accounts_.size(); ++i) {
        users.push_back(
            {i + 1, accounts_[i].login, L"secret", accounts_[i].home, accounts_[i].quota});
    }
    std::vector<std::wstring> slashed; // as other programs of the panel write paths
    slashed.reserve(domains_.size());
    for (std::size_t i = 0; i < domains_.size(); ++i) {
        const Domain& domain = domains_[i];
        domains.push_back({i + 1, domain.name, domain.hosted ? L"vrt_hst" : L"none"});
        if (domain.hosted) {
            const auto account =
                std::find_if(accounts_.begin(), accounts_.end(), [&](const Account& candidate) {
                    return candidate.domain == domain.name;
                });
            std::wstring& www = slashed.emplace_back(domain.www);
            std::replace(www.begin(), www.end(), L'\\', i % 6 == 5 ? L'/' : L'\\');
            hostings.push_back({i + 1, account - accounts_.begin() + 1, www, account->login});
        }
    }
    for (std::size_t i = 0; i < accounts_.size(); ++i) {
        if (accounts_[i].login.starts_with(L"ftp")) {
            const auto domain =
                std::find_if(domains_.begin(), domains_.end(),
                             [&](const Domain& d) { return d.name == accounts_[i].domain; });
            ftp.push_back({ftp.size() + 1, domain - domains_.begin() + 1, i + 1});
        }
    }
    insert(database, L"sys_users", users);
    insert(database, L"domains", domains);
    insert(database, L"hosting", hostings);
    insert(database, L"ftp_users", ftp);
    insert(database, L"ServiceNodeEnvironment",
           {{1, L"configuration", L"synced", L"1"},
            {1, L"os", L"synced", L"1"},
            {1, L"os", L"version", L"10"}});
    transaction.commit();
}

std::vector<Setting> Panel::settings() const {
    std::vector<Setting> made = {{L"iis", L"Default Web Site", L"root", elsewhere() + L"\\wwwroot"},
                                 {L"iis", L"webmail", L"root", vhosts() + L"\\webmail\\atmail"},
                                 {L"iis", L"Sites Preview", L"root", vhosts()}};
    if (const std::wstring redirected = redirectedRegistry(); !redirected.empty()) {
        made.insert(made.begin(), {L"registry", {}, {}, redirected});
    }
    int withoutHosting = 0;
    for (const Domain& domain : domains_) {
        if (!domain.hosted && ++withoutHosting > 1) { // the first has a left-over site
            continue;
        }
        std::wstring site = domain.name;
        ::CharUpperBuffW(site.data(), 1); // IIS keeps names as they were typed
        made.push_back({L"iis", site, L"root", domain.www});
        if (domain.hosted) {
            made.push_back({L"relink", site, L"root", domain.www});
            made.push_back({L"relink", site, L"error pages", domain.www + L"\\errors"});
            made.push_back({L"asp.net", site, L"temporary files", domain.directory + L"\\private"});
            made.push_back({L"php", site, L"open_basedir",
                            domain.www + L";C:\\windows\\temp;" + domain.directory + L"\\private"});
        }
        if (domain.www.starts_with(vhosts())) {
            made.push_back(
                {L"iis", site, L"virtual directory /logs", domain.directory + L"\\logs"});
        }
    }
    return made;
}

std::string Panel::statements() const {
    std::string text;
    addRegistry(text, config::configKey, RegistryView::View32);
    addRegistry(text, installerKey, RegistryView::View64);
    if (hasDatabase()) {
        addTables(text);
    }
    forEachName(L"Users", [&](const std::wstring& name) {
        text +=
            toUtf8(L"account | " + name + L" | " + getText(userPath(name), L"home").value_or(L"")) +
            "\n";
    });
    for (const Setting& setting : store().settings()) {
        text += toUtf8(setting.owner + L" | " + setting.name + L" | " + setting.key + L" | " +
                       setting.value) +
                "\n";
    }
    return text;
}

std::string Panel::snapshot(const std::vector<std::wstring>& places) const {
    std::vector<std::wstring> all = {productRoot(), vhosts(), elsewhere()};
    all.insert(all.end(), places.begin(), places.end());
    std::string text = statements();
    std::vector<std::wstring> drives;
    for (const std::wstring& place : all) {
        addPlace(text, place);
        const std::wstring drive = RunTime::nicePath(RunTime::volumeRoot(place));
        if (std::find(drives.begin(), drives.end(), drive) == drives.end()) {
            drives.push_back(drive);
            addDriveRoot(text, drive);
        }
    }
    return text;
}

std::string Panel::references(const std::wstring& place) const {
    const std::wstring longForm = comparable(place);
    const std::wstring shortForm =
        RunTime::exists(place) ? comparable(RunTime::shortPath(place)) : longForm;
    std::istringstream lines(statements());
    std::string found;
    for (std::string line; std::getline(lines, line);) {
        const std::wstring text = comparable(toWide(line));
        if (text.find(longForm) != text.npos || text.find(shortForm) != text.npos) {
            found += line + "\n";
        }
    }
    return found;
}

} // namespace panel
