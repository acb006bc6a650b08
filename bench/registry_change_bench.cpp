// Times the scan, the change and the restore of registry values that name a directory, against bare
// loops that read, or write, each of 10,000 values once; counts the calls, releases left out.
// Prints medians of eleven rounds, in each of which all have their turn.
//
//     registry_change_bench DIRECTORY     an existing directory, which the values name
//
// The values lie in 100 keys below HKEY_CURRENT_USER and are gone afterwards.
#include "bench/telling_failures.h"
#include "relocation/vhosts/multiple_key_value_change.h"
#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/text.h"
#include "tests/support/fault_sweep.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>
#include <windows.h>

namespace {

constexpr int keyCount = 100;
constexpr int valuesPerKey = 100;
constexpr int valueCount = keyCount * valuesPerKey;
constexpr std::size_t rounds = 11;

void check(LSTATUS status, const wchar_t* detail, int line) {
    if (status != ERROR_SUCCESS) {
        _throwError(detail, static_cast<DWORD>(status), {L"", "registry_change_bench", line});
    }
}

class Values {
public:
    // One of each step values names something in the directory.
    Values(const std::wstring& directory, int step) {
        for (int i = 0; i < valuesPerKey; ++i) {
            const std::wstring number = std::to_wstring(i);
            names_.push_back(L"value" + number);
            texts_.push_back((i % step == 0 ? directory : L"C:\\elsewhere") +
                             L"\\example.com\\httpdocs\\" + number);
            for (int key = 0; key < keyCount; ++key) {
                registry::setString(HKEY_CURRENT_USER, key_ + L"\\" + std::to_wstring(key),
                                    names_.back(), texts_.back(), RegistryView::View64,
                                    registry::MissingKey::Create);
            }
        }
    }
    ~Values() { ::RegDeleteTreeW(HKEY_CURRENT_USER, key_.c_str()); }
    Values(const Values&) = delete;
    Values& operator=(const Values&) = delete;

    const std::wstring& key() const noexcept { return key_; }

    // One call a value, and each key opened once.
    void readAll() const {
        forEachKey(KEY_QUERY_VALUE, [](HKEY key) {
            for (DWORD i = 0; i < valuesPerKey; ++i) {
                std::array<wchar_t, 64> name{};
                std::array<wchar_t, 512> text{};
                DWORD length = static_cast<DWORD>(name.size());
                DWORD bytes = sizeof text;
                check(::RegEnumValueW(key, i, name.data(), &length, nullptr, nullptr,
                                      reinterpret_cast<BYTE*>(text.data()), &bytes),
                      L"Unable to read", __LINE__);
            }
        });
    }
    void writeAll() const {
        forEachKey(KEY_SET_VALUE, [this](HKEY key) {
            for (std::size_t i = 0; i < names_.size(); ++i) {
                check(
                    ::RegSetValueExW(key, names_[i].c_str(), 0, REG_SZ,
                                     reinterpret_cast<const BYTE*>(texts_[i].c_str()),
                                     static_cast<DWORD>((texts_[i].size() + 1) * sizeof(wchar_t))),
                    L"Unable to write", __LINE__);
            }
        });
    }

private:
    void forEachKey(REGSAM access, const std::function<void(HKEY)>& use) const {
        for (int i = 0; i < keyCount; ++i) {
            RunTime::AutoRegKey key;
            check(::RegOpenKeyExW(HKEY_CURRENT_USER, (key_ + L"\\" + std::to_wstring(i)).c_str(), 0,
                                  access | KEY_WOW64_64KEY, key.put()),
                  L"Unable to open", __LINE__);
            use(key.get());
        }
    }

    const std::wstring key_ = L"Software\\ZopBench" + std::to_wstring(::GetCurrentProcessId());
    std::vector<std::wstring> names_;
    std::vector<std::wstring> texts_;
};

class Step {
public:
    Step(const char* name, int values, std::function<void()> run)
        : name_(name), values_(values), run_(std::move(run)) {}

    void time() {
        const auto start = std::chrono::steady_clock::now();
        run_();
        seconds_.push_back(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }

    void count() {
        for (const auto& [function, calls] : countCalls(run_)) {
            (function.starts_with("Reg") ? registryCalls_ : otherCalls_) += calls;
        }
    }

    double perValue() {
        std::sort(seconds_.begin(), seconds_.end());
        return seconds_[seconds_.size() / 2] / values_;
    }

    void print(Step& bare) {
        std::printf("%-14s %10.0f %8.2f %10.2f %8.2f\n", name_, 1 / perValue(),
                    perValue() / bare.perValue(), static_cast<double>(registryCalls_) / values_,
                    static_cast<double>(otherCalls_) / values_);
    }

private:
    const char* name_;
    int values_;
    std::function<void()> run_;
    std::vector<double> seconds_;
    long registryCalls_ = 0;
    long otherCalls_ = 0;
};

void measure(const std::wstring& directory, int step) {
    const Values values(directory, step);
    InstallerPaths paths(HKEY_CURRENT_USER, values.key());
    const int following = valueCount / step;
    Step read("bare read", valueCount, [&] { values.readAll(); });
    Step save("scan", valueCount, [&] { paths.save(directory); });
    Step change("change", following, [&] { paths.change(L"C:\\another directory"); });
    Step restore("restore", following, [&] { paths.restore(); });
    Step write("bare write", valueCount, [&] { values.writeAll(); });
    Step* const steps[] = {&read, &save, &change, &restore, &write};
    for (std::size_t round = 0; round < rounds; ++round) {
        for (Step* each : steps) {
            each->time();
        }
    }
    for (Step* each : steps) {
        each->count();
    }
    if (paths.entries().size() != static_cast<std::size_t>(following)) {
        throw std::runtime_error("the scan did not find what it should");
    }
    std::printf("\n%d of %d values name the directory\n%-14s %10s %8s %10s %8s\n", following,
                valueCount, "", "values/s", "ratio", "registry", "others");
    read.print(read);
    save.print(read);
    write.print(write);
    change.print(write);
    restore.print(write);
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        std::fputs("registry_change_bench DIRECTORY\n", stderr);
        return 2;
    }
    return tellingFailures([&] {
        const std::wstring directory = RunTime::nicePath(RunTime::longPath(arguments[1]));
        measure(directory, 1);
        measure(directory, 10);
        return 0;
    });
}
