// Linux system calls from a test that runs under Wine: for what Wine's own Win32 calls cannot make
// or show (symbolic links, extended attributes, identities of files, holes). Nothing here works on
// Windows; underWine() tells.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>
#include <windows.h>

// Negative errno on failure.
inline long long unixCall(long long number, const void* a, const void* b = nullptr,
                          const void* c = nullptr, long long d = 0, long long e = 0) {
    long long result;
    register long long r10 asm("r10") = d;
    register long long r8 asm("r8") = e;
    asm volatile("syscall"
                 : "=a"(result)
                 : "a"(number), "D"(a), "S"(b), "d"(c), "r"(r10), "r"(r8)
                 : "rcx", "r11", "memory");
    return result;
}

namespace unixcall {

inline constexpr long long Open = 2, Close = 3, Stat = 4, Fstat = 5, Lstat = 6, Lseek = 8,
                           Pread = 17, Pwrite = 18, TruncateTo = 76, Rename = 82, Mkdir = 83,
                           Rmdir = 84, Unlink = 87, Symlink = 88, Readlink = 89, Setxattr = 188,
                           Getxattr = 191, Getdents = 217, Utimensat = 280;
inline constexpr std::intptr_t ReadOnly = 0, OnlyPath = 0x200000, NoFollow = 0x20000,
                               CloseOnExec = 0x80000, ReadWrite = 2, Truncate = 0x201,
                               CreateNew = 0xC2;

inline const void* number(std::intptr_t value) {
    return reinterpret_cast<const void*>(value);
}

template <class Function>
Function wineExport(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), name)));
}

struct Stat64 { // struct stat of x86-64
    std::uint64_t device, inode, links;
    std::uint32_t mode, user, group, pad;
    std::uint64_t specialDevice;
    std::int64_t size, blockSize, blocks;
    struct {
        std::int64_t seconds, nanoseconds;
    } accessed, written, changed;
    std::int64_t reserved[3];

    bool isLink() const { return (mode & 0xF000) == 0xA000; }
    bool isDirectory() const { return (mode & 0xF000) == 0x4000; }
    bool same(const Stat64& other) const { return device == other.device && inode == other.inode; }
};

} // namespace unixcall

inline bool underWine() {
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

// The Unix name of a path, links not resolved, no slash at the end; empty for what is no file (and
// on Windows). The last name need not exist.
inline std::string unixPath(const std::wstring& path) {
    static const auto convert =
        unixcall::wineExport<char*(CDECL*)(const wchar_t*)>("wine_get_unix_file_name");
    char* text = convert != nullptr ? convert(path.c_str()) : nullptr;
    std::string result = text != nullptr ? text : "";
    if (text != nullptr) {
        ::HeapFree(::GetProcessHeap(), 0, text);
    }
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

inline std::wstring dosPath(const std::string& path) {
    static const auto convert =
        unixcall::wineExport<wchar_t*(CDECL*)(const char*)>("wine_get_dos_file_name");
    wchar_t* text = convert != nullptr ? convert(path.c_str()) : nullptr;
    std::wstring result = text != nullptr ? text : L"";
    if (text != nullptr) {
        ::HeapFree(::GetProcessHeap(), 0, text);
    }
    return result;
}

inline bool unixStat(const std::string& path, unixcall::Stat64& out, bool follow = false) {
    return !path.empty() &&
           unixCall(follow ? unixcall::Stat : unixcall::Lstat, path.c_str(), &out) == 0;
}

// The text of a symbolic link; empty for anything else.
inline std::string unixReadLink(const std::string& path) {
    char text[4096];
    const long long length =
        unixCall(unixcall::Readlink, path.c_str(), text, unixcall::number(sizeof text));
    return length > 0 ? std::string(text, static_cast<std::size_t>(length)) : std::string();
}

// target is a Unix path, absolute or relative to the link's directory; it need not exist.
inline bool unixSymlink(const std::string& target, const std::wstring& link) {
    return unixCall(unixcall::Symlink, target.c_str(), unixPath(link).c_str()) == 0;
}

// Names in a directory, in the order of the system; links that lead nowhere are among them.
inline std::vector<std::string> unixEntries(const std::string& directory) {
    std::vector<std::string> names;
    const long long fd = unixCall(unixcall::Open, directory.c_str(),
                                  unixcall::number(unixcall::ReadOnly | unixcall::CloseOnExec));
    alignas(8) char buffer[8192];
    for (long long length = fd; fd >= 0 && length >= 0;) {
        length = unixCall(unixcall::Getdents, unixcall::number(fd), buffer,
                          unixcall::number(sizeof buffer));
        for (long long at = 0; at < length;) { // inode 8, offset 8, length 2, type 1, name
            std::uint16_t size = 0;
            std::memcpy(&size, buffer + at + 16, sizeof size);
            const std::string name = buffer + at + 19;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
            at += size;
        }
        if (length == 0) {
            break;
        }
    }
    if (fd >= 0) {
        unixCall(unixcall::Close, unixcall::number(fd));
    }
    return names;
}

// All of a file, and bytes into one, whoever has it open. Negative errno on failure.
inline std::string unixRead(const std::string& path) {
    const long long fd = unixCall(unixcall::Open, path.c_str(),
                                  unixcall::number(unixcall::ReadOnly | unixcall::CloseOnExec));
    std::string bytes;
    char buffer[32768];
    for (long long count = fd; fd >= 0 && count >= 0;) {
        count = unixCall(unixcall::Pread, unixcall::number(fd), buffer,
                         unixcall::number(sizeof buffer), static_cast<long long>(bytes.size()));
        if (count <= 0) {
            unixCall(unixcall::Close, unixcall::number(fd));
            break;
        }
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return bytes;
}

inline long long unixWrite(const std::string& path, const std::string& bytes,
                           std::intptr_t flags = unixcall::Truncate, long long offset = 0) {
    const long long fd =
        unixCall(unixcall::Open, path.c_str(), unixcall::number(flags | unixcall::CloseOnExec));
    const long long written =
        unixCall(unixcall::Pwrite, unixcall::number(fd), bytes.data(),
                 unixcall::number(static_cast<std::intptr_t>(bytes.size())), offset);
    unixCall(unixcall::Close, unixcall::number(fd));
    return written;
}

// Removes a tree, links as links.
inline void unixRemoveTree(const std::string& path) {
    unixcall::Stat64 item;
    if (unixStat(path, item) && item.isDirectory()) {
        for (const std::string& name : unixEntries(path)) {
            unixRemoveTree(path + "/" + name);
        }
        unixCall(unixcall::Rmdir, path.c_str());
    } else {
        unixCall(unixcall::Unlink, path.c_str());
    }
}
