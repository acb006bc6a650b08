// The directory of one hosting: where it may lie, and making it.
#pragma once

#include "runtime/auto_handle.h"

#include <string>
#include <vector>

namespace HostingSecurity {

// A hosting's root and the directory of virtual hosts above it, both in long form, without
// backslashes at the end and, as far as they exist, with long names.
struct RootPlace {
    std::wstring root;
    std::wstring vhosts;
};

// Where the root lies. Nothing is opened or changed. Throws RootCorrelationException when it is not
// below the directory of virtual hosts; vexception when that is not configured (HTTPD_VHOSTS_D).
RootPlace locateRoot(const std::wstring& root);

// Holds the directories between that of the virtual hosts and the root open, so that none of them
// is, or becomes, a link while paths lead through it: they may belong to a hosted user. Throws
// RootCorrelationException for a link, VPathNotFoundException where one is missing.
std::vector<RunTime::AutoHandle> holdParents(const RootPlace& place);

// Sees to it that the root is a directory. A file in its place is removed, into the recycle bin
// where there is one; a link to a file is removed itself. A link to a directory stays, and so does
// what it names: vexception. Throws as the two functions above do before anything is touched.
void checkHostRoot(const std::wstring& root);

} // namespace HostingSecurity
