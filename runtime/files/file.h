// File primitives: what is there, listing a directory, deleting, moving, temporary names.
//
// Paths may be in either form (runtime/files/path.h) and of any length. Links are never followed:
// every handle is opened with FILE_FLAG_OPEN_REPARSE_POINT. Failures are thrown as vosexception and
// its subclasses. Functions with a try count repeat an attempt that failed for a cause that may
// pass (see Retry); they are cancellation points between the attempts.
#pragma once

#include "runtime/auto_handle.h"
#include "runtime/files/path.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <windows.h>

namespace RunTime {

inline constexpr int defaultTryCount = 10;

// Repeats what failed for a cause that may pass: ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION,
// ERROR_LOCK_VIOLATION, ERROR_DIR_NOT_EMPTY (a deletion below is pending), ERROR_USER_MAPPED_FILE,
// ERROR_DELETE_PENDING. The pauses grow from 10 ms and add up to about two seconds with the default
// count.
//     for (Retry retry(tryCount); !attempt();) {
//         const DWORD code = ::GetLastError();
//         if (!retry.again(code)) _throwError(...);
//     }
class Retry {
public:
    explicit Retry(int tryCount) noexcept : left_(tryCount) {}
    // True, after a pause, when the code is worth another attempt and attempts are left. Throws
    // CanceledException when the thread's cancellation is requested.
    bool again(DWORD code);

private:
    int left_;
    DWORD pause_ = 10; // milliseconds
};

// One entry of a directory, or one path, as the listing gives it. Links are not followed.
struct FileInformation {
    std::wstring name;             // without directory
    DWORD attributes = 0;          // FILE_ATTRIBUTE_...
    DWORD reparseTag = 0;          // 0 where there is none, or the system does not tell it
    std::int64_t size = 0;         // bytes of file data; 0 for a directory
    std::int64_t creationTime = 0; // FILETIME as a number: 100 ns since 1601
    std::int64_t lastAccessTime = 0;
    std::int64_t lastWriteTime = 0;
    std::int64_t changeTime = 0; // 0 where the system does not tell it
    std::uint64_t fileId = 0;    // on its volume; 0 where the system does not tell it

    bool isDirectory() const noexcept { return (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }
    // A reparse point that must not be descended into or read through: a name surrogate (symbolic
    // link, junction, mounted folder), or one whose tag is not known.
    bool isLink() const noexcept {
        return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
               (reparseTag == 0 || IsReparseTagNameSurrogate(reparseTag));
    }
};

// Reads a directory's entries through an open handle, a buffer at a time: no path is looked up
// again between opening and listing. "." and ".." are among the entries. Where the file system
// refuses the listing by handle, the entries come from FindFirstFileExW on the path.
class DirectoryLister {
public:
    // The handle stays open meanwhile and has FILE_LIST_DIRECTORY; path is for messages and the
    // fall-back.
    DirectoryLister(HANDLE directory, std::wstring path);
    ~DirectoryLister();
    DirectoryLister(const DirectoryLister&) = delete;
    DirectoryLister& operator=(const DirectoryLister&) = delete;
    // False at the end. Throws "Unable to list directory (%s)".
    bool next(FileInformation& entry);

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Whether a code says that nothing has the name: no such file, path, drive, or no name at all.
bool meansMissing(DWORD code) noexcept;

// Whether anything, a link included, has this name. Throws when the system cannot tell (access
// denied, a network that is gone): "Unable to get attributes (%s)".
bool exists(const std::wstring& path);
bool isDirectory(const std::wstring& path); // false for a missing path and for a link

// The entry that path names; VFileNotFoundException or VPathNotFoundException when it is missing.
FileInformation fileInformation(const std::wstring& path);

// Opens with FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT. On failure an empty handle
// is returned, with GetLastError() set: callers decide what a failure means to them.
AutoHandle openExisting(const std::wstring& path, DWORD access, DWORD share, DWORD flags = 0);

// What stands behind an open handle: sets attributes and tag of the entry, and nothing else of it.
// Returns a Win32 code.
DWORD readKind(HANDLE handle, FileInformation& entry) noexcept;
// On its volume; 0 where the system does not tell it.
std::uint64_t fileIdOf(HANDLE handle) noexcept;

// Opens a directory for listing and holds it without delete sharing, so that nobody can put a link
// in its place while paths lead through it. Empty when the directory has gone, or a link or file
// stands there instead. Tries again while it is in use. "Unable to list directory (%s)".
//   moreAccess  rights that the handle has besides
AutoHandle openPinnedDirectory(const std::wstring& path, int tryCount = defaultTryCount,
                               DWORD moreAccess = 0);

// Deletes a file, or a link to a file. A read-only file is deleted too; when that fails in the end
// its attribute is put back, and hard links elsewhere keep theirs. A missing file is no error.
// "Unable to delete file (%s)".
void deleteFile(const std::wstring& path, int tryCount = defaultTryCount);

// Deletes an empty directory, or a link to a directory (the link, not what it names). Read-only as
// above; a missing one is no error. "Unable to remove directory (%s)".
void removeDirectory(const std::wstring& path, int tryCount = defaultTryCount);

// Marks the open file or directory for deletion at its last close; the handle needs DELETE and
// FILE_WRITE_ATTRIBUTES. Clears read-only in the way, and puts it back on failure. Returns a Win32
// code, 0 when done.
DWORD deleteByHandle(HANDLE handle) noexcept;

// Renames on one volume; flags as for MoveFileExW, but never MOVEFILE_COPY_ALLOWED, which would
// lose descriptors (ArgumentException). "Unable to move (%s) to (%s)".
void moveEx(const std::wstring& from, const std::wstring& to, DWORD flags = 0,
            int tryCount = defaultTryCount);

// Renames path to a fresh name in its parent directory: prefix and random hexadecimal digits.
// Returns the new path in long form.
std::wstring temporaryMove(const std::wstring& path, const std::wstring& prefix,
                           int tryCount = defaultTryCount);

// A name that nothing has in the directory: stem and random hexadecimal digits, in long form. It is
// a name only: whoever uses it creates with CREATE_NEW, and asks again on ERROR_FILE_EXISTS.
// "Unable to find a temporary name in (%s)".
std::wstring temporaryName(const std::wstring& directory, const std::wstring& stem,
                           int tryCount = defaultTryCount);

// Creates the directory; false when a directory of that name is there already.
// "Unable to create directory (%s)".
bool createDirectory(const std::wstring& path, SECURITY_ATTRIBUTES* security = nullptr);

// What lies below a directory; links are neither followed nor counted as data. A file has its own
// size. A missing path has none, and neither has a link. A cancellation point at every directory.
struct TreeSize {
    std::int64_t bytes = 0; // of main data streams
    std::int64_t files = 0;
    std::int64_t directories = 0; // the top itself not counted
};
// Ends early, with what it has seen so far, once stop returns true (asked after each entry).
TreeSize treeSize(const std::wstring& path, const std::function<bool(const TreeSize&)>& stop = {});

} // namespace RunTime
