// Inside of NtfsFake, shared by its sources.
#pragma once

#include "runtime/text.h"
#include "tests/support/import_patch.h"
#include "tests/support/ntfs_fake.h"
#include "tests/support/temp_directory.h"
#include "tests/support/unix_call.h"

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <winioctl.h>

// The system's own function, whatever the import table holds: what the fake calls itself is neither
// faked again nor counted by a sweep.
#define REAL(name)                                                                                 \
    ([] {                                                                                          \
        static const auto real = reinterpret_cast<decltype(&::name)>(ntfs::systemFunction(#name)); \
        return real;                                                                               \
    }())

namespace ntfs {

void* systemFunction(const char* name);

constexpr DWORD settableAttributes = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                     FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                                     FILE_ATTRIBUTE_TEMPORARY | FILE_ATTRIBUTE_OFFLINE |
                                     FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;

struct Descriptor {
    std::string owner, group;
    std::optional<std::string> dacl, sacl; // present; empty text: a null list
    WORD control = 0;                      // without what says where the parts are

    std::string selfRelative(SECURITY_INFORMATION parts) const;
};

// What NTFS keeps of a file and Unix does not.
struct Extra {
    std::optional<DWORD> attributes; // of settableAttributes
    DWORD flags = 0;                 // FILE_ATTRIBUTE_SPARSE_FILE, _COMPRESSED, _ENCRYPTED
    std::int64_t created = 0;
    std::optional<Descriptor> security;
    std::string ea, objectId;
    std::map<std::wstring, std::string> streams; // name -> the Unix file that holds it
    DWORD tag = 0;
    std::string reparse; // REPARSE_DATA_BUFFER; of a link also:
    std::string linkText;
    bool directoryLink = false;
};

// An open Unix descriptor, for identity, extended attributes and path: it follows renames.
class UnixFile {
public:
    explicit UnixFile(const std::string& path, std::intptr_t flags = unixcall::OnlyPath)
        : fd_(unixCall(unixcall::Open, path.c_str(),
                       unixcall::number(flags | unixcall::CloseOnExec), unixcall::number(0600))) {}
    UnixFile(UnixFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UnixFile& operator=(UnixFile&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UnixFile() {
        if (fd_ >= 0) {
            unixCall(unixcall::Close, unixcall::number(static_cast<std::intptr_t>(fd_)));
        }
    }
    explicit operator bool() const { return fd_ >= 0; }
    const void* fd() const { return unixcall::number(static_cast<std::intptr_t>(fd_)); }
    // The same file under /proc: any call on it reaches it by its descriptor.
    std::string proc() const { return "/proc/self/fd/" + std::to_string(fd_); }
    std::string path() const { return unixReadLink(proc()); }
    unixcall::Stat64 stat() const {
        unixcall::Stat64 result = {};
        unixCall(unixcall::Fstat, fd(), &result);
        return result;
    }

private:
    long long fd_;
};

struct OpenFile {
    explicit OpenFile(UnixFile opened, DWORD itsAccess = 0, DWORD itsShare = 0)
        : file(std::move(opened)), access(itsAccess), share(itsShare) {}

    UnixFile file;
    DWORD access, share;
    bool link = false; // the handle is a link's
    bool deleteOnClose = false;
    std::vector<std::string> unlisted; // links that Wine's listing leaves out
    bool listing = false;
    std::size_t nextUnlisted = 0;

    bool may(DWORD right) const; // right, or a generic one that includes it, was asked for
};

// A search by FindFirstFileExW, or by FindFirstStreamW.
struct Search {
    std::string directory;
    std::vector<std::pair<std::wstring, std::int64_t>> streams;
    std::size_t next = 0;
    bool ours = false; // no handle of the system's searches
};

struct Shown { // what calls show of an item
    DWORD attributes = 0, tag = 0;
    std::int64_t created = 0;
    std::optional<unixcall::Stat64> link;
};

struct Context; // of the backup API

struct State {
    NtfsFake* fake = nullptr;
    std::map<std::string, Extra> extras;
    std::map<HANDLE, OpenFile> open;
    std::map<HANDLE, Search> searches;
    std::map<Context*, std::shared_ptr<Context>> contexts;
    std::map<wchar_t, DWORD> volumeFlags;
    struct Moment {
        std::string path;
        int left;
        std::function<void()> fn;
    };
    std::deque<Moment> moments;
    std::vector<std::string> violations;
    TempDirectory backing; // of the streams
    int backingCount = 0;
    std::deque<ImportPatch> patches; // ends last to first

    State();
    ~State();
    void violation(const std::string& text);
    OpenFile* find(HANDLE handle);
    void onClose(HANDLE handle); // backup contexts
};
extern State* state;

// Every hook holds it: other threads of the test may open files too.
struct Lock {
    Lock();
    ~Lock();
};

bool fail(DWORD code); // sets the last error; false
DWORD errorOf(long long unixResult);
std::int64_t fileTime(std::int64_t seconds, std::int64_t nanoseconds);
bool hasPrivilege(const wchar_t* name);
DWORD volumeFlagsOf(const std::wstring& path);

// The record of a file; null, or a new one with create.
Extra* extraOf(const UnixFile& file, bool create = false);
Extra* extraAt(const std::string& unixName, bool create = false); // links not followed
// A file has come into being: its record begins.
void created(const UnixFile& file, DWORD attributes);
// The record of a file ends with it.
void forgetIfGone(const UnixFile& file);
Shown shownOf(const std::string& unixName, DWORD attributes, std::int64_t created);

// links
bool isDirectoryLink(const UnixFile& link);
std::string reparseDataOf(const UnixFile& file); // empty for none
DWORD setReparse(OpenFile& file, const std::string& data);
HANDLE openLink(const std::string& unixName, DWORD access, DWORD share, DWORD disposition,
                DWORD flags);
std::string linkData(const std::wstring& target, DWORD tag, bool relative);

// security
void inheritSecurity(const UnixFile& file, bool directory);
Descriptor& securityOf(const UnixFile& file);
// The list of access that whoever makes a file gives it, where one is given.
void setSecurityAtBirth(const UnixFile& file, const SECURITY_ATTRIBUTES* given);

// streams
UnixFile openStream(const UnixFile& file, const std::wstring& name, bool create, DWORD& code);
std::wstring decorated(const std::wstring& name); // ":name:$DATA"
bool isSparse(const UnixFile& file);
std::vector<std::pair<std::int64_t, std::int64_t>> allocatedRanges(const UnixFile& file);

void patchImport(State& state, const char* name, void* hook);
template <class Function>
void patch(State& to, const char* name, Function* hook) {
    patchImport(to, name, reinterpret_cast<void*>(hook));
}
void patchFiles(State& state);
void patchLinks(State& state);
void patchSecurity(State& state);
void patchStreams(State& state);
void patchBackup(State& state);
void patchEncrypted(State& state);

} // namespace ntfs
