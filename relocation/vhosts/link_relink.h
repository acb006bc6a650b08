// Symbolic links and junctions in the tree that moves which name a place in that tree by its full
// path: after the move they would lead nowhere. This finds them before, points them at the new
// place after, and puts them back on a rollback.
//
//     LinkRelink links(oldRoot);            // while the old place is there
//     Hook found = scan.linkEvent.hook([&](const std::wstring& path) { links.add(path); });
//     scan.scan(oldRoot, {});
//     ... the tree moves ...
//     links.change(newRoot);
//     links.rollback();                     // before the tree moves back
//
// Links are opened as themselves and never followed, below directories that are held meanwhile;
// their targets are compared as texts, without a look at the disk, since tenants choose them.
// Relative links, mounted volumes and links to elsewhere are left alone. One thread at a time;
// handlers run on it.
#pragma once

#include "relocation/reparse_point.h"
#include "runtime/event.h"

#include <cstdint>
#include <string>
#include <vector>
#include <windows.h>

namespace RunTime {
class PinnedPath;
}

class LinkRelink {
public:
    struct Link {
        std::wstring path;   // below the top, with a backslash in front
        std::wstring target; // where it leads, as people write it
    };
    // One that has been pointed at the new place, or is about to be.
    struct Changed {
        std::wstring path;                 // as above
        std::vector<unsigned char> before; // its data
        std::vector<unsigned char> after;
        FILE_BASIC_INFO times{};
    };
    // What is kept of all links together, in bytes; more are only counted. Whoever owns a site can
    // fill it with links.
    static constexpr std::size_t maxBytes = 64 * 1024 * 1024;

    // oldRoot  the directory that will move; absolute, in any form
    explicit LinkRelink(const std::wstring& oldRoot);
    LinkRelink(const LinkRelink&) = delete;
    LinkRelink& operator=(const LinkRelink&) = delete;

    // path  of an item in the tree, in long form. What is no link into the tree, or cannot be read,
    //       is passed over.
    void add(const std::wstring& path);
    const std::vector<Link>& get_links() const noexcept { return links_; }
    std::int64_t get_notKept() const noexcept { return notKept_; }

    // Points every link, which is below newRoot now, at the new place; its times stay. A link that
    // somebody has changed meanwhile is left alone. A failure goes to errorEvent, and is thrown
    // when no handler ignores it. Throws CanceledException when a handler cancels.
    void change(const std::wstring& newRoot);

    // Takes up what a process that has ended has changed, for rollback(); root is where the tree is
    // now.
    void resume(const std::wstring& root, std::vector<Changed> links);

    // Writes the data of every changed link back, byte for byte, the last one first. A failure goes
    // to the log and to errorEvent, and the others are still put back; the next rollback tries that
    // link again, also when the tree has moved back meanwhile.
    void rollback();

    // Links that point to the new place now.
    std::int64_t get_changed() const noexcept { return changed_; }

    Event<std::int32_t, bool&> progressEvent_Total;       // count, cancel
    Event<const std::wstring&, bool&> progressEvent_Name; // path of the link in nice form, cancel
    Event<const std::wstring&, bool&> errorEvent;         // message, ignore
    Event<const Changed&> changingEvent;                  // before each change; may throw

private:
    std::size_t lengthInOldRoot(const std::wstring& path) const;
    void changeOne(const Link& link, RunTime::PinnedPath& pinned);
    static bool restoreOne(const Changed& done, const std::wstring& root,
                           RunTime::PinnedPath& pinned);

    std::wstring oldRoot_;               // long form, as newRoot_
    std::vector<std::wstring> oldForms_; // nice, without backslash at the end
    std::wstring newRoot_;
    std::vector<Link> links_;
    std::vector<Changed> done_;
    std::size_t bytes_ = 0;
    std::int64_t notKept_ = 0;
    std::int64_t changed_ = 0;
};
