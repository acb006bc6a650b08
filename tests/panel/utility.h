// What the stand-ins for the panel's utilities have in common.
#pragma once

#include "tests/panel/store.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <windows.h>

namespace panel {

// The program is told to end with this status and, on standard error, this message.
struct Failure : std::runtime_error {
    Failure(int status, const std::wstring& message);
    int status;
};

class Utility {
public:
    // The program's own place tells it the product's: <root>\admin\bin\name.exe.
    explicit Utility(Words arguments);

    const std::wstring& name() const noexcept { return name_; } // with ".exe", in lower case
    const std::wstring& productRoot() const noexcept { return productRoot_; }
    const Words& arguments() const noexcept { return arguments_; }
    const Store& store() const noexcept { return store_; }

    bool has(const std::wstring& word) const;
    // The text behind "option="; without the option the call is refused.
    std::wstring value(const std::wstring& option) const;
    // The same for a directory: as people see it, no backslash at the end.
    std::wstring directory(const std::wstring& option) const;
    // "HTTPD_VHOSTS_D"
    static std::wstring vhosts();

    // Records the call, does what the control file says, and the work. Returns the exit status.
    int run(const std::function<void(const Utility&)>& work) const;

private:
    std::wstring productRoot_;
    std::wstring name_;
    Words arguments_;
    Store store_;
};

void print(const std::wstring& text, DWORD stream = STD_OUTPUT_HANDLE);

// The path that one below from (or from itself) becomes when from is called to; any other stays.
std::wstring rebased(const std::wstring& path, const std::wstring& from, const std::wstring& to);

} // namespace panel
