#include "tests/panel/store.h"

#include "runtime/text.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <windows.h>

namespace panel {

Store::Store(const std::wstring& productRoot) : directory_(productRoot + L"\\var\\stand-in") {}

std::wstring Store::line(const Words& words) {
    std::wstring result;
    for (const std::wstring& word : words) {
        result += (result.empty() ? L"" : L"\t") + word;
    }
    return result;
}

std::vector<Words> Store::read(const wchar_t* name) const {
    std::ifstream file(std::filesystem::path(directory_) / name, std::ios::binary);
    std::vector<Words> lines;
    for (std::string line; std::getline(file, line);) {
        Words& words = lines.emplace_back();
        std::size_t begin = 0;
        for (std::size_t end = 0; end != line.npos; begin = end + 1) {
            end = line.find('\t', begin);
            words.push_back(toWide(std::string_view(line).substr(begin, end - begin)));
        }
    }
    return lines;
}

void Store::replace(const wchar_t* name, const std::vector<Words>& lines) const {
    const std::filesystem::path path = std::filesystem::path(directory_) / name;
    const std::filesystem::path fresh = std::filesystem::path(path).concat(".new");
    std::ofstream file(fresh, std::ios::binary);
    for (const Words& words : lines) {
        file << toUtf8(line(words)) << '\n';
    }
    file.close();
    if (!file || !::MoveFileExW(fresh.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        throw std::runtime_error("Unable to write " + toUtf8(path.native()));
    }
}

std::vector<Setting> Store::settings() const {
    std::vector<Setting> settings;
    for (Words& words : read(L"settings.txt")) {
        words.resize(4);
        settings.push_back({words[0], words[1], words[2], words[3]});
    }
    return settings;
}

void Store::write(const std::vector<Setting>& settings) const {
    std::vector<Words> lines;
    for (const Setting& setting : settings) {
        lines.push_back({setting.owner, setting.name, setting.key, setting.value});
    }
    replace(L"settings.txt", lines);
}

std::vector<Words> Store::calls() const {
    return read(L"calls.txt");
}
std::vector<Words> Store::control() const {
    return read(L"control.txt");
}
void Store::setControl(const std::vector<Words>& lines) const {
    replace(L"control.txt", lines);
}
void Store::forgetCalls() const {
    replace(L"calls.txt", {});
}

void Store::addCall(const Words& words) const {
    std::ofstream file(std::filesystem::path(directory_) / L"calls.txt",
                       std::ios::binary | std::ios::app);
    file << toUtf8(line(words)) << '\n';
}

} // namespace panel
