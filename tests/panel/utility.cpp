#include "tests/panel/utility.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/registry/config_values.h"
#include "runtime/registry/registry.h"
#include "runtime/text.h"

#include <algorithm>

namespace panel {

namespace {

std::wstring ownPath() {
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

// Tests redirect HKEY_LOCAL_MACHINE of their own process; what they start has to look there, too.
void redirectRegistry(const std::vector<Setting>& settings) {
    for (const Setting& setting : settings) {
        RunTime::AutoRegKey key;
        if (setting.owner == L"registry" &&
            (::RegOpenKeyExW(HKEY_CURRENT_USER, setting.value.c_str(), 0, KEY_ALL_ACCESS,
                             key.put()) != ERROR_SUCCESS ||
             ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key.get()) != ERROR_SUCCESS)) {
            throw Failure(3, L"There is no registry in " + setting.value);
        }
    }
}

} // namespace

Failure::Failure(int exitStatus, const std::wstring& message)
    : std::runtime_error(toUtf8(message)), status(exitStatus) {}

Utility::Utility(Words arguments)
    : productRoot_(RunTime::parentPath(RunTime::parentPath(RunTime::parentPath(ownPath())))),
      name_(RunTime::lastName(ownPath())), arguments_(std::move(arguments)), store_(productRoot_) {
    ::CharLowerW(name_.data());
}

bool Utility::has(const std::wstring& word) const {
    return std::find(arguments_.begin(), arguments_.end(), word) != arguments_.end();
}

std::wstring Utility::value(const std::wstring& option) const {
    for (const std::wstring& word : arguments_) {
        if (word.starts_with(option + L"=") && word.size() > option.size() + 1) {
            return word.substr(option.size() + 1);
        }
    }
    throw Failure(2, L"The option " + option + L" is missing");
}

std::wstring Utility::directory(const std::wstring& option) const {
    return RunTime::withoutTrailingBackslash(RunTime::nicePath(value(option)));
}

std::wstring Utility::vhosts() {
    return registry::getstr(HKEY_LOCAL_MACHINE, config::configKey, config::name::vhosts,
                            RegistryView::View32);
}

int Utility::run(const std::function<void(const Utility&)>& work) const {
    Words call = arguments_;
    call.insert(call.begin(), name_);
    store_.addCall(call);
    try {
        const std::vector<Words> orders = store_.control();
        const std::vector<Words> calls = orders.empty() ? std::vector<Words>{} : store_.calls();
        std::function<void()> atEnd = [] {};
        for (const Words& order : orders) {
            const auto counts = [&](const Words& words) {
                std::wstring line = Store::line(words);
                std::replace(line.begin(), line.end(), L'\t', L' ');
                return line.find(order.at(2)) != std::wstring::npos;
            };
            const auto count = std::count_if(calls.begin(), calls.end(), counts);
            if (!counts(call) || (order.at(1) != L"0" && std::stoi(order[1]) != count)) {
                continue;
            }
            if (order[0] == L"fail") {
                throw Failure(std::stoi(order.at(3)), order.at(4));
            } else if (order[0] == L"half") {
                atEnd = [&order] { throw Failure(std::stoi(order.at(3)), order.at(4)); };
            } else if (order[0] == L"print") {
                print(std::wstring(std::stoul(order.at(3)), L'.') + L"\n");
            } else if (order[0] == L"hang") {
                const RunTime::AutoHandle begun(
                    ::OpenEventW(EVENT_MODIFY_STATE, FALSE, order.at(3).c_str()));
                ::SetEvent(begun.get());
                ::WaitForSingleObject(::GetCurrentProcess(), INFINITE);
            }
        }
        redirectRegistry(store_.settings());
        work(*this);
        atEnd();
        return 0;
    } catch (const Failure& e) {
        print(toWide(e.what()) + L"\n", STD_ERROR_HANDLE);
        return e.status;
    } catch (const vexception& e) {
        print(e.message() + L"\n", STD_ERROR_HANDLE);
    } catch (const std::exception& e) {
        print(toWide(e.what()) + L"\n", STD_ERROR_HANDLE);
    }
    return 1;
}

void print(const std::wstring& text, DWORD stream) {
    const std::string bytes = toUtf8(text);
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(stream), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                nullptr);
}

std::wstring rebased(const std::wstring& path, const std::wstring& from, const std::wstring& to) {
    const bool below = RunTime::beginsWith(path, from) &&
                       (path.size() == from.size() || path[from.size()] == L'\\');
    return below ? to + path.substr(from.size()) : path;
}

} // namespace panel
