// Compares two trees item by item: names, kinds, sizes, contents, named streams, attributes, times
// and security. Links are compared as links and never followed; what is being compared is held
// open, so that it cannot be swapped meanwhile. Memory grows with the largest directory and the
// depth, not with the number of files. Changes nothing, access times of the trees apart.
//
//     TreeComparison comparison;
//     auto hook = comparison.differenceEvent.hook([](const TreeDifference& d) { ... });
//     const bool equal = comparison.compare(L"C:\\data", L"D:\\data").differences == 0;
//
// Not compared: access times, the time of the last change of metadata, sizes of directories, short
// names, extended attributes, object identifiers. One thread at a time.
#pragma once

#include "runtime/event.h"

#include <cstdint>
#include <functional>
#include <string>
#include <windows.h>

enum class DifferenceKind {
    OnlyInFirst,
    OnlyInSecond,
    Name,     // letter case only
    Type,     // file, directory, link
    Size,     // of file data
    Contents, // of file data
    Stream,   // a named stream is missing, or differs in size or contents
    Link,     // where links lead
    Attributes,
    Times,       // creation or last write
    Owner,       // owner or primary group
    Permissions, // the access list, with its control flags
    Audit,       // the audit list
    Unreadable,  // could not be compared
};

// "only in the first tree", "contents", ...
const wchar_t* describe(DifferenceKind kind);

struct TreeDifference {
    DifferenceKind kind;
    std::wstring path;   // below the tops, as the first tree spells it; empty for the tops
    std::wstring detail; // what is here and there, in words; may be empty
};

class TreeComparison {
public:
    enum class Uncached { None, Second, Both }; // whose data is read past the system's cache

    struct Options {
        bool contents = true;
        bool sizes = true;
        bool streams = true; // where both volumes have named streams
        bool attributes = true;
        bool times = true;
        bool security = true;
        bool owner = true;
        bool onlyInSecond = true;        // report items that the first tree does not have
        bool directoryProperties = true; // attributes, times, security of directories
        DWORD ignoredAttributes = 0;     // beside those that no copy can keep
        Uncached uncached = Uncached::None;
        // Items left out, with all below them, by their path below the first top. May be empty.
        std::function<bool(const std::wstring& path)> leaveOut;
    };

    struct Result {
        std::int64_t items = 0;       // compared, the tops included
        std::int64_t files = 0;       // of these
        std::int64_t bytes = 0;       // of file data compared
        std::int64_t differences = 0; // reported, unreadable items included
        std::int64_t unreadable = 0;
        bool streamsCompared = false;
        bool auditCompared = false; // SeSecurityPrivilege was held
    };

    TreeComparison() = default;
    TreeComparison(const TreeComparison&) = delete;
    TreeComparison& operator=(const TreeComparison&) = delete;

    // Paths in either form, of two directories or two files. Throws CanceledException when a
    // handler cancels, vosexception when a top is missing or cannot be opened; what cannot be read
    // below is a difference.
    Result compare(const std::wstring& first, const std::wstring& second, const Options& options);

    Event<const TreeDifference&> differenceEvent;
    // path below the top, isFile, bytes compared so far, cancel. Once per item of the first tree,
    // and while a long file is being read.
    Event<const std::wstring&, bool, std::int64_t, bool&> progressEvent;
};
