// A file that has its name only when it is whole: it is written beside its place, under a name of
// its own, and renamed over what was there by commit(). Without commit() nothing has happened.
// Only System and Administrators may read it. One thread at a time.
#pragma once

#include "runtime/auto_handle.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace RunTime {

class WholeFile {
public:
    // Creates the file beside path. "Unable to create file (%s)".
    explicit WholeFile(const std::wstring& path);
    ~WholeFile();
    WholeFile(const WholeFile&) = delete;
    WholeFile& operator=(const WholeFile&) = delete;

    // "Unable to write file (%s)".
    void write(std::string_view bytes);
    std::uint64_t size() const noexcept { return size_; }

    // What has been written, from its beginning; later reads go on. 0 at the end. Nothing can be
    // written any more. "Unable to read file (%s)".
    std::size_t readBack(std::span<char> to);

    // Brings all to the disk and gives the file its name. "Unable to write file (%s)",
    // "Unable to move (%s) to (%s)".
    void commit();

private:
    std::wstring path_;
    std::wstring name_; // empty: there is nothing to delete
    AutoHandle file_;
    std::uint64_t size_ = 0;
    bool reading_ = false;
};

// Reads the next bytes of an open file; 0 at its end. "Unable to read file (%s)".
std::size_t readFile(HANDLE file, std::span<char> to, const std::wstring& path);
// Goes to the beginning of an open file. "Unable to read file (%s)".
void rewindFile(HANDLE file, const std::wstring& path);

} // namespace RunTime
