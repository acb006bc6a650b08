#include "relocation/directory.h"

#include "runtime/accounts/token.h"
#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/log_manager.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <optional>

namespace RunTime {

namespace {

constexpr DWORD shareNoDelete = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD shareAll = shareNoDelete | FILE_SHARE_DELETE;

// A directory opened so that it stays what it is. Empty when nothing has the name any more.
struct Held {
    AutoHandle handle;
    bool deletable = false; // the handle may delete the directory
    bool isLink = false;    // it is a link by now
};

Held hold(const std::wstring& path, DWORD access, bool forRemoval, int tryCount) {
    Held held;
    DWORD more = forRemoval ? DELETE | FILE_WRITE_ATTRIBUTES : 0;
    for (Retry retry(tryCount);;) {
        held.handle = openExisting(path, access | more, shareNoDelete);
        if (held.handle) {
            break;
        }
        const DWORD code = ::GetLastError();
        if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) {
            return held;
        }
        if (more != 0 && (code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION)) {
            more = 0; // it can be emptied, and is then deleted by its name
            continue;
        }
        if (code == ERROR_ACCESS_DENIED || !retry.again(code)) {
            throwForPath(L"Unable to open directory (%s)", path, code, "RunTime::Directory::hold",
                         __LINE__);
        }
    }
    held.deletable = more != 0;
    FileInformation now;
    if (const DWORD code = readKind(held.handle.get(), now)) {
        throwForPath(L"Unable to get attributes (%s)", path, code, "RunTime::Directory::hold",
                     __LINE__);
    }
    held.isLink = now.isLink();
    if (!now.isDirectory()) {
        throwForPath(L"Unable to open directory (%s)", path, ERROR_DIRECTORY,
                     "RunTime::Directory::hold", __LINE__);
    }
    return held;
}

// With the access list from its first moment on: nobody can open it before.
bool createDirectory(const std::wstring& path, const DescriptorBytes* descriptor) {
    if (descriptor == nullptr) {
        return RunTime::createDirectory(path);
    }
    const DescriptorParts parts = partsOf(*descriptor);
    std::vector<unsigned char> list(parts.dacl.begin(), parts.dacl.end());
    SECURITY_DESCRIPTOR security;
    if (!::InitializeSecurityDescriptor(&security, SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorDacl(
            &security, TRUE, list.empty() ? nullptr : reinterpret_cast<ACL*>(list.data()), FALSE)) {
        const DWORD code = ::GetLastError();
        throwForPath(L"Unable to set security (%s)", path, code, "RunTime::Directory::intermediate",
                     __LINE__);
    }
    SECURITY_ATTRIBUTES attributes{sizeof attributes, &security, FALSE};
    return RunTime::createDirectory(path, &attributes);
}

void throwIfUnreadable(const std::wstring& path, const FileInformation& entry) {
    if (entry.isLink() && entry.reparseTag == 0) { // neither follow nor remove what is not known
        throwForPath(L"Unable to read link (%s)", path, ERROR_NOT_A_REPARSE_POINT,
                     "RunTime::Directory::remove", __LINE__);
    }
}

} // namespace

// One directory that the removal is inside of.
struct Directory::Level {
    Listing listing;
    AutoHandle handle;
    bool deletable = false;
    std::size_t next = 0;       // of listing.directories
    std::size_t pathLength = 0; // of the walk's path, for this directory
    bool complete = true;       // nothing below has been left
};

void Directory::Listing::read(HANDLE directory, const std::wstring& path) {
    DirectoryLister lister(directory, path);
    for (FileInformation entry; lister.next(entry);) {
        (entry.isDirectory() ? directories : files).push_back(std::move(entry));
    }
}

Directory::Directory(const std::wstring& path, bool hold) : path_(longPath(path)) {
    if (isRoot(path_) && path_.back() != L'\\') {
        path_ += L'\\'; // without it a drive means its current directory
    } else if (!isRoot(path_)) {
        path_ = withoutTrailingBackslash(path_);
    }
    try {
        self_ = fileInformation(path_);
    } catch (const VFileNotFoundException&) {
        return;
    } catch (const VPathNotFoundException&) {
        return;
    }
    isThere_ = true;
    if (!self_.isDirectory() || self_.isLink()) {
        return;
    }
    Held held =
        RunTime::hold(path_, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, hold, defaultTryCount);
    if (!held.handle || held.isLink) {
        isThere_ = static_cast<bool>(held.handle);
        self_.attributes |= held.isLink ? FILE_ATTRIBUTE_REPARSE_POINT : 0;
        return;
    }
    listing_.read(held.handle.get(), path_);
    if (hold) {
        handle_ = std::move(held.handle);
        deletable_ = held.deletable;
    }
}

void Directory::remove(int tryCount, bool top, bool report, std::int64_t* runningCost) {
    const NativeSpan span("RunTime::Directory::remove", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    ThreadCancelation::check();
    std::int64_t own = 0;
    std::int64_t& cost = runningCost != nullptr ? *runningCost : own;
    leftBehind_.clear();
    if (top) {
        raiseTotals();
    }
    if (!isThere_) {
        return;
    }
    if (!self_.isDirectory() || self_.isLink()) {
        if (report) {
            raiseName(path_, !self_.isDirectory(), cost);
        }
        cost += self_.size;
        if (isKept(path_, self_)) {
            leftBehind_.push_back(path_);
            return;
        }
        attempt(path_, [&] {
            throwIfUnreadable(path_, self_);
            self_.isDirectory() ? removeDirectory(path_, tryCount) : deleteFile(path_, tryCount);
        });
        return;
    }
    if (report) {
        raiseName(path_, false, cost);
    }
    Level level;
    if (!handle_) { // listed long ago, perhaps: what is there now counts
        Held held =
            RunTime::hold(path_, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, true, tryCount);
        if (!held.handle) {
            return;
        }
        if (held.isLink) {
            throwForPath(L"Unable to remove (%s), which has become a link", path_,
                         ERROR_REPARSE_TAG_MISMATCH, "RunTime::Directory::remove", __LINE__);
        }
        level.listing.read(held.handle.get(), path_);
        level.handle = std::move(held.handle);
        level.deletable = held.deletable;
    } else {
        level.listing = std::move(listing_);
        level.handle = std::move(handle_);
        level.deletable = deletable_;
    }
    std::wstring path = path_;
    level.pathLength = path.size();
    std::vector<Level> levels;
    levels.push_back(std::move(level));
    removeLevels(levels, path, tryCount, report, cost);
    listing_ = {};
    handle_.reset();
}

void Directory::removeLevels(std::vector<Level>& levels, std::wstring& path, int tryCount,
                             bool report, std::int64_t& cost) {
    const auto appendName = [&path](const Level& level, const std::wstring& name) {
        path.resize(level.pathLength);
        if (path.back() != L'\\') {
            path += L'\\';
        }
        path += name;
    };
    const auto leave = [&](Level& level) {
        leftBehind_.push_back(path);
        level.complete = false;
    };
    while (!levels.empty()) {
        Level& level = levels.back();
        if (level.next < level.listing.directories.size()) {
            const FileInformation& entry = level.listing.directories[level.next++];
            if (isDotEntry(entry.name)) {
                continue;
            }
            ThreadCancelation::check();
            appendName(level, entry.name);
            if (isKept(path, entry)) {
                leave(level);
                continue;
            }
            Level below;
            bool isLink = entry.isLink();
            bool isThere = true;
            const bool done = attempt(path, [&] {
                throwIfUnreadable(path, entry);
                if (isLink) {
                    return;
                }
                Held held = hold(path, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, true, tryCount);
                isThere = static_cast<bool>(held.handle);
                isLink = held.isLink; // put there after the listing
                if (isThere && !isLink) {
                    below.listing.read(held.handle.get(), path);
                    below.handle = std::move(held.handle);
                    below.deletable = held.deletable;
                }
            });
            if (!done) {
                level.complete = false;
                continue;
            }
            if (!isThere) {
                continue;
            }
            if (isLink) {
                LogManager::getInstance().vAddLog(
                    LogType::Information,
                    formatString(L"Directory::remove: Directory (%s) is symlink",
                                 nicePath(path).c_str()));
            }
            if (report) {
                raiseName(path, false, cost);
            }
            if (isLink) {
                level.complete &= attempt(path, [&] { removeDirectory(path, tryCount); });
                continue;
            }
            below.pathLength = path.size();
            levels.push_back(std::move(below));
            continue;
        }
        for (const FileInformation& entry : level.listing.files) {
            ThreadCancelation::check();
            appendName(level, entry.name);
            if (isKept(path, entry)) {
                leave(level);
                continue;
            }
            if (report) {
                raiseName(path, true, cost);
            }
            cost += entry.size;
            level.complete &= attempt(path, [&] {
                throwIfUnreadable(path, entry);
                deleteFile(path, tryCount);
            });
        }
        path.resize(level.pathLength);
        const bool isTop = levels.size() == 1;
        bool gone = level.complete;
        if (level.complete && !(isTop && keepTop_)) {
            gone = attempt(path, [&] {
                if (level.deletable) {
                    for (Retry retry(tryCount);;) {
                        const DWORD code = deleteByHandle(level.handle.get());
                        if (code == ERROR_SUCCESS) {
                            break;
                        }
                        if (!retry.again(code)) {
                            throwForPath(L"Unable to remove directory (%s)", path, code,
                                         "RunTime::Directory::remove", __LINE__);
                        }
                    }
                    level.handle.reset();
                } else {
                    level.handle.reset();
                    removeDirectory(path, tryCount);
                }
            });
        }
        levels.pop_back();
        if (!levels.empty()) {
            levels.back().complete &= gone;
        }
    }
}

void Directory::list(std::vector<FileInformation>& entries, int mode) const {
    const auto add = [&entries](const std::vector<FileInformation>& from) {
        for (const FileInformation& entry : from) {
            if (!isDotEntry(entry.name)) {
                entries.push_back(entry);
            }
        }
    };
    if (mode == 1 || mode == 2) {
        add(listing_.directories);
    }
    if (mode != 1) {
        add(listing_.files);
    }
}

void Directory::setOwner(const std::wstring& path, bool recursive) {
    const NativeSpan span("RunTime::Directory::setOwner", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    const PrivilegeScope privileges{SE_TAKE_OWNERSHIP_NAME, SE_RESTORE_NAME, SE_BACKUP_NAME};

    const AutoHandle token =
        openTokenInForce(TOKEN_QUERY, "RunTime::Directory::setOwner", __LINE__);
    alignas(TOKEN_OWNER) unsigned char owner[sizeof(TOKEN_OWNER) + SECURITY_MAX_SID_SIZE];
    DWORD bytes = 0;
    SECURITY_DESCRIPTOR descriptor;
    if (!::GetTokenInformation(token.get(), TokenOwner, owner, sizeof(owner), &bytes) ||
        !::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION) ||
        !::SetSecurityDescriptorOwner(&descriptor, reinterpret_cast<TOKEN_OWNER*>(owner)->Owner,
                                      FALSE)) {
        const DWORD code = ::GetLastError();
        _throwError(L"Unable to get token owner", code,
                    {L"", "RunTime::Directory::setOwner", __LINE__});
    }

    std::optional<vosexception> firstFailure;
    const auto failed = [&](const vosexception& error) {
        if (!firstFailure) {
            firstFailure = error;
        }
    };
    // The item is opened as itself, so that a link's owner is the link's.
    const auto own = [&](const std::wstring& item) {
        const AutoHandle handle = openExisting(item, WRITE_OWNER, shareAll);
        if (!handle ||
            !::SetKernelObjectSecurity(handle.get(), OWNER_SECURITY_INFORMATION, &descriptor)) {
            const DWORD code = ::GetLastError();
            failed(vosexception(
                code, formatString(L"Unable to set owner (%s)", nicePath(item).c_str()).c_str(),
                {L"", "RunTime::Directory::setOwner", __LINE__}));
        }
    };

    std::wstring item = longPath(path);
    const FileInformation self = fileInformation(item);
    own(item);
    if (!recursive || !self.isDirectory() || self.isLink()) {
        if (firstFailure) {
            throw *firstFailure;
        }
        return;
    }
    std::vector<Level> levels;
    const auto enter = [&] { // after the owner has been set: it may have given the right to list
        try {
            Held held = hold(item, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, false, 1);
            if (held.handle && !held.isLink) {
                Level level;
                level.listing.read(held.handle.get(), item);
                level.handle = std::move(held.handle);
                level.pathLength = item.size();
                levels.push_back(std::move(level));
            }
        } catch (const vosexception& error) {
            failed(error);
        }
    };
    enter();
    while (!levels.empty()) {
        ThreadCancelation::check();
        Level& level = levels.back();
        const auto appendName = [&](const std::wstring& name) {
            item.resize(level.pathLength);
            item = combine(item, name);
        };
        if (level.next < level.listing.directories.size()) {
            const FileInformation& entry = level.listing.directories[level.next++];
            if (isDotEntry(entry.name)) {
                continue;
            }
            appendName(entry.name);
            if (entry.isLink()) {
                if (entry.reparseTag != 0) {
                    own(item);
                }
                continue;
            }
            // Held before it is owned: what is owned is then not a link put in its place.
            const AutoHandle pin = openExisting(item, FILE_READ_DATA, shareNoDelete);
            own(item);
            enter();
            continue;
        }
        for (const FileInformation& entry : level.listing.files) {
            appendName(entry.name);
            if (!entry.isLink() || entry.reparseTag != 0) {
                own(item);
            }
        }
        levels.pop_back();
    }
    if (firstFailure) {
        throw *firstFailure;
    }
}

std::vector<std::wstring> Directory::missing(const std::wstring& path) {
    std::vector<std::wstring> missing; // innermost first
    for (std::wstring at = withoutTrailingBackslash(longPath(path)); !at.empty() && !exists(at);
         at = parentPath(at)) {
        missing.push_back(at);
    }
    std::reverse(missing.begin(), missing.end());
    return missing;
}

void Directory::intermediate(const std::wstring& path, const DescriptorBytes* descriptor,
                             std::vector<std::wstring>& made) {
    const NativeSpan span("RunTime::Directory::intermediate", __LINE__);
    for (const std::wstring& directory : missing(path)) {
        if (!createDirectory(directory, descriptor)) {
            continue; // others were quicker
        }
        made.push_back(directory);
        if (descriptor == nullptr) {
            continue;
        }
        // What the system made of the list while it created the directory has parts of the
        // parent's in it, and lacks the flags.
        const AutoHandle handle = openExisting(directory, WRITE_DAC, shareNoDelete);
        DescriptorBytes bytes = *descriptor;
        const DWORD code =
            handle ? writeDescriptor(handle.get(), bytes, false, false) : ::GetLastError();
        if (code != ERROR_SUCCESS) {
            throwForPath(L"Unable to set security (%s)", directory, code,
                         "RunTime::Directory::intermediate", __LINE__);
        }
    }
}

void Directory::raiseTotals() {
    std::int32_t count = 0;
    std::int64_t cost = 0;
    for (const FileInformation& entry : listing_.directories) {
        count += isDotEntry(entry.name) ? 0 : 1;
    }
    for (const FileInformation& entry : listing_.files) {
        ++count;
        cost += entry.size;
    }
    if (isThere_ && (!self_.isDirectory() || self_.isLink())) {
        count = 1;
        cost = self_.size;
    }
    bool cancel = false;
    progressEvent_Total.raise(count, cost, cancel);
    if (cancel) {
        throw CanceledException({L"", "RunTime::Directory::raiseTotals", __LINE__});
    }
}

void Directory::raiseName(const std::wstring& path, bool isFile, std::int64_t cost) {
    bool cancel = false;
    progressEvent_Name.raise(path, isFile, cost, cancel);
    if (cancel) {
        throw CanceledException({L"", "RunTime::Directory::remove", __LINE__});
    }
}

// Runs what may fail for one item. False when it failed and a handler ignores that.
template <class Action>
bool Directory::attempt(const std::wstring& path, Action&& action) {
    try {
        action();
        return true;
    } catch (const CanceledException&) {
        throw;
    } catch (const vexception& error) {
        bool ignore = false;
        errorEvent.raise(error.what(), ignore);
        if (!ignore) {
            throw;
        }
        leftBehind_.push_back(path);
        return false;
    }
}

} // namespace RunTime
