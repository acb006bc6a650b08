// What NTFS does and Wine does not, for tests under Wine: alternate streams and the backup API,
// security descriptors, links and other reparse points, all attributes, creation times, sparse
// files. While an NtfsFake lives, the Win32 calls of this executable see such a file system on
// every drive; underneath lie ordinary Unix files and symbolic links, so trees may also be made and
// looked at by other means. Nothing is seen by pointers from GetProcAddress or other processes.
//
//     NtfsFake ntfs;
//     ntfs.setStream(file, L"note", "text");
//     ntfs.setSecurity(file, L"O:BAG:SYD:PAI(A;;FA;;;SY)");
//
// It also watches: a breach of the rules of the backup API (a context begun wrongly, mixed up, not
// ended before the handle is closed, ...) fails the test. One at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>
#include <windows.h>

// Headers of a backup stream as the system packs them: 20 bytes and the name, no padding.
struct BackupStream {
    DWORD id = 0; // BACKUP_DATA, ...
    DWORD attributes = 0;
    std::wstring name; // ":name:$DATA"
    std::string payload;
    std::string packed() const;
};

class NtfsFake {
public:
    NtfsFake();
    ~NtfsFake(); // adds a failure for each breach that was not taken
    NtfsFake(const NtfsFake&) = delete;
    NtfsFake& operator=(const NtfsFake&) = delete;
    static bool isAlive();

    // What files have besides their data. Paths in any form. Names of streams without colons.
    void setStream(const std::wstring& path, const std::wstring& name, const std::string& content);
    std::map<std::wstring, std::string> streams(const std::wstring& path);
    void setSecurity(const std::wstring& path, const std::wstring& sddl);
    std::wstring security(const std::wstring& path); // SDDL with owner, group, DACL and SACL
    void setEa(const std::wstring& path, const std::string& data);
    std::string ea(const std::wstring& path);
    void setObjectId(const std::wstring& path, const std::string& data); // 64 bytes
    // FILE_ATTRIBUTE_SPARSE_FILE, _COMPRESSED, _ENCRYPTED: those that calls cannot simply set. The
    // holes of a sparse file are those that the Unix file has.
    void setFlags(const std::wstring& path, DWORD flags);
    // Its allocated ranges in bytes: offset, length.
    std::vector<std::pair<std::int64_t, std::int64_t>> allocated(const std::wstring& path);
    // A reparse point that is no link, such as IO_REPARSE_TAG_DEDUP.
    void setForeignTag(const std::wstring& path, DWORD tag, const std::string& data);
    // Makes a link to a path that need not exist: IO_REPARSE_TAG_SYMLINK or _MOUNT_POINT (the link
    // is a directory then). Links made by unixSymlink are symbolic links with no more ado.
    void makeLink(const std::wstring& path, const std::wstring& target, DWORD tag, bool directory);

    // How the backup API behaves.
    DWORD backupRefusal = 0;            // fails every call of it with this code
    unsigned chunkSeed = 0;             // not 0: BackupRead returns odd and random amounts
    std::int64_t writeLimit = -1;       // BackupWrite takes this many more bytes, then falls short
    bool sparseAsData = false;          // a sparse file's bytes come in its data stream, whole
    std::vector<BackupStream> appended; // BackupRead ends every item with these (unknown, ...)

    // Flags of GetVolumeInformationW for a drive; all that NTFS has at first.
    void setVolumeFlags(wchar_t drive, DWORD flags);

    // Calls fn just before CreateFileW is called for path for the n-th time (1 is the next).
    void onOpen(const std::wstring& path, int n, std::function<void()> fn);
    // What an owner of a tree may try while it is walked: puts the directory aside (as
    // "path.aside") and a link to target, a Unix path, in its place. False, and nothing done, where
    // Windows would refuse: a handle without delete sharing is open on it, or any below it.
    bool swapForLink(const std::wstring& path, const std::string& target);

    // Everything kept of path and all below it, in one text: equal texts mean that nothing differs
    // but the time of path's own last change. Much quicker than imageOf(); different texts need
    // not mean anything that a program could see.
    std::string fingerprint(const std::wstring& path);

    // Handles that this executable has open on path itself, or on it and below.
    int openHandles(const std::wstring& path, bool below = true);
    // Breaches so far; they are forgotten by this.
    std::vector<std::string> takeViolations();
};
