#include "security/hosting/security_walk.h"

#include "runtime/files/path.h"
#include "runtime/files/pinned_path.h"
#include "runtime/thread_cancelation.h"

#include <algorithm>
#include <utility>

namespace HostingSecurity {

namespace {

using RunTime::AceSubject;
using RunTime::AutoHandle;
using RunTime::FileInformation;

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// The user may hold any number of directories open for deletion, so patience is short.
constexpr int openTries = 4;

// Directories noted of one listing before they are entered, and files held open until the disk has
// their old descriptors.
constexpr std::size_t mostChildren = 1000;
constexpr std::size_t mostPending = 64;

constexpr wchar_t cameInPlace[] = L"Something else has come in the place of (%s)";

} // namespace

SecurityWalk::SecurityWalk(const HostingRoot& root, const TemplateTree& tree,
                           ICommitCallback& callback, const Options& options)
    : root_(root), callback_(callback), options_(options), rootNodes_(tree.root()) {}

SecurityWalk::~SecurityWalk() = default;

void SecurityWalk::run() {
    // A web user's root lies in the directory of a hosted user, who could change the way to it.
    RunTime::PinnedPath way(root_.vhosts);
    const std::wstring parent = RunTime::parentPath(root_.path);
    if (!way.hold(parent)) {
        RunTime::throwForPath(L"Unable to open directory (%s)", parent, ERROR_PATH_NOT_FOUND,
                              "HostingSecurity::SecurityWalk::run", __LINE__);
    }
    enterRoot();
    while (!levels_.empty()) {
        Level& level = levels_.back();
        if (level.children.empty() && level.lister) {
            list();
        } else if (level.children.empty()) {
            levels_.pop_back();
        } else {
            const std::wstring name = std::move(level.children.back());
            level.children.pop_back();
            enter(name);
        }
    }
    applyPending();
    undo_.reset();
}

void SecurityWalk::enterRoot() {
    constexpr const char* function = "HostingSecurity::SecurityWalk::enterRoot";
    path_ = root_.path;
    AutoHandle handle = RunTime::openPinnedDirectory(path_, RunTime::defaultTryCount, access());
    if (!handle) {
        RunTime::throwForPath(L"Unable to open directory (%s), which is a link or a file now",
                              path_, ERROR_DIRECTORY, function, __LINE__);
    }
    BY_HANDLE_FILE_INFORMATION information;
    if (!::GetFileInformationByHandle(handle.get(), &information)) {
        const DWORD code = ::GetLastError();
        RunTime::throwForPath(L"Unable to get file information (%s)", path_, code, function,
                              __LINE__);
    }
    head_ = {path_, ItemIdentity(information)};
    const std::wstring parent = RunTime::parentPath(path_);
    const AutoHandle above = RunTime::openExisting(parent, READ_CONTROL, shareAll);
    DWORD code = above ? ERROR_SUCCESS : ::GetLastError();
    if (code == ERROR_SUCCESS) {
        code = RunTime::readDescriptor(above.get(), false, present_);
    }
    if (code != ERROR_SUCCESS) {
        RunTime::throwForPath(L"Unable to read the permissions of (%s)", parent, code, function,
                              __LINE__);
    }
    const auto wanted = TemplateTree::accessOf(
        rootNodes_, std::make_shared<const ItemAccess>(present_), AceSubject::Directory);
    check(handle, *wanted, true);
    push(std::move(handle), rootNodes_, wanted);
}

// The child directory of the lowest level.
void SecurityWalk::enter(std::wstring_view name) {
    ThreadCancelation::check();
    const Level& above = levels_.back();
    path_.resize(above.pathLength);
    path_ = RunTime::combine(path_, name);
    TemplateNodes nodes = TemplateTree::below(above.nodes, name);
    const auto wanted = TemplateTree::accessOf(nodes, above.access, AceSubject::Directory);
    AutoHandle handle;
    try {
        handle = RunTime::openPinnedDirectory(path_, openTries, access());
        if (!handle && RunTime::exists(path_)) {
            RunTime::throwForPath(cameInPlace, path_, ERROR_DIRECTORY,
                                  "HostingSecurity::SecurityWalk::enter", __LINE__);
        }
    } catch (const vosexception& error) {
        report(error);
        return;
    }
    if (!handle) {
        return; // it has gone
    }
    if (options_.everything || TemplateTree::areNamed(nodes)) {
        check(handle, *wanted, true);
    }
    push(std::move(handle), std::move(nodes), wanted);
}

void SecurityWalk::push(AutoHandle handle, TemplateNodes nodes,
                        std::shared_ptr<const ItemAccess> wanted) {
    auto lister = std::make_unique<RunTime::DirectoryLister>(handle.get(), path_);
    levels_.push_back({std::move(handle),
                       std::move(lister),
                       path_.size(),
                       std::move(nodes),
                       std::move(wanted),
                       {}});
}

// Looks at what is in the lowest directory, and notes directories for later; in parts, where it is
// large.
void SecurityWalk::list() {
    Level& level = levels_.back();
    path_.resize(level.pathLength);
    if (!options_.everything && !TemplateTree::haveStars(level.nodes)) {
        listNamed();
        level.lister.reset();
        return;
    }
    while (level.children.size() < mostChildren) {
        FileInformation entry;
        bool found = false;
        try {
            found = level.lister->next(entry);
        } catch (const vosexception& error) {
            report(error);
        }
        if (!found) {
            level.lister.reset();
            return;
        }
        if (!RunTime::isDotEntry(entry.name)) {
            take(entry);
        }
    }
}

// The template names what is looked at: no listing is needed.
void SecurityWalk::listNamed() {
    for (const std::wstring& name : TemplateTree::namesBelow(levels_.back().nodes)) {
        FileInformation entry;
        try {
            entry = RunTime::fileInformation(RunTime::combine(path_, name));
            entry.name = name;
        } catch (const vosexception& error) {
            if (!RunTime::meansMissing(
                    error.get_errorCode())) { // a template names what may be there
                report(error);
            }
            continue;
        }
        take(entry);
    }
}

void SecurityWalk::take(const FileInformation& entry) {
    Level& level = levels_.back();
    const TemplateNodes nodes = TemplateTree::below(level.nodes, entry.name);
    if (TemplateTree::areForeign(nodes) || (!options_.everything && !TemplateTree::leadOn(nodes))) {
        return;
    }
    if (entry.isDirectory() && !entry.isLink()) {
        level.children.push_back(entry.name);
    } else if (options_.everything || TemplateTree::areNamed(nodes)) {
        path_ = RunTime::combine(path_, entry.name);
        visitLeaf(entry, nodes);
        path_.resize(level.pathLength);
    }
}

// A file, or a link, whose own permissions are looked at like those of what it looks like.
void SecurityWalk::visitLeaf(const FileInformation& entry, const TemplateNodes& nodes) {
    ThreadCancelation::check();
    if (entry.isLink() && entry.reparseTag == 0) {
        reportCode(L"Unable to tell what kind of link this is (%s)", ERROR_REPARSE_TAG_INVALID,
                   __LINE__);
        return;
    }
    AutoHandle handle = RunTime::openExisting(path_, FILE_READ_ATTRIBUTES | access(), shareAll);
    if (!handle) {
        const DWORD code = ::GetLastError();
        if (!RunTime::meansMissing(code)) { // it has gone
            reportCode(L"Unable to open (%s)", code, __LINE__);
        }
        return;
    }
    const Level& level = levels_.back();
    const AceSubject kind = entry.isDirectory() ? AceSubject::Directory : AceSubject::File;
    const auto wanted = TemplateTree::accessOf(nodes, level.access, kind);
    check(handle, *wanted, false);
}

void SecurityWalk::check(AutoHandle& handle, const ItemAccess& wanted, bool heldByLevel) {
    if (options_.reportAll) {
        callback_.onItem(RunTime::nicePath(path_));
    }
    if (const DWORD code = RunTime::readDescriptor(handle.get(), false, present_)) {
        reportCode(L"Unable to read the permissions of (%s)", code, __LINE__);
        return;
    }
    if (wanted.matches(present_)) {
        return;
    }
    const std::wstring nice = RunTime::nicePath(path_);
    if (!options_.reportAll) {
        callback_.onItem(nice);
    }
    callback_.onSecurityException(nice, difference_.describe(wanted, present_));
    if (options_.repair) {
        repair(handle, wanted, heldByLevel);
    }
}

void SecurityWalk::repair(AutoHandle& handle, const ItemAccess& wanted, bool heldByLevel) {
    BY_HANDLE_FILE_INFORMATION information;
    if (!::GetFileInformationByHandle(handle.get(), &information)) {
        const DWORD code = ::GetLastError();
        reportCode(L"Unable to get file information (%s)", code, __LINE__);
        return;
    }
    const bool directory = (information.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    if (directory != (wanted.kind() == AceSubject::Directory)) {
        reportCode(cameInPlace, ERROR_DIRECTORY, __LINE__);
        return;
    }
    // Directories have one name, whatever some file systems count.
    if (!directory && information.nNumberOfLinks > 1) {
        reportCode(L"The file (%s) has more names than this, and its permissions are left alone",
                   ERROR_TOO_MANY_LINKS, __LINE__);
        return;
    }
    Pending pending{{},
                    handle.get(),
                    {relative(), ItemIdentity(information), present_},
                    wanted.wanted(present_)};
    if (!heldByLevel) {
        pending.owned = std::move(handle);
    }
    pending_.push_back(std::move(pending));
    // What is made in a directory from now on is to inherit the new entries.
    if (heldByLevel || pending_.size() >= mostPending) {
        applyPending();
    }
}

void SecurityWalk::applyPending() {
    if (pending_.empty()) {
        return;
    }
    if (!undo_) {
        undo_ = std::make_unique<UndoLog>(head_, root_.domainName());
        undoFile_ = undo_->path();
    }
    for (const Pending& pending : pending_) {
        undo_->add(pending.before);
    }
    undo_->sync();
    std::vector<Pending> due = std::exchange(pending_, {});
    for (Pending& pending : due) {
        if (const DWORD code =
                RunTime::writeDescriptor(pending.handle, pending.wanted, false, false)) {
            const std::wstring here =
                std::exchange(path_, pending.before.path.empty()
                                         ? root_.path
                                         : RunTime::combine(root_.path, pending.before.path));
            reportCode(L"Unable to change the permissions of (%s)", code, __LINE__);
            path_ = here;
        } else {
            ++replaced_;
        }
    }
}

void SecurityWalk::report(const vexception& error) {
    ++failures_;
    callback_.onError(RunTime::nicePath(path_), error);
}

void SecurityWalk::reportCode(const wchar_t* format, DWORD code, int line) {
    try {
        RunTime::throwForPath(format, path_, code, "HostingSecurity::SecurityWalk::check", line);
    } catch (const vosexception& error) {
        report(error);
    }
}

// The path at hand, from the root on.
std::wstring SecurityWalk::relative() const {
    return path_.substr(std::min(path_.size(), root_.path.size() + 1));
}

DWORD SecurityWalk::access() const noexcept {
    return READ_CONTROL | (options_.repair ? WRITE_DAC : 0);
}

} // namespace HostingSecurity
