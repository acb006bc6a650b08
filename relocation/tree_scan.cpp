#include "relocation/tree_scan.h"

#include "relocation/reparse_point.h"
#include "relocation/stream_list.h"
#include "runtime/exception.h"
#include "runtime/files/path.h"
#include "runtime/files/volume_kind.h"
#include "runtime/format_string.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <memory>
#include <unordered_set>

namespace {

using RunTime::AutoHandle;
using RunTime::FileInformation;

// Tags of files whose data lies elsewhere, the sixteen cloud tags among them.
constexpr DWORD cloudTag = 0x9000001A;
constexpr DWORD cloudTagMask = 0x0000F000;
constexpr DWORD recallAttributes = 0x00440000; // FILE_ATTRIBUTE_RECALL_ON_OPEN, _DATA_ACCESS

// Deletion is not shared: what is held open cannot be swapped for a link while it is walked.
constexpr DWORD holdShare = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr DWORD anyShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// A directory on the way down. A tree may be deeper than the stack allows, so the way is a list.
struct Level {
    AutoHandle handle;
    std::unique_ptr<RunTime::DirectoryLister> lister;
    std::size_t pathLength;             // of the directory in the walk's path
    std::vector<std::wstring> children; // directories, entered once the listing is done
};

class Walk {
public:
    Walk(const std::wstring& path, const TreeScan::Options& options,
         Event<const TreeContents&, bool&>& progress, Event<const std::wstring&>& link)
        : options_(options), progress_(progress), link_(link), path_(RunTime::longPath(path)),
          topLength_(path_.size()) {}

    TreeContents run() {
        const FileInformation top = RunTime::fileInformation(path_);
        if (options_.thorough && options_.streams) {
            options_.streams = (RunTime::volumeKind(path_).flags & FILE_NAMED_STREAMS) != 0;
        }
        if (!top.isDirectory() || top.isLink()) {
            visit(top);
            return std::move(contents_);
        }
        if (!enter()) {
            const DWORD code = ::GetLastError();
            _throwError(
                formatString(L"Unable to open (%s)", RunTime::nicePath(path_).c_str()).c_str(),
                code, {L"", "TreeScan::scan", __LINE__});
        }
        if (options_.thorough) {
            examineStreams(); // of the top directory
        }
        while (!levels_.empty()) {
            list();
            descend();
        }
        return std::move(contents_);
    }

private:
    // Opens the directory at path_ and puts it on the way. False, with the last error, if it
    // cannot.
    bool enter() {
        AutoHandle handle =
            RunTime::openExisting(path_, FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES, holdShare);
        if (!handle) {
            return false;
        }
        FileInformation opened;
        if (const DWORD code = RunTime::readKind(handle.get(), opened)) {
            ::SetLastError(code);
            return false;
        }
        if (!opened.isDirectory() || opened.isLink()) {
            ::SetLastError(ERROR_DIRECTORY); // something else has taken its place since the listing
            return false;
        }
        Level level{std::move(handle), nullptr, path_.size(), {}};
        level.lister = std::make_unique<RunTime::DirectoryLister>(level.handle.get(), path_);
        levels_.push_back(std::move(level));
        return true;
    }

    // Reads the listing of the directory last entered, and notes the directories in it.
    void list() {
        Level& level = levels_.back();
        if (!level.lister) {
            return;
        }
        FileInformation entry;
        try {
            while (level.lister->next(entry)) {
                if (RunTime::isDotEntry(entry.name)) {
                    continue;
                }
                if (path_.back() != L'\\') {
                    path_ += L'\\';
                }
                path_ += entry.name;
                visit(entry);
                path_.resize(level.pathLength);
                if (entry.isDirectory() && !entry.isLink()) {
                    level.children.push_back(entry.name);
                }
            }
        } catch (const vosexception&) {
            path_.resize(level.pathLength);
            contents_.unreadable.add(path_);
        }
        level.lister.reset();
    }

    // Goes into the next directory, or back up where there is none left.
    void descend() {
        Level& level = levels_.back();
        if (level.children.empty()) {
            levels_.pop_back();
            if (!levels_.empty()) {
                path_.resize(levels_.back().pathLength);
            }
            return;
        }
        path_ = RunTime::combine(path_, level.children.back());
        level.children.pop_back();
        if (!enter()) {
            contents_.unreadable.add(path_);
            path_.resize(levels_.back().pathLength);
        }
    }

    void visit(const FileInformation& entry) {
        if (entry.isLink()) {
            ++contents_.links;
            link_.raise(path_);
        } else if (entry.isDirectory()) {
            ++contents_.directories;
        } else {
            ++contents_.files;
            contents_.bytes += entry.size;
        }
        measurePath();
        noteAttributes(entry);
        if (options_.thorough) {
            contents_.bytesOnTarget += TreeScan::Options::itemAllowance;
            if (entry.isLink()) {
                examineLink();
            } else if (entry.isDirectory()) {
                examineStreams();
            } else {
                examineFile(entry);
            }
        }
        report();
    }

    void measurePath() {
        const std::size_t length = path_.size() - topLength_;
        if (length > contents_.longestPath) {
            contents_.longestPath = length;
            contents_.longestName = RunTime::nicePath(path_);
        }
        contents_.pathsTooLong += length > options_.pathLimit ? 1 : 0;
        contents_.depth = std::max(contents_.depth, static_cast<int>(levels_.size()));
    }

    void noteAttributes(const FileInformation& entry) {
        if (entry.isLink()) {
            return;
        }
        const auto note = [&](DWORD attribute, TreeContents::Special& special) {
            if ((entry.attributes & attribute) != 0) {
                special.add(path_);
            }
        };
        note(FILE_ATTRIBUTE_COMPRESSED, contents_.compressed);
        note(FILE_ATTRIBUTE_ENCRYPTED, contents_.encrypted);
        note(FILE_ATTRIBUTE_SPARSE_FILE, contents_.sparse);
        note(FILE_ATTRIBUTE_REPARSE_POINT, contents_.reparse);
        if ((entry.attributes & recallAttributes) != 0 ||
            (entry.reparseTag & ~cloudTagMask) == cloudTag) {
            contents_.cloud.add(path_);
        }
    }

    void examineFile(const FileInformation& entry) {
        const AutoHandle file = RunTime::openExisting(path_, FILE_READ_ATTRIBUTES, anyShare);
        FILE_STANDARD_INFO standard{};
        if (!file || !::GetFileInformationByHandleEx(file.get(), FileStandardInfo, &standard,
                                                     sizeof(standard))) {
            contents_.unreadable.add(path_);
            addOnTarget(entry.size);
            return;
        }
        if (standard.NumberOfLinks > 1) {
            contents_.hardLinks.add(path_);
            if (options_.hardLinksOnTarget && !isFirstName(file.get())) {
                return;
            }
        }
        const bool sparse = (entry.attributes & FILE_ATTRIBUTE_SPARSE_FILE) != 0;
        addOnTarget(sparse && options_.sparseOnTarget ? standard.AllocationSize.QuadPart
                                                      : standard.EndOfFile.QuadPart);
        examineStreams();
    }

    // Whether no other name of the file has been seen yet. The system tells the id slowly, so only
    // files that have other names are asked for it.
    bool isFirstName(HANDLE file) {
        BY_HANDLE_FILE_INFORMATION information{};
        if (!::GetFileInformationByHandle(file, &information)) {
            return true;
        }
        const std::uint64_t id =
            std::uint64_t{information.nFileIndexHigh} << 32 | information.nFileIndexLow;
        return seen_.insert(id).second;
    }

    void examineStreams() {
        if (!options_.streams) {
            return;
        }
        std::vector<StreamEntry> streams;
        if (listNamedStreams(path_, streams) != ERROR_SUCCESS || streams.empty()) {
            return;
        }
        contents_.namedStreams.add(path_);
        for (const StreamEntry& stream : streams) {
            contents_.namedStreamBytes += stream.size;
            addOnTarget(stream.size);
        }
    }

    void examineLink() {
        const AutoHandle link = RunTime::openExisting(path_, FILE_READ_ATTRIBUTES, anyShare);
        if (!link) {
            contents_.unreadable.add(path_);
            return;
        }
        const std::wstring target = reparseTarget(readReparsePoint(link.get()));
        const std::wstring top = RunTime::nicePath(path_.substr(0, topLength_));
        if (RunTime::equalNames(target, top) || RunTime::isStrictlyInside(target, top)) {
            contents_.linksIntoTree.add(path_);
        }
    }

    void addOnTarget(std::int64_t bytes) {
        const std::int64_t cluster = std::max<std::int64_t>(options_.clusterBytes, 1);
        contents_.bytesOnTarget += (bytes + cluster - 1) / cluster * cluster;
    }

    void report() {
        ThreadCancelation::check();
        bool cancel = false;
        progress_.raise(contents_, cancel);
        if (cancel) {
            throw CanceledException({L"", "TreeScan::scan", __LINE__});
        }
    }

    TreeScan::Options options_;
    Event<const TreeContents&, bool&>& progress_;
    Event<const std::wstring&>& link_;
    std::wstring path_; // of the item at hand, long form
    std::size_t topLength_;
    TreeContents contents_;
    std::vector<Level> levels_;
    std::unordered_set<std::uint64_t> seen_; // ids of files with several names
};

} // namespace

void TreeContents::Special::add(const std::wstring& path) {
    if (++count <= static_cast<std::int64_t>(maxExamples)) {
        examples.push_back(RunTime::nicePath(path));
    }
}

TreeContents TreeScan::scan(const std::wstring& path, const Options& options) {
    const ThreadCancelation::CancelationPoint cancellable;
    return Walk(path, options, progressEvent, linkEvent).run();
}
