// Times the import of disk security policies of 500, 5,000 and 50,000 entries, so that it shows how
// the cost grows. Prints medians of seven imports; half of the entries name one of 200 accounts.
#include "runtime/exception.h"
#include "runtime/text.h"
#include "security/disk/config_importer.h"
#include "security/disk/entry_collections.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>

namespace {

// Counts the questions. The answer costs nothing, as none is asked twice in a file.
class CountingLookup final : public DiskSecurity::AccountLookup {
public:
    int calls = 0;
    RunTime::Sid lookup(const std::wstring& account, const std::wstring&) override {
        ++calls;
        return RunTime::Sid(L"S-1-5-21-1-2-3-" + account.substr(4));
    }
};

std::string policy(int entries) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<DiskSecurity>\n";
    for (int i = 0; i < entries; ++i) {
        const std::string number = std::to_string(i);
        xml += "  <Entry AccounType=\"";
        xml += i % 2 == 0 ? "0\" Account=\"Administrators\""
                          : "1\" Account=\"user" + std::to_string(1000 + i % 400) + "\"";
        xml += " Domain=\"\" SidStr=\"\" Path=\"C:\\vhosts\\example" + number;
        xml += ".com\" SubPath=\"httpdocs\" AccessMask=\"Modify\"";
        xml += " AceFlags=\"ThisFolderSubfoldersAndFiles\" EntryFlags=\"0x10\" Tag=\"domain\"";
        xml += " Tag2=\"" + number + "\"/>\n";
    }
    return xml + "</DiskSecurity>\n";
}

template <class Function>
double medianOf(Function function) {
    std::array<double, 7> runs{};
    for (double& run : runs) {
        const auto start = std::chrono::steady_clock::now();
        function();
        run = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
                  .count();
    }
    std::sort(runs.begin(), runs.end());
    return runs[runs.size() / 2];
}

void measure(int count) {
    const auto lookup = std::make_shared<CountingLookup>();
    DiskSecurity::ConfigImporter importer(lookup);
    DiskSecurity::PathVariables variables;
    const std::string xml = policy(count);
    std::vector<DiskSecurity::PolicyEntry> entries;
    const double vetted = medianOf([&] { const DiskSecurity::PolicyText text(xml); });
    lookup->calls = 0;
    const double imported = medianOf([&] { entries = importer.importBytes(xml, L"p.xml"); });
    const int calls = lookup->calls / 7;
    const double collected = medianOf([&] { DiskSecurity::collectEntries(entries, variables); });
    const double exported = medianOf([&] { DiskSecurity::exportEntries(entries); });
    std::printf("%7d entries %6.1f MB  vet %7.1f  import %7.1f ms (%5.1f us each)  %d look-ups  "
                "collect %6.1f  export %6.1f ms\n",
                count, static_cast<double>(xml.size()) / 1048576, vetted, imported,
                imported * 1000 / count, calls, collected, exported);
}

} // namespace

int wmain() {
    try {
        for (const int count : {500, 5'000, 50'000}) {
            measure(count);
        }
        return 0;
    } catch (const vexception& e) {
        std::printf("%s\n", toUtf8(e.what()).c_str());
        return 1;
    }
}
