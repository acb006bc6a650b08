// Where hostings may be: strictly below the directory of virtual hosts, by what the paths really
// are, not by how they are written.
#pragma once

#include "runtime/exception.h"

#include <string>

namespace HostingSecurity {

// The root is not where a hosting can be: not below the directory of virtual hosts.
class RootCorrelationException : public vexception {
    using vexception::vexception;
};

// Both in long form, with links, substituted drives and short names resolved.
struct HostingRoot {
    std::wstring vhosts;
    std::wstring path;

    // root  of a hosting, in either form; it exists. Throws RootCorrelationException, also when a
    // link below the directory of virtual hosts leads there: a hosted user may have made it, to
    // have another's permissions changed; vosexception when it does not exist, or the directory of
    // virtual hosts is not configured.
    static HostingRoot find(const std::wstring& root);
    // The same for a root that need not exist, in a directory that does. What has its name already
    // may be anything, a link too.
    static HostingRoot findPlace(const std::wstring& root);

    // The name of the directory directly below that of the virtual hosts.
    std::wstring domainName() const;
};

// Sees to it that the root is a directory; the one that holds it exists. A file in its place is
// removed, into the recycle bin where there is one, and a link to a file is removed itself. A link
// to a directory stays, and so does what it names: vexception. Throws as HostingRoot::findPlace
// does before anything is touched; vosexception.
void checkHostRoot(const std::wstring& root);

// directory and what is named from there, as one path: slashes become backslashes, none is doubled.
// An absolute second path stands for itself; what begins with one backslash is relative all the
// same. Nothing is asked of the disk.
std::wstring smartCombinePaths(const std::wstring& directory, const std::wstring& path);

// Gives the root of a hosting another name; permissions go with it. Both are whole paths strictly
// below the directory of virtual hosts, and the directory that is to hold the root exists. Throws
// RootCorrelationException; vosexception "Unable to move (%s) to (%s)", also when something has the
// name already or lies on another volume.
void renameHostingByFullPath(const std::wstring& from, const std::wstring& to);

} // namespace HostingSecurity
