// The privileges that a copy of trees uses, enabled for the life of the object. Around many copies
// it saves each of them the asking; the copies have theirs all the same.
#pragma once

#include "runtime/accounts/privilege_scope.h"

class CopyPrivileges : public RunTime::PrivilegeScope {
public:
    // Logs what is not held, unless another copy that goes on has done so.
    CopyPrivileges();
};
