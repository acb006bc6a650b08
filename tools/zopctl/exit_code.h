// What zopctl.exe returns. Programs rely on these numbers: they are never given another meaning.
#pragma once

namespace zopctl {

enum class ExitCode : int {
    Success = 0,
    Different = 1,          // tree compare: the trees differ
    Usage = 2,              // the command line could not be understood
    Refused = 3,            // looked first, and changed nothing
    Failed = 4,             // failed; everything is as it was before
    Cancelled = 5,          // cancelled; everything is as it was before
    RollbackIncomplete = 6, // failed or cancelled, and not everything could be put back
    DoneWithRemainder = 7,  // done, but something was left behind or waits for a restart
};

} // namespace zopctl
