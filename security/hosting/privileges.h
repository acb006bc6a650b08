// The privileges with which permissions of other people's files are read and written.
#pragma once

#include "runtime/accounts/privilege_scope.h"

namespace HostingSecurity {

// For the life of the object: SeBackup to read, SeRestore to write. One that the token does not
// hold is logged as a warning, and single items may fail then. Audit lists are left alone, so
// SeSecurity is not wanted.
class FilePrivileges {
public:
    FilePrivileges();

private:
    RunTime::PrivilegeScope scope_;
};

} // namespace HostingSecurity
