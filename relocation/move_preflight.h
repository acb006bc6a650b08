// Looks before a move: whether it can work, how it will be done, how much there is to move and what
// would be lost on the way. Nothing is changed (a probe file is created and deleted in the target's
// directory, whose times are put back). One thread; handlers run on the calling thread.
//
//     MovePreflight preflight;
//     const MovePreflight::Result seen = preflight.examine(L"C:\\data", L"D:\\data", {});
//     if (seen.isRefused()) ... // show seen.findings: each has a reason and a remedy
#pragma once

#include "relocation/stream_type.h"
#include "relocation/tree_scan.h"
#include "runtime/event.h"
#include "runtime/files/path.h"

#include <string>
#include <vector>

struct MoveFinding {
    enum class Severity {
        Refuse, // the move must not be started
        Warn,   // the move works, but whoever orders it should know
        Info
    };
    Severity severity;
    std::string code;    // for programs: "relative-path"; never changes its meaning
    std::wstring reason; // a sentence
    std::wstring remedy; // what to do about it, a sentence; may be empty
};

class MovePreflight {
public:
    struct Options {
        bool copy = false;      // a copy even where a rename would do
        bool keepGoing = false; // items that fail are passed over
        bool copyOwner = false;
        // Whoever moves makes the target first, with what is missing above it.
        bool createsTarget = false;
        StreamType streams = StreamType::All;
    };

    struct Result {
        std::vector<MoveFinding> findings; // in the order of the checks
        std::wstring source;               // nice form, absolute
        std::wstring target;
        // From here on known only when nothing about the paths themselves was refused.
        bool isExamined = false;
        bool willCopy = false; // otherwise a rename
        TreeContents contents; // of the source
        bool targetExists = false;
        TreeContents targetContents;  // of an existing target
        std::int64_t bytesNeeded = 0; // on the target's volume, for a copy
        std::int64_t bytesFree = 0;   // there, quota counted
        std::size_t longestPath = 0;  // after the move, in characters
        bool keepsSource = false;     // a commit will not remove the old place
        bool losesStreams = false;    // the target has no named streams, the source has
        DWORD lostAttributes = 0;     // that the target's file system does not have
        bool targetHoldsItems() const {
            const TreeContents& held = targetContents;
            return held.files + held.directories + held.links + held.unreadable.count != 0;
        }

        bool isRefused() const;
    };

    MovePreflight() = default;
    MovePreflight(const MovePreflight&) = delete;
    MovePreflight& operator=(const MovePreflight&) = delete;

    // Throws CanceledException when a handler cancels. Failures of system calls are findings.
    Result examine(const std::wstring& source, const std::wstring& target, const Options& options);

    // What the scan of the source has seen so far, cancel; once per item.
    Event<const TreeContents&, bool&> progressEvent;
    // The links of the source, as TreeScan tells them.
    Event<const std::wstring&> linkEvent;
};
