#include "tools/zopctl/arguments.h"

#include "runtime/files/path.h"
#include "runtime/text.h"
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

constexpr const char* compareFooter = R"(
Links are compared as links and not followed. Access times, directory sizes and
the archive attribute are not compared.

Exit codes:
  0  equal
  1  different; every difference is shown
  2  the command line is wrong
  4  could not be compared
  5  cancelled

Example:
  zopctl tree compare C:\panel\data D:\panel\data --no-times)";

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

// The application of one command, with what all of them share.
class Parser {
public:
    Parser(const char* name, const char* summary, const char* footer) : app_(summary, name) {
        app_.allow_windows_style_options(false); // "/" begins no option: it may begin a path
        app_.set_help_flag("-h,--help", "Shows this text");
        app_.footer(footer);
        app_.get_formatter()->column_width(26);
        app_.get_formatter()->label("REQUIRED", "");
        app_.get_formatter()->label("TEXT", "");
    }

    CLI::App& app() { return app_; }

    // False, and the text to print, when there is nothing to run.
    template <class Options>
    bool parse(const std::vector<std::wstring>& arguments, Parsed<Options>& parsed) {
        std::vector<std::string> words;
        for (auto word = arguments.rbegin(); word != arguments.rend(); ++word) {
            words.push_back(*word == L"/?" ? "--help" : toUtf8(*word));
        }
        try {
            app_.parse(std::move(words));
            return true;
        } catch (const CLI::CallForHelp&) {
            parsed.text = toWide(app_.help());
        } catch (const CLI::ExtrasError&) {
            fail(parsed, explainExtras());
        } catch (const CLI::RequiredError&) {
            fail(parsed, explainMissing());
        } catch (const CLI::ParseError& e) {
            fail(parsed, toWide(e.what()) + L".");
        }
        return false;
    }

    template <class Options>
    void fail(Parsed<Options>& parsed, const std::wstring& text) const {
        parsed.options.reset();
        parsed.isError = true;
        const std::wstring name = toWide(app_.get_name());
        parsed.text = text + L"\nUsage: " + name + L" " + positionals() + L" [options]\nMore:  " +
                      name + L" --help";
    }

private:
    std::wstring positionals() const {
        std::wstring text;
        for (const CLI::Option* option : app_.get_options()) {
            if (option->get_positional()) {
                text += (text.empty() ? L"" : L" ") + toWide(option->get_name(true));
            }
        }
        return text;
    }

    std::wstring explainExtras() const {
        const std::wstring extra = toWide(app_.remaining().front());
        if (extra.starts_with(L"-") && extra.size() > 1) {
            std::vector<std::wstring> known;
            for (const CLI::Option* option : app_.get_options()) {
                for (const std::string& name : option->get_lnames()) {
                    known.push_back(L"--" + toWide(name));
                }
            }
            const std::wstring guess = nearest(extra, known);
            return L"There is no option \"" + extra + L"\"" +
                   (guess.empty() ? L"." : L"; did you mean \"" + guess + L"\"?");
        }
        return L"\"" + extra +
               L"\" is one word too many. A path with blanks needs quotation marks: \"C:\\my "
               L"data\".";
    }

    std::wstring explainMissing() const {
        std::wstring missing;
        for (const CLI::Option* option : app_.get_options()) {
            if (option->get_positional() && option->count() == 0) {
                missing += (missing.empty() ? L"" : L" and ") + toWide(option->get_name(true));
            }
        }
        return missing.find(L" and ") == std::wstring::npos ? missing + L" is missing."
                                                            : missing + L" are missing.";
    }

    CLI::App app_;
};

} // namespace

Parsed<DataMoveOptions> parseDataMove(const std::vector<std::wstring>& arguments) {
    Parsed<DataMoveOptions> parsed;
    DataMoveOptions options;
    std::string source;
    std::string target;
    std::string streams;
    Parser parser("zopctl data move", "Moves a directory to another place.", moveFooter);
    CLI::App& app = parser.app();
    app.add_option("SOURCE", source, "The directory to move")->required();
    app.add_option("TARGET", target, "Where it is to be: new, or an existing directory")
        ->required();
    app.add_flag("--dry-run", options.dryRun, "Only looks, and says what would be done");
    app.add_flag("-y,--yes", options.yes, "Starts without asking");
    app.add_flag("--verify", options.verify,
                 "Compares the copy before the old directory is removed");
    app.add_flag("--copy", options.copy, "Copies even where a rename would do");
    app.add_flag("--copy-owner", options.copyOwner, "Keeps the owners of copied items");
    app.add_flag("--keep-going", options.keepGoing,
                 "Leaves items that fail at the old place and goes on");
    app.add_option("--streams", streams, "What is copied, with commas; see below")
        ->type_name("LIST");
    app.add_flag("-q,--quiet", options.quiet, "Prints errors only");
    app.add_flag("-v,--verbose", options.verbose, "Prints each item, and what is logged");
    app.add_flag("--json", options.json, "Prints one JSON object a line, for programs");
    if (!parser.parse(arguments, parsed)) {
        return parsed;
    }
    options.source = toWide(source);
    options.target = toWide(target);
    if (options.quiet && options.verbose) {
        parser.fail(parsed, L"--quiet and --verbose contradict each other.");
        return parsed;
    }
    if (app.count("--streams") != 0) {
        std::wstring failure;
        const std::optional<StreamType> list = parseStreams(toWide(streams), failure);
        if (!list) {
            parser.fail(parsed, failure);
            return parsed;
        }
        options.streams = *list;
    }
    parsed.options = std::move(options);
    return parsed;
}

Parsed<TreeCompareOptions> parseTreeCompare(const std::vector<std::wstring>& arguments) {
    Parsed<TreeCompareOptions> parsed;
    TreeCompareOptions options;
    std::string first;
    std::string second;
    bool uncached = false;
    Parser parser("zopctl tree compare", "Compares two directories and all they hold.",
                  compareFooter);
    CLI::App& app = parser.app();
    app.add_option("A", first, "One directory (or file)")->required();
    app.add_option("B", second, "The other")->required();
    TreeComparison::Options& compared = options.compared;
    const auto leaveOut = [&](const char* name, bool& part, const char* text) {
        app.add_flag_callback(
            name, [&part] { part = false; }, text);
    };
    leaveOut("--no-contents", compared.contents, "Compares sizes, but reads no data");
    leaveOut("--no-streams", compared.streams, "Leaves out named streams");
    leaveOut("--no-attributes", compared.attributes, "Leaves out attributes");
    leaveOut("--no-times", compared.times, "Leaves out times");
    leaveOut("--no-security", compared.security, "Leaves out permissions and audit lists");
    leaveOut("--no-owner", compared.owner, "Leaves out owners and groups");
    app.add_flag("--from-disk", uncached, "Reads past the cache: what the disks really hold");
    app.add_flag("-q,--quiet", options.quiet, "Prints no progress and no result line");
    app.add_flag("--json", options.json, "Prints one JSON object a line, for programs");
    if (!parser.parse(arguments, parsed)) {
        return parsed;
    }
    options.first = toWide(first);
    options.second = toWide(second);
    options.compared.uncached =
        uncached ? TreeComparison::Uncached::Both : TreeComparison::Uncached::None;
    parsed.options = std::move(options);
    return parsed;
}

} // namespace zopctl
