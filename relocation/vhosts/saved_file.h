// A small file as it was, kept in memory to be put back in place: content, attributes and times,
// also the times of its directory. Nothing of it gets on disk, for what it holds may be a secret.
#pragma once

#include "runtime/wipe.h"

#include <optional>
#include <string>
#include <vector>
#include <windows.h>

class SavedFile {
public:
    static constexpr std::int64_t largest = 16 * 1024 * 1024; // bytes

    // None where there is no file of this name, or it is something else, a link for one, or a
    // directory between root, which is above it, and the file is a link. "Unable to read file
    // (%s)", also for one that is too large.
    static std::optional<SavedFile> of(const std::wstring& path, const std::wstring& root);

    // What tells the content, without holding it, and the times; may go on disk.
    struct Stamp {
        std::string sha256; // of the content
        FILE_BASIC_INFO file = {};
        FILE_BASIC_INFO directory = {};
    };
    Stamp stamp() const;
    // Gives a file with the stamp's content the stamp's attributes and times, and its directory
    // these. Leaves any other file alone, and returns false.
    static bool restoreTimes(const Stamp& stamp, const std::wstring& path,
                             const std::wstring& root);

    // Writes it to a file that is there, under this name or another. "Unable to restore file (%s)",
    // also where a link is on the way to it.
    void restore(const std::wstring& path, const std::wstring& root) const;

private:
    SavedFile() = default;

    std::vector<char, RunTime::WipingAllocator<char>> content_;
    FILE_BASIC_INFO basic_ = {};
    FILE_BASIC_INFO directory_ = {};
};
