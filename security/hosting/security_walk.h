// One walk over the tree of a hosting that checks each item against a template, and repairs it.
//
// Windows would propagate inheritance by itself (SetSecurityInfo), but it does so by paths, through
// whatever a hosted user puts in its way. So each item is written alone, by its handle
// (SetKernelObjectSecurity), with what it inherits worked out here:
//
//   Handles are opened on links themselves, and a directory is held open without delete sharing
//   while the walk is in it: nobody can put a link in its place.
//   An item changes in one step from what it had to what it is to have. A directory comes before
//   what is in it is listed, so that what is made meanwhile inherits the new entries.
//   What is replaced is on the disk, in the undo file, before it is replaced; many items at once,
//   as flushing takes its time.
//   A file with several names is not written: one of them may be outside, and the file somebody
//   else's.
//
// Memory grows with the depth of the tree, not with the number of items.
#pragma once

#include "runtime/files/file.h"
#include "security/hosting/access_difference.h"
#include "security/hosting/commit_callback.h"
#include "security/hosting/hosting_root.h"
#include "security/hosting/template_tree.h"
#include "security/hosting/undo_log.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace HostingSecurity {

class SecurityWalk {
public:
    struct Options {
        bool repair = false;
        bool everything = false; // otherwise only what the template names
        bool reportAll = false;  // onItem for items that are right, too
    };

    // All references outlive the walk.
    SecurityWalk(const HostingRoot& root, const TemplateTree& tree, ICommitCallback& callback,
                 const Options& options);
    ~SecurityWalk();
    SecurityWalk(const SecurityWalk&) = delete;
    SecurityWalk& operator=(const SecurityWalk&) = delete;

    // Once. Throws CanceledException; vosexception when the root cannot be opened, and when the
    // undo file cannot be written.
    void run();

    std::uint64_t failures() const noexcept { return failures_; } // items passed over
    std::uint64_t replaced() const noexcept { return replaced_; } // lists of access
    // In long form; empty when nothing was replaced.
    const std::wstring& undoFile() const noexcept { return undoFile_; }

private:
    // A directory that has been checked, and is entered later.
    struct Child {
        std::wstring name;
        RunTime::AutoHandle handle;
        TemplateNodes nodes;
        std::shared_ptr<const ItemAccess> access;
    };
    // A directory on the way down. A tree may be deeper than the stack allows, so the way is a
    // list.
    struct Level {
        RunTime::AutoHandle handle;
        std::unique_ptr<RunTime::DirectoryLister> lister; // null once all has been listed
        std::size_t pathLength;
        TemplateNodes nodes;
        std::shared_ptr<const ItemAccess> access;
        std::vector<Child> children; // to enter
    };
    // An item whose new list waits for the old one to be on the disk.
    struct Pending {
        RunTime::AutoHandle owned; // empty for a directory, which is held to be entered
        HANDLE handle;
        UndoItem before;
        RunTime::DescriptorBytes wanted;
    };

    void enterRoot();
    void enter(Child child);
    void list();
    void listNamed();
    void take(const RunTime::FileInformation& entry);
    void visitDirectory(const std::wstring& name, TemplateNodes nodes);
    void visitLeaf(const RunTime::FileInformation& entry, const TemplateNodes& nodes);
    bool isWanted(const TemplateNodes& nodes) const;
    // Of the item at path_; the handle of a file or link goes to what waits to be written.
    enum class Opened { Directory, Leaf };
    void check(RunTime::AutoHandle& handle, Opened as, const ItemAccess& wanted);
    void repair(RunTime::AutoHandle& handle, Opened as, const ItemAccess& wanted);
    void applyPending();
    void report(const vexception& error);
    void reportCode(const wchar_t* format, DWORD code, int line);
    std::wstring relative() const;
    DWORD access() const noexcept;

    const HostingRoot& root_;
    ICommitCallback& callback_;
    Options options_;
    TemplateNodes rootNodes_;
    std::wstring path_; // of the item at hand
    std::vector<Level> levels_;
    std::vector<Pending> pending_;
    RunTime::DescriptorBytes present_; // of the item at hand
    AccessDifference difference_;
    UndoHead head_;
    std::unique_ptr<HostingLock> lock_; // from the first change on
    std::unique_ptr<UndoLog> undo_;
    std::wstring undoFile_;
    std::uint64_t failures_ = 0;
    std::uint64_t replaced_ = 0;
};

} // namespace HostingSecurity
