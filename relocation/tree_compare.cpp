#include "relocation/tree_compare.h"

#include "relocation/item_compare.h"
#include "runtime/accounts/privilege_scope.h"
#include "runtime/exception.h"
#include "runtime/files/file.h"
#include "runtime/files/path.h"
#include "runtime/files/volume_kind.h"
#include "runtime/format_string.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <vector>

namespace {

using RunTime::AutoHandle;
using RunTime::FileInformation;

// Deletion is not shared: what is held open cannot be swapped for a link while it is walked.
constexpr DWORD holdShare = FILE_SHARE_READ | FILE_SHARE_WRITE;

enum class Type { File, Directory, Link };

Type typeOf(const FileInformation& entry) {
    return entry.isLink() ? Type::Link : entry.isDirectory() ? Type::Directory : Type::File;
}

const wchar_t* nameOf(Type type) {
    return type == Type::Link ? L"a link" : type == Type::Directory ? L"a directory" : L"a file";
}

int compareNames(const std::wstring& first, const std::wstring& second, bool ignoreCase) {
    return ::CompareStringOrdinal(first.data(), static_cast<int>(first.size()), second.data(),
                                  static_cast<int>(second.size()), ignoreCase) -
           CSTR_EQUAL;
}

// One name in one or both directories.
struct Pair {
    FileInformation first; // no name: it is only in the second
    FileInformation second;
};

// Entries of two listings, matched by name: exactly where that is possible, since a directory may
// be case-sensitive and hold two names that differ in case only, otherwise ignoring case.
std::vector<Pair> match(std::vector<FileInformation> first, std::vector<FileInformation> second) {
    const auto order = [](const FileInformation& a, const FileInformation& b) {
        const int loose = compareNames(a.name, b.name, true);
        return loose != 0 ? loose < 0 : compareNames(a.name, b.name, false) < 0;
    };
    std::sort(first.begin(), first.end(), order);
    std::sort(second.begin(), second.end(), order);
    std::vector<Pair> pairs;
    pairs.reserve(std::max(first.size(), second.size()));
    for (std::size_t i = 0, j = 0; i < first.size() || j < second.size();) {
        // The names at i and j that are equal but for case, on either side.
        const std::wstring& name =
            j == second.size() ||
                    (i < first.size() && compareNames(first[i].name, second[j].name, true) <= 0)
                ? first[i].name
                : second[j].name;
        const auto endOf = [&](const std::vector<FileInformation>& list, std::size_t from) {
            while (from < list.size() && compareNames(list[from].name, name, true) == 0) {
                ++from;
            }
            return from;
        };
        const std::size_t endFirst = endOf(first, i);
        const std::size_t endSecond = endOf(second, j);
        std::vector<FileInformation> restFirst;
        std::vector<FileInformation> restSecond;
        while (i < endFirst || j < endSecond) {
            const int exact = i == endFirst    ? 1
                              : j == endSecond ? -1
                                               : compareNames(first[i].name, second[j].name, false);
            if (exact == 0) {
                pairs.push_back({std::move(first[i++]), std::move(second[j++])});
            } else if (exact < 0) {
                restFirst.push_back(std::move(first[i++]));
            } else {
                restSecond.push_back(std::move(second[j++]));
            }
        }
        restFirst.resize(std::max(restFirst.size(), restSecond.size()));
        restSecond.resize(restFirst.size());
        for (std::size_t k = 0; k < restFirst.size(); ++k) {
            pairs.push_back({std::move(restFirst[k]), std::move(restSecond[k])});
        }
    }
    return pairs;
}

// A pair of directories on the way down. A tree may be deeper than the stack allows, so the way is
// a list.
struct Level {
    AutoHandle first;
    AutoHandle second;
    std::vector<Pair> pairs;
    std::size_t next = 0; // pair to be compared
    std::size_t firstLength = 0;
    std::size_t secondLength = 0;
    std::size_t relativeLength = 0;
};

class Walk {
public:
    Walk(TreeComparison& owner, const TreeComparison::Options& options, const std::wstring& first,
         const std::wstring& second)
        : owner_(owner), options_(options), privileges_({SE_BACKUP_NAME, SE_SECURITY_NAME}),
          firstPath_(RunTime::longPath(first)), secondPath_(RunTime::longPath(second)) {
        ItemComparison::Settings settings;
        settings.audit = options.security && privileges_.holds(SE_SECURITY_NAME);
        settings.streams = options.streams && hasStreams(firstPath_) && hasStreams(secondPath_);
        items_.setUp(options, settings, [this](std::int64_t bytes) {
            result_.bytes += bytes;
            report(true);
        });
        result_.streamsCompared = settings.streams;
        result_.auditCompared = settings.audit;
    }

    TreeComparison::Result run() {
        const Pair tops{RunTime::fileInformation(firstPath_),
                        RunTime::fileInformation(secondPath_)};
        comparePair(tops);
        while (!levels_.empty()) {
            Level& level = levels_.back();
            leaveItem(level);
            if (level.next == level.pairs.size()) {
                levels_.pop_back();
                continue;
            }
            const Pair pair = std::move(level.pairs[level.next++]);
            enterItem(level, pair);
            if (options_.leaveOut && options_.leaveOut(relative_)) {
                continue;
            }
            if (pair.first.name.empty()) {
                if (options_.onlyInSecond) {
                    differ(DifferenceKind::OnlyInSecond, nameOf(typeOf(pair.second)));
                }
            } else if (pair.second.name.empty()) {
                differ(DifferenceKind::OnlyInFirst, nameOf(typeOf(pair.first)));
            } else {
                if (pair.first.name != pair.second.name) {
                    differ(DifferenceKind::Name, L"\"" + pair.first.name + L"\" here, \"" +
                                                     pair.second.name + L"\" there");
                }
                comparePair(pair);
            }
        }
        return result_;
    }

private:
    static bool hasStreams(const std::wstring& path) {
        return (RunTime::volumeKind(path).flags & FILE_NAMED_STREAMS) != 0;
    }

    static void append(std::wstring& path, const std::wstring& name) {
        if (!path.empty() && path.back() != L'\\') {
            path += L'\\';
        }
        path += name;
    }

    void enterItem(const Level&, const Pair& pair) {
        const std::wstring& name = pair.first.name.empty() ? pair.second.name : pair.first.name;
        append(relative_, name);
        append(firstPath_, name);
        append(secondPath_, pair.second.name.empty() ? name : pair.second.name);
    }

    void leaveItem(const Level& level) {
        relative_.resize(level.relativeLength);
        firstPath_.resize(level.firstLength);
        secondPath_.resize(level.secondLength);
    }

    // Compares the items at the two paths; two directories are entered.
    void comparePair(const Pair& pair) {
        ++result_.items;
        const Type type = typeOf(pair.first);
        result_.files += type == Type::File ? 1 : 0;
        report(type == Type::File);
        if (type != typeOf(pair.second)) {
            differ(DifferenceKind::Type, std::wstring(nameOf(type)) + L" here, " +
                                             nameOf(typeOf(pair.second)) + L" there");
            return;
        }
        AutoHandle first = open(firstPath_, pair.first, false);
        AutoHandle second = first ? open(secondPath_, pair.second, true) : AutoHandle();
        if (!first || !second) {
            return;
        }
        const auto report = [this](DifferenceKind kind, const std::wstring& detail) {
            differ(kind, detail);
        };
        if (type == Type::Link) {
            items_.compareLinks(first.get(), second.get(), report);
        } else if (type == Type::File) {
            items_.compareData(first.get(), second.get(), report);
        }
        if (type != Type::Link) {
            items_.compareStreams(firstPath_, secondPath_, report);
        }
        if (type != Type::Directory || options_.directoryProperties) {
            items_.compareProperties(first.get(), second.get(), report);
        }
        if (type == Type::Directory) {
            enter(std::move(first), std::move(second));
        }
    }

    // Empty when the item cannot be opened; that has been reported then.
    AutoHandle open(const std::wstring& path, const FileInformation& entry, bool isSecond) {
        DWORD access = FILE_READ_ATTRIBUTES | SYNCHRONIZE;
        access |= options_.security || options_.owner ? READ_CONTROL : 0;
        access |= result_.auditCompared ? ACCESS_SYSTEM_SECURITY : 0;
        DWORD flags = 0;
        if (typeOf(entry) == Type::Directory) {
            access |= FILE_LIST_DIRECTORY;
        } else if (typeOf(entry) == Type::File && options_.contents) {
            access |= FILE_READ_DATA;
            flags |= items_.readFlags(isSecond);
        }
        AutoHandle handle = RunTime::openExisting(path, access, holdShare, flags);
        if (!handle && result_.auditCompared) {
            handle = RunTime::openExisting(path, access & ~DWORD{ACCESS_SYSTEM_SECURITY}, holdShare,
                                           flags);
        }
        FileInformation opened;
        const DWORD code = handle ? RunTime::readKind(handle.get(), opened) : ::GetLastError();
        if (code != ERROR_SUCCESS) {
            const std::wstring what =
                formatString(L"Unable to open (%s)", RunTime::nicePath(path).c_str());
            if (levels_.empty()) {
                _throwError(what.c_str(), code, {L"", "TreeComparison::compare", __LINE__});
            }
            differ(DifferenceKind::Unreadable, what + L": " + systemText(code));
            return {};
        }
        // Where the system opens links only by following them, the listing alone knows them.
        if (typeOf(entry) != Type::Link && typeOf(opened) != typeOf(entry)) {
            differ(DifferenceKind::Unreadable,
                   formatString(L"(%s) was replaced meanwhile", RunTime::nicePath(path).c_str()));
            return {};
        }
        return handle;
    }

    void enter(AutoHandle first, AutoHandle second) {
        std::vector<FileInformation> firstEntries;
        std::vector<FileInformation> secondEntries;
        if (!list(first.get(), firstPath_, firstEntries) ||
            !list(second.get(), secondPath_, secondEntries)) {
            return;
        }
        Level level;
        level.first = std::move(first);
        level.second = std::move(second);
        level.pairs = match(std::move(firstEntries), std::move(secondEntries));
        level.firstLength = firstPath_.size();
        level.secondLength = secondPath_.size();
        level.relativeLength = relative_.size();
        levels_.push_back(std::move(level));
    }

    bool list(HANDLE directory, const std::wstring& path, std::vector<FileInformation>& entries) {
        try {
            RunTime::DirectoryLister lister(directory, path);
            for (FileInformation entry; lister.next(entry);) {
                if (!RunTime::isDotEntry(entry.name)) {
                    entries.push_back(entry);
                }
            }
            return true;
        } catch (const vosexception& e) {
            differ(DifferenceKind::Unreadable, e.message());
            return false;
        }
    }

    void differ(DifferenceKind kind, const std::wstring& detail) {
        ++result_.differences;
        result_.unreadable += kind == DifferenceKind::Unreadable ? 1 : 0;
        owner_.differenceEvent.raise({kind, relative_, detail});
    }

    void report(bool isFile) {
        ThreadCancelation::check();
        bool cancel = false;
        owner_.progressEvent.raise(relative_, isFile, result_.bytes, cancel);
        if (cancel) {
            throw CanceledException({L"", "TreeComparison::compare", __LINE__});
        }
    }

    TreeComparison& owner_;
    const TreeComparison::Options& options_;
    RunTime::PrivilegeScope privileges_;
    std::wstring firstPath_; // of the item at hand, long form
    std::wstring secondPath_;
    std::wstring relative_;
    ItemComparison items_;
    TreeComparison::Result result_;
    std::vector<Level> levels_;
};

} // namespace

const wchar_t* describe(DifferenceKind kind) {
    switch (kind) {
    case DifferenceKind::OnlyInFirst:
        return L"only in the first";
    case DifferenceKind::OnlyInSecond:
        return L"only in the second";
    case DifferenceKind::Name:
        return L"name";
    case DifferenceKind::Type:
        return L"type";
    case DifferenceKind::Size:
        return L"size";
    case DifferenceKind::Contents:
        return L"contents";
    case DifferenceKind::Stream:
        return L"named stream";
    case DifferenceKind::Link:
        return L"link";
    case DifferenceKind::Attributes:
        return L"attributes";
    case DifferenceKind::Times:
        return L"times";
    case DifferenceKind::Owner:
        return L"owner";
    case DifferenceKind::Permissions:
        return L"permissions";
    case DifferenceKind::Audit:
        return L"audit list";
    case DifferenceKind::Unreadable:
        return L"unreadable";
    }
    return L"";
}

TreeComparison::Result TreeComparison::compare(const std::wstring& first,
                                               const std::wstring& second, const Options& options) {
    const ThreadCancelation::CancelationPoint cancellable;
    return Walk(*this, options, first, second).run();
}
