// The copying walk of RunTime::Directory.
#include "relocation/directory.h"

#include "runtime/exception.h"
#include "runtime/format_string.h"
#include "runtime/native_span.h"
#include "runtime/thread_cancelation.h"

namespace RunTime {

// One directory that the copy is inside of; source and target are both held open.
struct Directory::CopyLevel {
    FileInformation entry;
    Listing listing;
    AutoHandle source;
    AutoHandle target;
    bool isOurs = false; // made by this copy, or an empty one that it took over
    BackupFileCopier::TargetDirectory inherited;
    std::size_t next = 0;
    std::size_t sourceLength = 0;
    std::size_t targetLength = 0;
};

class Directory::CopyWalk {
public:
    CopyWalk(Directory& top, const std::wstring& target, CopyTarget kind, CopyJob& job)
        : top_(top), kind_(kind), job_(job), source_(top.path_), target_(target),
          targetRoot_(target) {}

    void run() {
        if (!top_.self_.isDirectory() || top_.self_.isLink()) {
            copyItem(top_.self_, targetParent_);
            job_.copier.finish();
            return;
        }
        enter(top_.self_, true);
        while (!levels_.empty()) {
            CopyLevel& level = levels_.back();
            if (level.next < level.listing.directories.size()) {
                const std::size_t index = level.next++;
                if (!isDotEntry(level.listing.directories[index].name)) {
                    below(level, level.listing.directories[index]);
                }
                continue;
            }
            for (const FileInformation& entry : level.listing.files) {
                appendName(level, entry.name);
                if (!job_.leftOut.contains(source_)) {
                    copyItem(entry, level.inherited);
                }
            }
            leave();
        }
        job_.copier.finish();
    }

private:
    void appendName(const CopyLevel& level, const std::wstring& name) {
        const auto append = [&name](std::wstring& path, std::size_t length) {
            path.resize(length);
            if (path.back() != L'\\') {
                path += L'\\';
            }
            path += name;
        };
        append(source_, level.sourceLength);
        append(target_, level.targetLength);
    }

    void below(CopyLevel& level, const FileInformation& entry) {
        appendName(level, entry.name);
        if (job_.leftOut.contains(source_)) {
            return;
        }
        if (entry.isLink()) {
            copyItem(entry, level.inherited);
        } else if (!isTargetRoot(entry)) {
            // levels_ moves as it grows.
            // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
            const FileInformation copy = entry;
            enter(copy, false);
        }
    }

    // The target itself, met inside the source.
    bool isTargetRoot(const FileInformation& entry) const {
        return equalNames(source_, targetRoot_) || (targetId_ != 0 && entry.fileId == targetId_ &&
                                                    theSameVolume(top_.path_, targetRoot_));
    }

    void raiseName(bool isFile) {
        ThreadCancelation::check();
        bool cancel = false;
        try {
            top_.progressEvent_Name2.raise(source_, target_, isFile, cost_, cancel);
            if (cancel) {
                throw CanceledException({L"", "RunTime::Directory::backupCopy", __LINE__});
            }
        } catch (...) {
            top_.itemAbandonedEvent.raise();
            throw;
        }
    }

    // Runs what may fail for the current item. False when it failed and a handler ignores that;
    // made tells whether something of ours is in the target in the end.
    template <class Action>
    bool attempt(const bool& made, Action&& action) {
        try {
            action();
        } catch (const CanceledException&) {
            abandonUnless(made);
            throw;
        } catch (const vexception& error) {
            abandonUnless(made);
            job_.failed.push_back(nicePath(source_));
            job_.failedPaths.insert(source_);
            bool ignore = false;
            top_.errorEvent.raise(error.what(), ignore);
            if (!ignore) {
                throw;
            }
            return false;
        } catch (...) {
            abandonUnless(made);
            throw;
        }
        abandonUnless(made);
        return true;
    }

    void abandonUnless(bool made) {
        if (!made) {
            top_.itemAbandonedEvent.raise();
        }
    }

    void copyItem(const FileInformation& entry, BackupFileCopier::TargetDirectory& parent) {
        raiseName(!entry.isDirectory());
        bool created = false;
        attempt(created, [&] { job_.copier.copyFile(source_, entry, target_, parent, created); });
        cost_ += entry.size;
    }

    void enter(const FileInformation& entry, bool isTop) {
        raiseName(false);
        CopyLevel level;
        level.entry = entry;
        level.sourceLength = source_.size();
        level.targetLength = target_.size();
        bool made = false;
        const bool done = attempt(made, [&] {
            level.source = job_.copier.openSource(source_, entry);
            level.listing.read(level.source.get(), source_);
            openTarget(level, isTop, made);
        });
        if (done) {
            levels_.push_back(std::move(level));
        }
    }

    void openTarget(CopyLevel& level, bool isTop, bool& made) {
        const bool takesOver =
            (isTop && kind_ == CopyTarget::Empty) || job_.adopted.contains(target_);
        if (!takesOver) {
            made = createDirectory(target_);
        }
        if (!made && !takesOver && isTop && kind_ == CopyTarget::Missing) {
            throwForPath(L"Unable to create directory (%s)", target_, ERROR_ALREADY_EXISTS,
                         "RunTime::Directory::backupCopy", __LINE__);
        }
        level.isOurs = made || takesOver;
        try {
            level.target = job_.copier.openTarget(target_, level.isOurs);
            if (isTop && job_.copier.mayShareVolume()) {
                targetId_ = fileIdOf(level.target.get());
            }
            if (!made) {
                remember(level);
            }
            if (level.isOurs) {
                const BackupFileCopier::TargetDirectory& parent =
                    levels_.empty() ? targetParent_ : levels_.back().inherited;
                job_.copier.copyDirectory(level.source.get(), level.target.get(), source_, target_,
                                          level.entry, parent, level.inherited);
            } else {
                job_.report.add(CopyLoss::MergedDirectory, target_);
            }
        } catch (...) {
            level.target.reset();
            if (made && ::RemoveDirectoryW(target_.c_str())) {
                made = false;
            }
            throw;
        }
    }

    // What is needed to put a directory back that was there before.
    void remember(const CopyLevel& level) {
        Existing existing;
        existing.path = target_;
        if (!::GetFileInformationByHandleEx(level.target.get(), FileBasicInfo, &existing.basic,
                                            sizeof(existing.basic))) {
            const DWORD code = ::GetLastError();
            throwForPath(L"Unable to get attributes (%s)", target_, code,
                         "RunTime::Directory::backupCopy", __LINE__);
        }
        if (level.isOurs) {
            readDescriptor(level.target.get(), false, existing.descriptor);
        }
        job_.existing.push_back(std::move(existing));
    }

    void leave() {
        CopyLevel& level = levels_.back();
        source_.resize(level.sourceLength);
        target_.resize(level.targetLength);
        if (level.isOurs) {
            const bool made = true;
            attempt(made, [&] {
                job_.copier.finishDirectory(level.target.get(), target_, level.entry,
                                            isRoot(source_));
            });
        }
        levels_.pop_back();
    }

    Directory& top_;
    CopyTarget kind_;
    CopyJob& job_;
    std::wstring source_; // of the current item, both in long form
    std::wstring target_;
    std::wstring targetRoot_;
    std::uint64_t targetId_ = 0;                     // not unique among volumes
    BackupFileCopier::TargetDirectory targetParent_; // of the root: nothing is known of it
    std::int64_t cost_ = 0;
    std::vector<CopyLevel> levels_;
};

void Directory::backupCopy(const std::wstring& target, CopyTarget kind, CopyJob& job) {
    const NativeSpan span("RunTime::Directory::backupCopy", __LINE__);
    const ThreadCancelation::CancelationPoint cancellable;
    ThreadCancelation::check();
    raiseTotals();
    if (!isThere_) {
        throwForPath(L"Unable to copy (%s)", path_, ERROR_PATH_NOT_FOUND,
                     "RunTime::Directory::backupCopy", __LINE__);
    }
    job.copier.onBytes() = [this](std::int64_t bytes) {
        bool cancel = false;
        progressEvent_Bytes.raise(bytes, cancel);
        if (cancel) {
            throw CanceledException({L"", "RunTime::Directory::backupCopy", __LINE__});
        }
    };
    CopyWalk(*this, withoutTrailingBackslash(longPath(target)), kind, job).run();
}

} // namespace RunTime
