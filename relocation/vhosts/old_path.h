// The directory that is about to move, as the registry's texts may name it.
//
// A text names a path in it when the text begins with a fully qualified path there, compared by
// whole components and without regard to letter case, or when both exist on disk and their forms
// with long names compare so: texts in 8.3 form are found that way. What is no path by itself names
// nothing: "5.1", "vhosts\site" whatever the current directory, a URL, a path in quotes or behind
// other words. A blank in front of a slash or backslash ends the path, for no name ends in a blank:
// what follows is arguments.
//
// What concerns the directory itself is asked of the disk once, in the constructor, and a text is
// looked for on the disk only if its components can be the directory's. An object belongs to one
// thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

class OldPath {
public:
    // path  absolute, in any form; need not exist. Implicit, so that a plain path will do wherever
    //       an OldPath that serves for many texts is asked for. Throws as RunTime::longPath does,
    //       and vosexception when the disk does not answer.
    OldPath(const std::wstring& path); // NOLINT(google-explicit-constructor)

    const std::wstring& text() const noexcept { return text_; }

    bool isNamedBy(const std::wstring& value) const;

    // What follows the directory in a path, with the backslash in front, when the path spells each
    // of its components by the long or the short name that it had when this object was made: that
    // tells of a directory that has gone, too. None for any other path. Nothing is asked of the
    // disk.
    std::optional<std::wstring> remainderByNames(const std::wstring& path) const;

    // The text with this directory's part replaced by newPath, a nice form; a path that exists
    // becomes long-named, any other absolute. Throws vexception when that part cannot be cut off.
    std::wstring replaceIn(const std::wstring& value, const std::wstring& newPath) const;

private:
    // A component of the directory: an entry of a directory has these two names and no other.
    struct Name {
        std::wstring longName;
        std::wstring shortName;
    };

    bool mayBeAlias(const std::wstring& path) const;

    std::wstring text_;
    std::wstring absolute_; // nice form, no backslash at the end
    std::wstring longForm_; // the same with long names; empty where the directory does not exist
    std::vector<Name> names_;
};
