// Looks for what names the directory of virtual hosts and does not follow when it moves: strings in
// the registry, the system's environment, the panel's configuration files. Names of values and
// files are told, never what is in them: it may be a password.
#pragma once

#include "relocation/vhosts/place_text.h"

#include <functional>
#include <set>
#include <string>
#include <vector>
#include <windows.h>

enum class RegistryView : int;

class StrayReferences {
public:
    // place  the directory; limit: how many are listed, the others are only counted
    StrayReferences(const std::wstring& place, std::size_t limit) : place_(place), limit_(limit) {}

    // The strings of a key below HKEY_LOCAL_MACHINE and of all keys below it, expandable ones
    // expanded. What cannot be read is passed over, and so is what isCovered says of key and value.
    using IsCovered = std::function<bool(const std::wstring& key, const std::wstring& value)>;
    void searchRegistry(const std::wstring& key, RegistryView view, const IsCovered& isCovered);

    // The text files of a directory and all below it: those whose name ends as such files' names
    // do, and that are not larger than 1 MiB.
    void searchFiles(const std::wstring& directory);

    // "HKEY_LOCAL_MACHINE\key\value" or a path, each once, in the order in which they were found.
    const std::vector<std::wstring>& get_found() const noexcept { return found_; }
    std::size_t get_count() const noexcept { return known_.size(); }

private:
    void searchKey(const std::wstring& key, RegistryView view, const IsCovered& isCovered);
    void searchFile(const std::wstring& path);
    void add(const std::wstring& reference);

    PlaceText place_;
    std::size_t limit_;
    std::vector<std::wstring> found_;
    std::set<std::wstring> known_;
};
