#include "tools/zopctl/data_move_arguments.h"

#include "runtime/files/path.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>
#include <CLI/CLI.hpp>

namespace zopctl {

namespace {

constexpr const char* moveFooter = R"(
SOURCE and TARGET are whole paths. Looks first and asks before anything is
changed. A move on one drive is a rename; otherwise everything is copied and the
old directory removed at the end. Ctrl+C, or an error, puts everything back.

--streams takes any of: data, ea (extended attributes), security, alternate
(named streams), property, objectid, reparse (links). Without it all are copied.

Exit codes:
  0  moved (with --dry-run: can be moved)
  2  the command line is wrong
  3  refused: nothing was changed; the reason is shown
  4  failed; everything is as it was before
  5  cancelled, or answered with no; everything is as it was before
  6  failed or cancelled, and not everything could be put back
  7  moved, but something was left behind or waits for a restart

Examples:
  zopctl data move C:\panel\data D:\panel\data
  zopctl data move "C:\my data" "D:\my data" --verify --yes
  zopctl data move C:\panel\data D:\panel\data --dry-run)";

struct StreamName {
    const wchar_t* name;
    StreamType type;
};
constexpr StreamName streamNames[] = {
    {L"data", StreamType::Data},
    {L"ea", StreamType::EAData},
    {L"security", StreamType::SecurityData},
    {L"alternate", StreamType::AlternateData},
    {L"property", StreamType::PropertyData},
    {L"objectid", StreamType::ObjectId},
    {L"reparse", StreamType::ReparseData},
};

// Empty, and what to say, when a word is not known.
std::optional<StreamType> parseStreams(const std::wstring& list, std::wstring& failure) {
    StreamType result = StreamType::None;
    std::vector<std::wstring> known;
    std::wstring all;
    for (const StreamName& row : streamNames) {
        known.push_back(row.name);
        all += (all.empty() ? L"" : L",") + std::wstring(row.name);
    }
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(L',', begin), list.size());
        const std::wstring word = list.substr(begin, end - begin);
        const auto row = std::find_if(
            std::begin(streamNames), std::end(streamNames),
            [&](const StreamName& candidate) { return RunTime::equalNames(candidate.name, word); });
        if (row == std::end(streamNames)) {
            const std::wstring guess = nearest(word, known);
            failure = L"--streams does not know \"" + word + L"\"" +
                      (guess.empty() ? L"." : L"; did you mean \"" + guess + L"\"?") +
                      L" The list may have: " + all;
            return std::nullopt;
        }
        result = result | row->type;
        begin = end + 1;
    }
    return result;
}

} // namespace

Parsed<DataMoveOptions> parseDataMove(const std::vector<std::wstring>& arguments) {
    Parsed<DataMoveOptions> parsed;
    DataMoveOptions options;
    std::wstring streams;
    CommandParser parser("zopctl data move", "Moves a directory to another place.", moveFooter);
    CLI::App& app = parser.app();
    parser.addPositional("SOURCE", options.source, "The directory to move");
    parser.addPositional("TARGET", options.target,
                         "Where it is to be: new, or an existing directory");
    app.add_flag("--dry-run", options.dryRun, "Only looks, and says what would be done");
    app.add_flag("-y,--yes", options.yes, "Starts without asking");
    app.add_flag("--verify", options.verify,
                 "Compares the copy before the old directory is removed");
    app.add_flag("--copy", options.copy, "Copies even where a rename would do");
    app.add_flag("--copy-owner", options.copyOwner, "Keeps the owners of copied items");
    app.add_flag("--keep-going", options.keepGoing,
                 "Leaves items that fail at the old place and goes on");
    parser.addValue("--streams", streams, "LIST", "What is copied, with commas; see below");
    app.add_flag("-q,--quiet", options.quiet, "Prints errors only");
    app.add_flag("-v,--verbose", options.verbose, "Prints each item, and what is logged");
    parser.addJson(options.json);
    if (!parser.parse(arguments, parsed)) {
        return parsed;
    }
    if (options.quiet && options.verbose) {
        parser.fail(parsed, L"--quiet and --verbose contradict each other.");
        return parsed;
    }
    if (app.count("--streams") != 0) {
        std::wstring failure;
        const std::optional<StreamType> list = parseStreams(streams, failure);
        if (!list) {
            parser.fail(parsed, failure);
            return parsed;
        }
        options.streams = *list;
    }
    parsed.options = std::move(options);
    return parsed;
}

} // namespace zopctl
