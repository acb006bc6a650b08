// What can be asked of "zopctl data move".
#pragma once

#include "relocation/stream_type.h"
#include "tools/zopctl/command_parser.h"

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

Parsed<DataMoveOptions> parseDataMove(const std::vector<std::wstring>& arguments);

} // namespace zopctl
