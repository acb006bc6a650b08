#include "runtime/files/pending_operations.h"

#include "runtime/auto_handle.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/format_string.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>
#include <windows.h>

namespace RunTime {

namespace {

constexpr const wchar_t* sessionManager = L"SYSTEM\\CurrentControlSet\\Control\\Session Manager";
// Some installers keep a second list, which the system carries out after the first.
constexpr const wchar_t* listNames[] = {L"PendingFileRenameOperations",
                                        L"PendingFileRenameOperations2"};

constexpr std::wstring_view kernelPrefix = L"\\??\\";

// An operation of the list: two paths in the kernel's form ("\??\C:\..."). An empty target stands
// for deletion; in front of a path there may be marks, such as "!" for "replace what is there".
struct Operation {
    std::wstring source;
    std::wstring target;
};

// Of a path in long form.
Operation deletion(const std::wstring& path) {
    return {std::wstring(kernelPrefix).append(path, longPrefix.size()), {}};
}

// Nothing when the data is not a list of pairs, each text with its zero, and perhaps one more zero.
std::optional<std::vector<Operation>> parse(std::wstring_view data) {
    std::vector<Operation> operations;
    const auto take = [&](std::wstring& text) {
        const std::size_t end = data.find(L'\0');
        if (end == data.npos) {
            return false;
        }
        text = data.substr(0, end);
        data.remove_prefix(end + 1);
        return true;
    };
    while (!data.empty()) {
        if (data.find_first_not_of(L'\0') == data.npos) {
            return operations;
        }
        Operation operation;
        if (!take(operation.source) || operation.source.empty() || !take(operation.target)) {
            return std::nullopt;
        }
        operations.push_back(std::move(operation));
    }
    return operations;
}

std::wstring compose(const std::vector<Operation>& operations) {
    std::wstring data;
    for (const Operation& operation : operations) {
        data.append(operation.source).append(1, L'\0');
        data.append(operation.target).append(1, L'\0');
    }
    return data.append(1, L'\0');
}

// Whether a path of the list is one of the given ones (long forms) or lies below.
bool names(std::wstring_view listed, const std::vector<std::wstring>& paths) {
    const std::size_t begin = listed.find(kernelPrefix);
    if (begin > 2) { // not there, or behind more than "!" or "*" and a digit
        return false;
    }
    listed.remove_prefix(begin + kernelPrefix.size());
    return std::any_of(paths.begin(), paths.end(), [&](const std::wstring& path) {
        std::wstring_view own = std::wstring_view(path).substr(longPrefix.size());
        while (!own.empty() && own.back() == L'\\') {
            own.remove_suffix(1);
        }
        return beginsWith(listed, own) &&
               (listed.size() == own.size() || listed[own.size()] == L'\\');
    });
}

[[noreturn]] void readFailed(LSTATUS status, int line) {
    _throwError(L"Unable to read pending operations", static_cast<DWORD>(status),
                {L"", "RunTime::PendingOperations::read", line});
}

[[noreturn]] void writeFailed(LSTATUS status, int line) {
    _throwError(L"Unable to write pending operations", static_cast<DWORD>(status),
                {L"", "RunTime::PendingOperations::write", line});
}

// Empty when there is no such list. The registry's own helpers end a list at its first empty text,
// so the bytes are read as they stand.
std::vector<Operation> read(const wchar_t* listName) {
    AutoRegKey key;
    LSTATUS status =
        ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, sessionManager, 0, KEY_QUERY_VALUE, key.put());
    if (status == ERROR_FILE_NOT_FOUND) {
        return {};
    }
    if (status != ERROR_SUCCESS) {
        readFailed(status, __LINE__);
    }
    std::vector<wchar_t> buffer(4096);
    for (;;) {
        DWORD type = REG_NONE;
        DWORD bytes = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
        status = ::RegQueryValueExW(key.get(), listName, nullptr, &type,
                                    reinterpret_cast<BYTE*>(buffer.data()), &bytes);
        if (status == ERROR_FILE_NOT_FOUND) {
            return {};
        }
        if (status == ERROR_MORE_DATA) {
            buffer.resize(bytes / sizeof(wchar_t) + 1024); // it may grow meanwhile
            continue;
        }
        if (status != ERROR_SUCCESS) {
            readFailed(status, __LINE__);
        }
        std::optional<std::vector<Operation>> operations;
        if (type == REG_MULTI_SZ && bytes % sizeof(wchar_t) == 0) {
            operations = parse({buffer.data(), bytes / sizeof(wchar_t)});
        }
        if (!operations) {
            readFailed(ERROR_INVALID_DATA, __LINE__);
        }
        return std::move(*operations);
    }
}

void write(const wchar_t* listName, const std::vector<Operation>& operations) {
    AutoRegKey key;
    LSTATUS status =
        ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, sessionManager, 0, KEY_SET_VALUE, key.put());
    if (status == ERROR_SUCCESS && operations.empty()) {
        status = ::RegDeleteValueW(key.get(), listName);
    } else if (status == ERROR_SUCCESS) {
        const std::wstring data = compose(operations);
        if (data.size() > std::numeric_limits<DWORD>::max() / sizeof(wchar_t)) {
            writeFailed(ERROR_BUFFER_OVERFLOW, __LINE__);
        }
        status = ::RegSetValueExW(key.get(), listName, 0, REG_MULTI_SZ,
                                  reinterpret_cast<const BYTE*>(data.data()),
                                  static_cast<DWORD>(data.size() * sizeof(wchar_t)));
    }
    if (status != ERROR_SUCCESS) {
        writeFailed(status, __LINE__);
    }
}

[[noreturn]] void removeFailed(const std::wstring& path, DWORD code, int line) {
    throwForPath(L"Unable to remove (%s)", path, code, "RunTime::removeAtRestart", line);
}

// A directory on the way down, held so that no link can take its place meanwhile.
struct Level {
    std::wstring path;
    AutoHandle handle;
    std::vector<std::wstring> subdirectories;
};

Level enter(std::wstring path, std::vector<Operation>& deletions) {
    Level level;
    level.handle = openPinnedDirectory(path);
    level.path = std::move(path);
    if (!level.handle) {
        return level;
    }
    FileInformation entry;
    for (DirectoryLister lister(level.handle.get(), level.path); lister.next(entry);) {
        if (isDotEntry(entry.name)) {
            continue;
        }
        if (entry.isDirectory() && !entry.isLink()) {
            level.subdirectories.push_back(std::move(entry.name));
        } else {
            deletions.push_back(deletion(combine(level.path, entry.name)));
        }
    }
    return level;
}

// The deletions of all below top, from the bottom up, in which order the system works through the
// list.
std::vector<Operation> deletionsBelow(const std::wstring& top) {
    std::vector<Operation> deletions;
    std::vector<Level> levels;
    levels.push_back(enter(top, deletions));
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.subdirectories.empty()) {
            if (levels.size() > 1) {
                deletions.push_back(deletion(level.path));
            }
            levels.pop_back();
            continue;
        }
        std::wstring child = combine(level.path, level.subdirectories.back());
        level.subdirectories.pop_back();
        levels.push_back(enter(std::move(child), deletions));
    }
    return deletions;
}

// All items in one write and the top by the system: each call of MoveFileExW reads and writes the
// whole list, which takes hours for a tree of a hundred thousand files.
void schedule(const std::wstring& path) {
    const FileInformation top = fileInformation(path);
    if (top.isDirectory() && !top.isLink()) {
        std::vector<Operation> below = deletionsBelow(path);
        if (!below.empty()) {
            std::vector<Operation> operations = read(listNames[0]);
            std::move(below.begin(), below.end(), std::back_inserter(operations));
            write(listNames[0], operations);
        }
    }
    if (!::MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT)) {
        const DWORD code = ::GetLastError();
        removeFailed(path, code, __LINE__);
    }
}

// The paths in long form, and their other names: an operation may have been scheduled under any.
std::vector<std::wstring> allNames(const std::vector<std::wstring>& given) {
    std::vector<std::wstring> paths;
    for (const std::wstring& each : given) {
        const std::wstring path = longPath(each);
        paths.push_back(path);
        if (!exists(path)) {
            continue;
        }
        for (const auto form : {&shortPath, &longNamePath}) {
            try {
                std::wstring other = form(path);
                if (!equalNames(other, path)) {
                    paths.push_back(std::move(other));
                }
            } catch (const vosexception&) { // a name that cannot be told is in no list either
            }
        }
    }
    return paths;
}

} // namespace

std::wstring removeAtRestart(const std::wstring& path) {
    const std::wstring given = withoutTrailingBackslash(longPath(path));
    if (!exists(given)) {
        removeFailed(given, ERROR_FILE_NOT_FOUND, __LINE__);
    }
    std::wstring now = given;
    try {
        now = temporaryMove(given, L"$Removed", 1);
    } catch (const vexception&) {
        // In use, as what is removed at a restart often is: it is scheduled under its own name.
    }
    const auto undo = [&] {
        try {
            dropPendingOperations(now);
            if (now != given) {
                moveEx(now, given, 0, 1);
                now = given;
            }
        } catch (const vexception&) {
            // The first failure is the one to report.
        }
    };
    try {
        schedule(now);
    } catch (const vosexception& e) {
        const DWORD code = e.get_errorCode();
        undo();
        removeFailed(now, code, __LINE__);
    } catch (const vexception&) {
        undo();
        throw;
    }
    return now;
}

void moveAtRestart(const std::wstring& from, const std::wstring& to) {
    const std::wstring source = withoutTrailingBackslash(longPath(from));
    const std::wstring target = withoutTrailingBackslash(longPath(to));
    if (!::MoveFileExW(source.c_str(), target.c_str(), MOVEFILE_DELAY_UNTIL_REBOOT)) {
        const DWORD code = ::GetLastError();
        _throwError(formatString(L"Unable to move (%s)", nicePath(source).c_str()).c_str(), code,
                    {L"", "RunTime::moveAtRestart", __LINE__});
    }
}

int dropPendingOperations(const std::vector<std::wstring>& paths) {
    std::vector<std::wstring> all;
    int dropped = 0;
    for (const wchar_t* listName : listNames) {
        std::vector<Operation> operations = read(listName);
        if (operations.empty()) {
            continue;
        }
        if (all.empty()) {
            all = allNames(paths);
        }
        const auto count = std::erase_if(operations, [&](const Operation& operation) {
            return names(operation.source, all) || names(operation.target, all);
        });
        if (count != 0) {
            write(listName, operations);
            dropped += static_cast<int>(count);
        }
    }
    return dropped;
}

} // namespace RunTime
