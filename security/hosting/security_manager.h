// Brings the permissions below one hosting's root in line with the hosting's template:
//
//     HostingSecurity::SecurityManager manager(root);
//     manager.setHosting(HostingSecurity::HostingKind::Domain, {.user = L"d1", .poolUser = L"p1"});
//     manager.commit(callback, HostingSecurity::CommitMode::Repair, true, true);
//
// A root belongs to a hosted user, so its content is hostile: no link is followed, a directory is
// held open while the walk is inside, owners stay as they are. Only descriptors that differ from
// the template are written. One thread at a time; callbacks run on the calling thread.
#pragma once

#include "security/disk/policy_entry.h"
#include "security/hosting/commit_callback.h"
#include "security/hosting/hosting_root.h"
#include "security/hosting/hosting_template.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace HostingSecurity {

enum class CommitMode {
    Repair = 0, // every item below the root
    Fast = 1,   // the items that the template names, and nothing else
    Report = 2, // every item; nothing is written
};

class SecurityManager {
public:
    // root  of the hosting, in either form; it exists. Logs "Root path is %s". Throws
    // RootCorrelationException; vexception when the root does not exist, or the directory of
    // virtual hosts is not configured.
    explicit SecurityManager(const std::wstring& root);
    ~SecurityManager();
    SecurityManager(const SecurityManager&) = delete;
    SecurityManager& operator=(const SecurityManager&) = delete;

    // What the next commits apply; HostingKind::Forwarding without accounts at first.
    void setHosting(HostingKind kind, HostingAccounts accounts);

    // The template of this file, in place of the installed one, until the next setHosting(). Throws
    // as HostingTemplate::fromFile.
    void loadFromFile(const std::wstring& path);
    // The template in force, with its placeholders, as a new file. Throws as HostingTemplate::save.
    void saveToFile(const std::wstring& path) const;
    // The entries of the template in force, with the accounts of the hosting found; see
    // HostingTemplate::expand.
    std::vector<DiskSecurity::PolicyEntry> _expandTemplate() const;

    // descend    into what exists below the items that the template names; false looks at these
    //            alone, as mode Fast does
    // reportAll  calls onItem for every item, not only for those that differ
    // Throws CanceledException; vexception when the template cannot be applied at all (an account
    // that does not exist, a root that cannot be opened, no place for the undo file), and when
    // another repair of the hosting is under way. Single items go to onError.
    void commit(ICommitCallback& callback, CommitMode mode, bool descend, bool reportAll);

    // The list of access that the template wants for an existing item, in SDDL ("D:P(A;...)");
    // empty for one that it leaves to another hosting. Throws RootCorrelationException for a path
    // that is neither the root nor below it.
    std::wstring getSecurityInformation(const std::wstring& path);

    // An existing item's path from the root on: "logs\a.log"; empty for the root itself. Throws
    // RootCorrelationException as above.
    std::wstring getRootRelativePath(const std::wstring& path) const;

    // The domain that the root belongs to: the name of the directory directly below that of the
    // virtual hosts.
    std::wstring getDomainName() const;

    // The file in which the last commit kept the descriptors that it replaced, in nice form, for
    // undo() (security/hosting/undo.h); empty when it replaced none.
    const std::wstring& getUndoFile() const noexcept;
    // How many items the last commit gave other permissions, also when it ended by a failure.
    std::uint64_t getReplacedCount() const noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace HostingSecurity
