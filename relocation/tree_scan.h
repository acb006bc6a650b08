// Looks at a tree before it is moved: how much there is, how long its paths are, and what a target
// with a simpler file system would lose. Changes nothing, follows no link, and keeps no list
// but one of the files with several names, so its memory does not grow with the tree. One thread;
// handlers run on the calling thread.
#pragma once

#include "runtime/event.h"
#include "runtime/files/file.h"

#include <cstdint>
#include <string>
#include <vector>

// What a tree holds. The top directory itself is not counted.
struct TreeContents {
    // Something that not every file system can keep: how often, and where for example.
    struct Special {
        std::int64_t count = 0;
        std::vector<std::wstring> examples; // nice paths, at most maxExamples
        void add(const std::wstring& path);
    };
    static constexpr std::size_t maxExamples = 5;

    std::int64_t files = 0;
    std::int64_t directories = 0;
    std::int64_t links =
        0; // symbolic links, junctions, mounted folders; neither file nor directory
    std::int64_t bytes = 0; // of file data, each name of a file counted

    // Bytes of file data in whole clusters of the target, named streams and hard links as they will
    // be there, with an allowance for each item. Filled by a thorough scan only.
    std::int64_t bytesOnTarget = 0;

    std::size_t longestPath = 0;   // code units of the longest path below the top, without the top
    std::wstring longestName;      // that path
    std::int64_t pathsTooLong = 0; // paths longer below the top than Options::pathLimit
    int depth = 0;                 // levels below the top

    Special compressed;
    Special encrypted;
    Special sparse;
    Special reparse;    // reparse points that are no links: deduplicated, compressed by the system
    Special cloud;      // of these, those whose reading fetches data from elsewhere
    Special unreadable; // directories that could not be listed, files that could not be opened

    // Filled by a thorough scan only.
    Special namedStreams; // files and directories that have some
    std::int64_t namedStreamBytes = 0;
    Special hardLinks;     // names of files that have more than one name
    Special linksIntoTree; // links that name a place in the tree by its absolute path
};

class TreeScan {
public:
    struct Options {
        // Opens every item, for sizes on disk, named streams and hard links; otherwise the
        // directories' listings are all that is read.
        bool thorough = false;
        bool streams = true;              // looks for named streams where the volume has them
        std::int64_t clusterBytes = 4096; // of the target
        bool sparseOnTarget = true;       // the target keeps holes
        bool hardLinksOnTarget = true;    // the target keeps the names of one file together
        std::size_t pathLimit = 32767;    // code units left for a path below the top
        static constexpr std::int64_t itemAllowance = 1024; // a record in the target's file table
    };

    TreeScan() = default;
    TreeScan(const TreeScan&) = delete;
    TreeScan& operator=(const TreeScan&) = delete;

    // path names a directory (or file), in either form. Throws CanceledException when a handler
    // cancels, vosexception when the top itself cannot be read. Items that cannot be read are
    // counted as unreadable and passed over.
    TreeContents scan(const std::wstring& path, const Options& options);

    // What has been seen so far, cancel; once per item.
    Event<const TreeContents&, bool&> progressEvent;
    // Each link's path, in long form; the directories above it are held, so that the path leads to
    // it and nothing else while a handler looks at it.
    Event<const std::wstring&> linkEvent;
};
