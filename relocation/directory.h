// Walks one directory tree, and removes it, copies it, lists it or changes its owner, with progress
// events and cancellation. The only tree walker of the relocation code.
//
// A tree is hostile: other people own what lies in it. Nothing is followed: an entry that is a link
// is dealt with as a link, and every directory is held open, without sharing its deletion, while
// the walk is inside, so that it cannot be replaced by a link meanwhile. The walk uses a list on
// the heap, not the stack: a tree may be thousands of directories deep.
//
// Used by one thread; handlers run on it.
#pragma once

#include "relocation/backup_file_copier.h"
#include "runtime/auto_handle.h"
#include "runtime/event.h"
#include "runtime/files/file.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace RunTime {

class Directory {
public:
    // path  in either form. A missing one yields empty lists; a file is a tree of its own.
    // hold  listing mode: true keeps the directory open for remove(), so that what was listed is
    // what
    //       is removed; false closes it after listing
    explicit Directory(const std::wstring& path, bool hold = false);

    const std::wstring& path() const noexcept { return path_; } // long form
    // Entries of this directory alone, "." and ".." among the directories; links to directories
    // are among the directories, too.
    const std::vector<FileInformation>& directories() const noexcept {
        return listing_.directories;
    }
    const std::vector<FileInformation>& files() const noexcept { return listing_.files; }

    // Deletes the tree. Events come parent first, then subdirectories depth first, then files.
    // tryCount     attempts for each item
    // top          raises the totals
    // report       raises the names
    // runningCost  bytes of files done so far, also of other walks; may be null
    // An item that cannot be deleted is offered to errorEvent; when a handler ignores it, it and
    // the directories above it stay. Throws that error, or CanceledException.
    void remove(int tryCount, bool top, bool report, std::int64_t* runningCost);
    // Tells remove() what to leave where it is, with the directories above it. Path in long form,
    // and the item as listed.
    using Keep = std::function<bool(const std::wstring& path, const FileInformation& entry)>;
    void set_keep(Keep keep) { keep_ = std::move(keep); }
    // Whether remove() leaves the top directory itself, emptied.
    void set_keepTop(bool keepTop) noexcept { keepTop_ = keepTop; }
    // Items that the last remove() left: kept, ignored, or below neither (long form).
    const std::vector<std::wstring>& get_leftBehind() const noexcept { return leftBehind_; }

    // What is there already when a copy begins.
    enum class CopyTarget {
        Missing, // created; a target that has appeared meanwhile is an error
        Empty,   // takes over attributes, security and streams of the source
        Filled   // merged into, and keeps its own
    };
    // A directory that was there before the copy, as it was.
    struct Existing {
        std::wstring path; // long form
        FILE_BASIC_INFO basic = {};
        DescriptorBytes descriptor; // empty: it was not changed
    };
    // Paths in long form with long names, by the file system's comparison.
    using PathSet = std::set<std::wstring, NameOrder>;
    // What a copy uses and fills.
    struct CopyJob {
        BackupFileCopier& copier;
        CopyReport& report;
        std::vector<std::wstring>& failed;             // nice form, in order
        std::vector<Existing>& existing;               // directories merged into
        std::unordered_set<std::wstring>& failedPaths; // the same as failed, in long form
        const PathSet& leftOut; // items of the source that are passed over, without an event
        const PathSet& adopted; // directories of the target that are taken over as Empty ones are
    };
    // Copies the tree to target with backup semantics. An item that cannot be copied is offered to
    // errorEvent and, when a handler ignores it, passed over. The target itself, when it lies
    // inside the tree, is left out.
    void backupCopy(const std::wstring& target, CopyTarget kind, CopyJob& job);

    // Adds this directory's own entries, "." and ".." left out.
    // mode  1 directories, 2 directories and files, any other value files
    void list(std::vector<FileInformation>& entries, int mode) const;

    // Makes the caller's token's owner (the administrators, for an administrator) the owner of path
    // and, when recursive, of everything below. Goes on past items that fail; the first failure is
    // thrown at the end.
    static void setOwner(const std::wstring& path, bool recursive);

    // A directory that is not there with those missing above it, in long form, outermost first.
    static std::vector<std::wstring> missing(const std::wstring& path);
    // Creates a directory with all that are missing above it, and gives each that it creates the
    // access list of the descriptor; none: what they inherit. Their paths (long form) are appended
    // to made, outermost first, also those made before a failure.
    static void intermediate(const std::wstring& path, const DescriptorBytes* descriptor,
                             std::vector<std::wstring>& made);

    // entries of this directory, bytes of its files, cancel
    Event<std::int32_t, std::int64_t, bool&> progressEvent_Total;
    // path in long form, isFile, bytes done before, cancel
    Event<const std::wstring&, bool, std::int64_t, bool&> progressEvent_Name;
    // source, target, isFile, bytes done before, cancel
    Event<const std::wstring&, const std::wstring&, bool, std::int64_t, bool&> progressEvent_Name2;
    // bytes of the current file done so far, cancel; for large files
    Event<std::int64_t, bool&> progressEvent_Bytes;
    // The item last named by progressEvent_Name2 was not created after all.
    Event<> itemAbandonedEvent;
    // message, ignore
    Event<const std::wstring&, bool&> errorEvent;

private:
    struct Listing {
        std::vector<FileInformation> directories;
        std::vector<FileInformation> files;
        void read(HANDLE directory, const std::wstring& path);
    };
    struct Level;
    struct CopyLevel;
    class CopyWalk;

    void raiseTotals();
    void raiseName(const std::wstring& path, bool isFile, std::int64_t cost);
    template <class Action>
    bool attempt(const std::wstring& path, Action&& action);
    bool isKept(const std::wstring& path, const FileInformation& entry) const {
        return keep_ && keep_(path, entry);
    }
    void removeLevels(std::vector<Level>& levels, std::wstring& path, int tryCount, bool report,
                      std::int64_t& cost);

    std::wstring path_;
    FileInformation self_;
    bool isThere_ = false;
    Listing listing_;
    AutoHandle handle_;      // held open, or empty
    bool deletable_ = false; // handle_ has DELETE access
    Keep keep_;
    bool keepTop_ = false;
    std::vector<std::wstring> leftBehind_;
};

} // namespace RunTime
