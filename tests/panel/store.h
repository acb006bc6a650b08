// What the stand-ins for the panel's utilities keep, all in one directory below the product's, as
// UTF-8 with tabs between the words of a line:
//
//     settings.txt   every setting: owner, name, key, value
//     calls.txt      every call: program, arguments
//     control.txt    what calls do besides their work or instead of it: action, number, text, then
//                    what the action needs. Of the calls whose line, with blanks for tabs, has the
//                    text in it, the one of that number is meant, counted from 1; 0: each.
//                        fail   N TEXT STATUS MESSAGE   prints the message and ends
//                        half   N TEXT STATUS MESSAGE   the same, but when all is done
//                        print  N TEXT BYTES            prints so much, then goes on
//                        hang   N TEXT EVENT            sets the event of that name and never ends
#pragma once

#include <string>
#include <vector>

namespace panel {

// Owners: "iis", "relink", "asp.net", "php" (value: paths with a semicolon between them), "ftp".
// "registry" has where the programs find HKEY_LOCAL_MACHINE below HKEY_CURRENT_USER.
struct Setting {
    std::wstring owner;
    std::wstring name; // site or account
    std::wstring key;
    std::wstring value;
};

using Words = std::vector<std::wstring>;

class Store {
public:
    explicit Store(const std::wstring& productRoot);

    const std::wstring& directory() const noexcept { return directory_; }

    std::vector<Setting> settings() const;
    // Whoever reads meanwhile sees the old ones or the new ones, all of them.
    void write(const std::vector<Setting>& settings) const;

    std::vector<Words> calls() const;
    void addCall(const Words& words) const;
    void forgetCalls() const;

    std::vector<Words> control() const;
    void setControl(const std::vector<Words>& lines) const;

    // The text of a line: no word has a tab or a line end in it.
    static std::wstring line(const Words& words);

private:
    std::vector<Words> read(const wchar_t* name) const;
    void replace(const wchar_t* name, const std::vector<Words>& lines) const;

    std::wstring directory_;
};

} // namespace panel
