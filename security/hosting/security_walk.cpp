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

// Directories held of one listing before they are entered (one, far down), and items held until the
// disk has their old descriptors.
constexpr std::size_t mostChildren = 16;
constexpr std::size_t mostPending = 256;

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
            applyPending(); // what is made in a directory from now on is to inherit the new entries
            Child child = std::move(level.children.back());
            level.children.pop_back();
            path_ = RunTime::combine(path_.substr(0, level.pathLength), child.name);
            enter(std::move(child));
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
    ItemFacts facts;
    if (const DWORD code = readFacts(handle.get(), facts)) {
        RunTime::throwForPath(L"Unable to get file information (%s)", path_, code, function,
                              __LINE__);
    }
    head_ = {path_, facts.identity};
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
    check(handle, Opened::Directory, *wanted);
    applyPending();
    enter({{}, std::move(handle), rootNodes_, wanted});
}

// The directory at path_.
void SecurityWalk::enter(Child child) {
    auto lister = std::make_unique<RunTime::DirectoryLister>(child.handle.get(), path_);
    levels_.push_back({std::move(child.handle),
                       std::move(lister),
                       path_.size(),
                       std::move(child.nodes),
                       std::move(child.access),
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
    const std::size_t most = levels_.size() <= mostChildren ? mostChildren : 1;
    while (level.children.size() < most) {
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
            // A template names what may be there.
            if (!RunTime::meansMissing(error.get_errorCode())) {
                report(error);
            }
            continue;
        }
        take(entry);
    }
}

void SecurityWalk::take(const FileInformation& entry) {
    ThreadCancelation::check();
    const Level& level = levels_.back();
    TemplateNodes nodes = TemplateTree::below(level.nodes, entry.name);
    if (TemplateTree::areForeign(nodes) || (!options_.everything && nodes.empty())) {
        return;
    }
    path_ = RunTime::combine(path_, entry.name);
    if (entry.isDirectory() && !entry.isLink()) {
        visitDirectory(entry.name, std::move(nodes));
    } else if (isWanted(nodes)) {
        visitLeaf(entry, nodes);
    }
    path_.resize(level.pathLength);
}

bool SecurityWalk::isWanted(const TemplateNodes& nodes) const {
    return options_.everything || TemplateTree::areNamed(nodes);
}

void SecurityWalk::visitDirectory(const std::wstring& name, TemplateNodes nodes) {
    Level& level = levels_.back();
    AutoHandle handle;
    try {
        handle = RunTime::openPinnedDirectory(path_, openTries, access());
        if (!handle && RunTime::exists(path_)) {
            RunTime::throwForPath(cameInPlace, path_, ERROR_DIRECTORY,
                                  "HostingSecurity::SecurityWalk::visitDirectory", __LINE__);
        }
    } catch (const vosexception& error) {
        report(error);
        return;
    }
    if (!handle) {
        return; // it has gone
    }
    auto wanted = TemplateTree::accessOf(nodes, level.access, AceSubject::Directory);
    if (isWanted(nodes)) {
        check(handle, Opened::Directory, *wanted);
    }
    level.children.push_back({name, std::move(handle), std::move(nodes), std::move(wanted)});
}

// A file, or a link, whose own permissions are looked at like those of what it looks like.
void SecurityWalk::visitLeaf(const FileInformation& entry, const TemplateNodes& nodes) {
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
    check(handle, Opened::Leaf, *wanted);
}

void SecurityWalk::check(AutoHandle& handle, Opened as, const ItemAccess& wanted) {
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
        repair(handle, as, wanted);
    }
}

void SecurityWalk::repair(AutoHandle& handle, Opened as, const ItemAccess& wanted) {
    ItemFacts facts;
    if (const DWORD code = readFacts(handle.get(), head_.identity.volume, facts)) {
        reportCode(L"Unable to get file information (%s)", code, __LINE__);
        return;
    }
    if (facts.isDirectory != (wanted.kind() == AceSubject::Directory)) {
        reportCode(cameInPlace, ERROR_DIRECTORY, __LINE__);
        return;
    }
    if (!facts.isDirectory && facts.names > 1) {
        reportCode(L"The file (%s) has more names than this, and its permissions are left alone",
                   ERROR_TOO_MANY_LINKS, __LINE__);
        return;
    }
    Pending pending{
        {}, handle.get(), {relative(), facts.identity, present_}, wanted.wanted(present_)};
    if (as != Opened::Directory) {
        pending.owned = std::move(handle);
    }
    pending_.push_back(std::move(pending));
    if (pending_.size() >= mostPending) {
        applyPending();
    }
}

void SecurityWalk::applyPending() {
    if (pending_.empty()) {
        return;
    }
    if (!undo_) {
        lock_ = std::make_unique<HostingLock>(head_.root, head_.identity);
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
