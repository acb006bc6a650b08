#include "tests/support/temp_directory.h"

#include "tests/support/unix_call.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace {

[[noreturn]] void fail(const char* what) {
    const DWORD code = ::GetLastError();
    throw std::runtime_error(std::string(what) + ": code " + std::to_string(code));
}

// Calls visit(relative, data) for everything below; of a directory after what is in it.
template <class Visit>
void walk(const std::wstring& directory, const std::wstring& relative, const Visit& visit) {
    WIN32_FIND_DATAW data = {};
    const HANDLE search = ::FindFirstFileW((directory + L"\\*").c_str(), &data);
    if (search == INVALID_HANDLE_VALUE) {
        return;
    }
    do {
        const std::wstring name = data.cFileName;
        if (name == L"." || name == L"..") {
            continue;
        }
        const bool descend = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 &&
                             (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0;
        if (descend) {
            walk(directory + L"\\" + name, relative + name + L"\\", visit);
        }
        visit(directory + L"\\" + name, relative + name, data.dwFileAttributes);
    } while (::FindNextFileW(search, &data));
    ::FindClose(search);
}

} // namespace

TempDirectory::TempDirectory(const std::wstring& base) {
    static std::atomic<int> count{0};
    wchar_t temporary[MAX_PATH + 1] = {};
    if (base.empty() && ::GetTempPathW(MAX_PATH + 1, temporary) == 0) {
        fail("GetTempPathW");
    }
    std::wstring parent = base.empty() ? temporary : base;
    if (parent.back() != L'\\') {
        parent += L'\\';
    }
    path_ = L"\\\\?\\" + parent + L"zop-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
            std::to_wstring(++count);
    if (!::CreateDirectoryW(path_.c_str(), nullptr)) {
        fail("CreateDirectoryW");
    }
}

TempDirectory::~TempDirectory() {
    if (underWine()) { // whose own calls act on what a link names
        unixRemoveTree(unixPath(path_));
        return;
    }
    walk(path_, L"", [](const std::wstring& path, const std::wstring&, DWORD attributes) {
        ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            ::RemoveDirectoryW(path.c_str());
        } else {
            ::DeleteFileW(path.c_str());
        }
    });
    ::RemoveDirectoryW(path_.c_str());
}

std::wstring TempDirectory::operator/(std::wstring_view relative) const {
    return relative.empty() ? path_ : path_ + L"\\" + std::wstring(relative);
}

std::wstring TempDirectory::makeDirectory(std::wstring_view relative) const {
    const std::wstring path = *this / relative;
    for (std::size_t end = path.find(L'\\', path_.size()); end != path.npos;) {
        end = path.find(L'\\', end + 1);
        if (!::CreateDirectoryW(path.substr(0, end).c_str(), nullptr) &&
            ::GetLastError() != ERROR_ALREADY_EXISTS) {
            fail("CreateDirectoryW");
        }
    }
    return path;
}

std::wstring TempDirectory::writeFile(std::wstring_view relative, std::string_view content,
                                      DWORD attributes) const {
    const std::size_t last = relative.rfind(L'\\');
    if (last != relative.npos) {
        makeDirectory(relative.substr(0, last));
    }
    std::wstring path = *this / relative;
    const HANDLE file =
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, attributes, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        fail("CreateFileW");
    }
    DWORD written = 0;
    const BOOL done =
        ::WriteFile(file, content.data(), static_cast<DWORD>(content.size()), &written, nullptr);
    ::CloseHandle(file);
    if (!done || written != content.size()) {
        fail("WriteFile");
    }
    return path;
}

std::string TempDirectory::readFile(std::wstring_view relative) const {
    const HANDLE file = ::CreateFileW((*this / relative).c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        fail("CreateFileW");
    }
    std::string content;
    char buffer[4096];
    DWORD read = 0;
    while (::ReadFile(file, buffer, sizeof(buffer), &read, nullptr) && read != 0) {
        content.append(buffer, read);
    }
    ::CloseHandle(file);
    return content;
}

bool TempDirectory::has(std::wstring_view relative) const {
    return ::GetFileAttributesW((*this / relative).c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::vector<std::wstring> TempDirectory::list(std::wstring_view relative) const {
    std::vector<std::wstring> entries;
    walk(*this / relative, L"",
         [&](const std::wstring&, const std::wstring& name, DWORD attributes) {
             entries.push_back(attributes & FILE_ATTRIBUTE_DIRECTORY ? name + L"\\" : name);
         });
    std::sort(entries.begin(), entries.end());
    return entries;
}
