// Who keeps a tree from being renamed: what in it is held open, and by which programs.
#pragma once

#include <string>
#include <vector>

struct OpenItem {
    std::wstring path;                 // nice form
    std::vector<std::wstring> holders; // "name (process id)"; empty where the system cannot tell
};

// Items below path, itself included, that cannot be opened alone: at most limit of them. Every file
// is tried, so this takes as long as a thorough look at the tree. Links are not followed; what
// cannot be read for other reasons is passed over. Throws CanceledException.
std::vector<OpenItem> findOpenItems(const std::wstring& path, std::size_t limit);
