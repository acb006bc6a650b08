// Finds a directory's name in any text: a setting, a command line, a line of a file. Unlike
// OldPath, which tells whether a text is a path in the directory, this sees the name wherever it
// stands, with slashes or doubled backslashes, and asks nothing of the disk.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class PlaceText {
public:
    // place  absolute, in any form
    explicit PlaceText(const std::wstring& place);

    // Whether the text names the directory or something in it; "C:\vhosts2" does not name
    // "C:\vhosts".
    bool isIn(std::wstring_view text) const;

private:
    std::vector<std::wstring> forms_; // nice, without backslash at the end: as given, long, short
};
