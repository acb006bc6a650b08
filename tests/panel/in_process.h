// Runs the stand-ins for the panel's utilities in this process, for a test that moves a panel some
// hundred times: a program costs a fifth of a second. For its life, CreateProcessW and what the
// product does with a process are replaced for them. No call of theirs is taken for one of the
// product's by a fault sweep. One thread moves panels meanwhile.
#pragma once

#include "tests/support/import_patch.h"

namespace panel {

class InProcess {
public:
    InProcess();

private:
    ImportPatch create_;
    ImportPatch assign_;
    ImportPatch resume_;
    ImportPatch status_;
    ImportPatch ownPath_;
};

} // namespace panel
