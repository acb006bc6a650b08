// What can be asked of every command that moves a directory, whichever way it does it.
#pragma once

#include "relocation/stream_type.h"
#include "tools/zopctl/command_parser.h"

#include <string>

namespace zopctl {

struct MoveOptions {
    std::wstring source;
    std::wstring target;
    StreamType streams = StreamType::All;
    bool copyOwner = false;
    bool keepGoing = false;
    bool verify = false;
    bool dryRun = false;
    bool yes = false;
    bool quiet = false;
    bool verbose = false;
    bool json = false;
};

// Reads the options of MoveOptions, all but the paths, which each command has in its own way:
//
//     MoveOptionsParser common(parser, options);
//     return parser.parse(arguments, parsed) && common.finish(parsed);
class MoveOptionsParser {
public:
    // Both must live until finish() is done.
    MoveOptionsParser(CommandParser& parser, MoveOptions& options);

    // After parsing. False, and the answer, for what makes no sense.
    bool finish(Answer& answer);

    // What the help says of --streams, and of the exit codes.
    static constexpr const char* streamsHelp = R"(
--streams takes any of: data, ea (extended attributes), security, alternate
(named streams), property, objectid, reparse (links). Without it all are copied.
)";
    static constexpr const char* exitCodesHelp = R"(
Exit codes:
  0  moved (with --dry-run: can be moved)
  2  the command line is wrong
  3  refused: nothing was changed; the reason is shown
  4  failed; everything is as it was before
  5  cancelled, or answered with no; everything is as it was before
  6  failed or cancelled, and not everything could be put back
  7  moved, but something was left behind or waits for a restart
)";

private:
    CommandParser& parser_;
    MoveOptions& options_;
    std::wstring streams_;
};

} // namespace zopctl
