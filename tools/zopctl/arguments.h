// What can be asked of each command, and how its words are understood.
#pragma once

#include "relocation/stream_type.h"
#include "relocation/tree_compare.h"

#include <optional>
#include <string>
#include <vector>

namespace zopctl {

struct DataMoveOptions {
    std::wstring source;
    std::wstring target;
    StreamType streams = StreamType::All;
    bool copy = false;
    bool copyOwner = false;
    bool keepGoing = false;
    bool verify = false;
    bool dryRun = false;
    bool yes = false;
    bool quiet = false;
    bool verbose = false;
    bool json = false;
};

struct TreeCompareOptions {
    std::wstring first;
    std::wstring second;
    TreeComparison::Options compared;
    bool quiet = false;
    bool json = false;
};

// Either options, or a text to print: an error with how to do better, or the help asked for.
template <class Options>
struct Parsed {
    std::optional<Options> options;
    std::wstring text;
    bool isError = false;
};

// arguments: the words behind the command's name.
Parsed<DataMoveOptions> parseDataMove(const std::vector<std::wstring>& arguments);
Parsed<TreeCompareOptions> parseTreeCompare(const std::vector<std::wstring>& arguments);

} // namespace zopctl
