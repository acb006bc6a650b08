// The least that a copy through the system's own file copy costs: FindFirstFileExW,
// CreateDirectoryW, CopyFileW, and nothing else. No security, no times of directories, no events.
//
//     copyfile_loop SOURCE TARGET
//
// Prints the time in milliseconds.
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>
#include <windows.h>

namespace {

bool fail(const wchar_t* what, const std::wstring& path) {
    const DWORD code = ::GetLastError();
    std::fwprintf(stderr, L"%ls %ls: %lu\n", what, path.c_str(), code);
    return false;
}

bool copyFolder(const std::wstring& source, const std::wstring& target) {
    if (!::CreateDirectoryW(target.c_str(), nullptr)) {
        return fail(L"CreateDirectoryW", target);
    }
    WIN32_FIND_DATAW entry;
    const HANDLE find =
        ::FindFirstFileExW((source + L"\\*").c_str(), FindExInfoBasic, &entry,
                           FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (find == INVALID_HANDLE_VALUE) {
        return fail(L"FindFirstFileExW", source);
    }
    bool done = true;
    std::vector<std::wstring> folders;
    do {
        const std::wstring name = entry.cFileName;
        if (name == L"." || name == L"..") {
            continue;
        }
        if (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            folders.push_back(name);
        } else if (!::CopyFileW((source + L"\\" + name).c_str(), (target + L"\\" + name).c_str(),
                                TRUE)) {
            done = fail(L"CopyFileW", source + L"\\" + name);
        }
    } while (done && ::FindNextFileW(find, &entry));
    ::FindClose(find);
    for (std::size_t i = 0; done && i < folders.size(); ++i) {
        done = copyFolder(source + L"\\" + folders[i], target + L"\\" + folders[i]);
    }
    return done;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count != 3) {
        std::fputs("copyfile_loop SOURCE TARGET\n", stderr);
        return 2;
    }
    LARGE_INTEGER start;
    LARGE_INTEGER end;
    LARGE_INTEGER second;
    ::QueryPerformanceFrequency(&second);
    ::QueryPerformanceCounter(&start);
    if (!copyFolder(arguments[1], arguments[2])) {
        return 1;
    }
    ::QueryPerformanceCounter(&end);
    std::printf("%.3f\n", static_cast<double>(end.QuadPart - start.QuadPart) * 1000.0 /
                              static_cast<double>(second.QuadPart));
    return 0;
}
