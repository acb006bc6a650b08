// A directory of a test's own below the temporary directory, removed with all that is in it at the
// end. Everything here calls Windows directly, so that a test does not rest on what it tests.
#pragma once

#include <string>
#include <string_view>
#include <vector>
#include <windows.h>

class TempDirectory {
public:
    // base  an existing directory, such as "T:\"; the user's temporary directory when empty
    explicit TempDirectory(const std::wstring& base = {});
    ~TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    // Long form, no backslash at the end.
    const std::wstring& path() const noexcept { return path_; }
    // The same for people and for typing.
    std::wstring nice() const { return path_.substr(4); }
    // A path below: relative has backslashes only.
    std::wstring operator/(std::wstring_view relative) const;

    // Both make the directories above as well, and return the path.
    std::wstring makeDirectory(std::wstring_view relative) const;
    std::wstring writeFile(std::wstring_view relative, std::string_view content = "data",
                           DWORD attributes = FILE_ATTRIBUTE_NORMAL) const;

    std::string readFile(std::wstring_view relative) const;
    bool has(std::wstring_view relative) const; // a link counts
    // What is below, relative, sorted, a directory with a backslash at its end, links not followed.
    std::vector<std::wstring> list(std::wstring_view relative = {}) const;

private:
    std::wstring path_;
};
