// A directory with two files, to be moved, made by nothing but Windows.
#pragma once

#include <atomic>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <string>
#include <windows.h>

class SmallTree {
public:
    SmallTree() : root_(freshPath()) {
        std::filesystem::remove_all(root_); // of a killed run whose process had the same id
        std::filesystem::create_directories(root_ / L"store");
        std::filesystem::create_directories(source() + L"\\sub");
        write(source() + L"\\a.txt", "alpha");
        write(source() + L"\\sub\\b.txt", "beta");
    }
    ~SmallTree() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    SmallTree(const SmallTree&) = delete;
    SmallTree& operator=(const SmallTree&) = delete;

    std::wstring source() const { return (root_ / L"panel").wstring(); }
    std::wstring target() const { return (root_ / L"store" / L"data").wstring(); }

    // With a file of its own in the target, the move has to copy.
    void fillTarget() const {
        std::filesystem::create_directories(target());
        write(target() + L"\\older.txt", "older");
    }
    bool isWholeAt(const std::wstring& place) const {
        return read(place + L"\\a.txt") == "alpha" && read(place + L"\\sub\\b.txt") == "beta";
    }

private:
    static std::filesystem::path freshPath() {
        static std::atomic<int> count{0};
        return std::filesystem::temp_directory_path() /
               (L"zop dll " + std::to_wstring(::GetCurrentProcessId()) + L" " +
                std::to_wstring(++count));
    }
    static void write(const std::filesystem::path& path, const std::string& text) {
        std::ofstream(path, std::ios::binary) << text;
    }
    static std::string read(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::filesystem::path root_;
};
