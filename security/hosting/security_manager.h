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

#include "runtime/exception.h"

#include <memory>
#include <string>

namespace HostingSecurity {

// The root is not where a hosting can be: not below the directory of virtual hosts.
class RootCorrelationException : public vexception {
    using vexception::vexception;
};

// Which template applies.
enum class HostingKind {
    Forwarding, // a domain without an account of its own
    Domain,
    Webuser,
};

// The accounts that a template names by placeholder. Where one is empty, the entries for it are
// left out.
struct HostingAccounts {
    std::wstring user;
    std::wstring parent;   // the domain's user, for a web user
    std::wstring poolUser; // of the domain's IIS application pool
};

enum class CommitMode {
    Repair = 0, // every item below the root
    Fast = 1,   // the items that the template names, and nothing else
    Report = 2, // every item; nothing is written
};

// What a commit finds. The default handlers do nothing.
class ICommitCallback {
public:
    virtual ~ICommitCallback() = default;
    // An item is looked at. Paths in nice form.
    virtual void onItem(const std::wstring& path);
    // An item's permissions are not those of the template; text says in words what was expected and
    // what was found.
    virtual void onSecurityException(const std::wstring& path, const std::wstring& text);
    // An item could not be read or repaired; the commit passes over it.
    virtual void onError(const std::wstring& path, const vexception& error);
};

class SecurityManager {
public:
    // root  of the hosting, in either form. Logs "Root path is %s". Throws
    // RootCorrelationException; vexception when the directory of virtual hosts is not configured.
    explicit SecurityManager(const std::wstring& root);
    ~SecurityManager();
    SecurityManager(const SecurityManager&) = delete;
    SecurityManager& operator=(const SecurityManager&) = delete;

    // What the next commits apply; HostingKind::Forwarding without accounts at first.
    void setHosting(HostingKind kind, HostingAccounts accounts);

    // descend    into what exists below the items that the template names; false looks at these
    //            alone, as mode Fast does
    // reportAll  calls onItem for every item, not only for those that differ
    // Throws CanceledException; vexception when the template cannot be applied at all (an account
    // that does not exist, a root that cannot be opened). Single items go to onError.
    void commit(ICommitCallback& callback, CommitMode mode, bool descend, bool reportAll);

    // The domain that the root belongs to: the name of the directory directly below that of the
    // virtual hosts.
    std::wstring getDomainName() const;

    // The file in which the last repair kept the descriptors that it replaced, in nice form; empty
    // when it replaced none.
    const std::wstring& getUndoFile() const noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace HostingSecurity
