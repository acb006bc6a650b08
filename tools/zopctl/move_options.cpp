#include "tools/zopctl/move_options.h"

#include "runtime/files/path.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>
#include <CLI/CLI.hpp>
#include <optional>
#include <vector>

namespace zopctl {

namespace {

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

MoveOptionsParser::MoveOptionsParser(CommandParser& parser, MoveOptions& options)
    : parser_(parser), options_(options) {
    CLI::App& app = parser.app();
    app.add_flag("--dry-run", options.dryRun, "Only looks, and says what would be done");
    app.add_flag("-y,--yes", options.yes, "Starts without asking");
    app.add_flag("--verify", options.verify,
                 "Compares the copy before the old directory is removed");
    app.add_flag("--copy-owner", options.copyOwner, "Keeps the owners of copied items");
    app.add_flag("--keep-going", options.keepGoing,
                 "Leaves items that fail at the old place and goes on");
    parser.addValue("--streams", streams_, "LIST", "What is copied, with commas; see below");
    app.add_flag("-q,--quiet", options.quiet, "Prints errors and warnings only");
    app.add_flag("-v,--verbose", options.verbose, "Prints each item, and what is logged");
    parser.addJson(options.json);
}

bool MoveOptionsParser::finish(Answer& answer) {
    if (options_.quiet && options_.verbose) {
        return parser_.fail(answer, L"--quiet and --verbose contradict each other.");
    }
    if (parser_.app().count("--streams") != 0) {
        std::wstring failure;
        const std::optional<StreamType> list = parseStreams(streams_, failure);
        if (!list) {
            return parser_.fail(answer, failure);
        }
        options_.streams = *list;
    }
    return true;
}

} // namespace zopctl
