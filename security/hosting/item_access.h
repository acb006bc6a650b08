// What the list of access of one item below a hosting's root has to be: the entries that the
// template names for it, and what it inherits from the directory above. Inheritance is worked out
// here as Windows does it, so that an item can be checked alone, and written without the system's
// own propagation, which walks a tree by its paths.
//
//     const ItemAccess root(&above, AceSubject::Directory, entries, true);
//     const ItemAccess& file = root.child(AceSubject::File); // of any file that has no entries
//     if (!file.matches(descriptor)) { ... }
//
// One thread at a time: answers are kept.
#pragma once

#include "security/ace_text.h"
#include "security/descriptor_bytes.h"
#include "security/sid.h"

#include <memory>
#include <span>
#include <vector>
#include <windows.h>

namespace HostingSecurity {

// Whole entries of a list, one behind the other.
using AceList = std::vector<unsigned char>;

// Adds an entry that grants or denies.
void appendAce(AceList& list, BYTE type, BYTE flags, ACCESS_MASK mask, const RunTime::Sid& trustee);

// The same entries as a file has them: nothing is below it.
AceList asFileHasThem(const AceList& list);

class ItemAccess {
public:
    // above            of the directory that holds the item; null for nothing to inherit
    // explicitEntries  denials first; copied
    // isProtected      nothing is inherited
    ItemAccess(const ItemAccess* above, RunTime::AceSubject kind, const AceList& explicitEntries,
               bool isProtected);
    // Of a directory as it is: for what stands above the root.
    explicit ItemAccess(const RunTime::DescriptorBytes& directory);
    ~ItemAccess();
    ItemAccess(const ItemAccess&) = delete;
    ItemAccess& operator=(const ItemAccess&) = delete;

    // Of an item below this directory that the template does not name. Lives as long as this.
    const ItemAccess& child(RunTime::AceSubject kind) const;

    RunTime::AceSubject kind() const noexcept { return kind_; }
    bool isProtected() const noexcept { return protected_; }

    // Whether an item with this whole descriptor is as it should be: the same entries, but for an
    // order that means nothing, and inheritance protected or not as wanted.
    bool matches(const RunTime::DescriptorBytes& present) const;

    // The wanted list for an item of this owner and group, whom entries for the creator turn into.
    // A whole ACL; valid until the next call. Throws vosexception "Unable to hold (%lu) bytes in an
    // ACL".
    std::span<const unsigned char> list(std::span<const unsigned char> owner,
                                        std::span<const unsigned char> group) const;

    // A descriptor with the wanted list alone, to be written to an item that has present.
    RunTime::DescriptorBytes wanted(const RunTime::DescriptorBytes& present) const;

private:
    RunTime::AceSubject kind_;
    bool protected_;
    AceList explicit_;
    AceList source_;      // what the directory above hands down
    AceList inheritable_; // what this one does
    mutable std::unique_ptr<ItemAccess> file_;
    mutable std::unique_ptr<ItemAccess> directory_;
    // The last answer of list(), and for whom it was.
    mutable std::vector<unsigned char> list_;
    mutable std::vector<unsigned char> owner_;
    mutable std::vector<unsigned char> group_;
    mutable bool namesCreator_ = false;
};

} // namespace HostingSecurity
