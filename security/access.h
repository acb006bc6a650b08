// Permissions of existing files and directories, as the system has them.
#pragma once

#include "security/descriptor_bytes.h"

#include <string>

namespace RunTime::Access {

// Owner, group and access list of what path names; a link's own. "Unable to get security (%s)".
DescriptorBytes getSecurity(const std::wstring& path);

} // namespace RunTime::Access
