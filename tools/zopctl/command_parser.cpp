#include "tools/zopctl/command_parser.h"

#include "runtime/text.h"
#include "tools/zopctl/text_format.h"

#include <CLI/CLI.hpp>

namespace zopctl {

CommandParser::CommandParser(const char* name, const char* summary, const std::string& footer)
    : app_(std::make_unique<CLI::App>(summary, name)) {
    app_->allow_windows_style_options(false); // "/" begins no option: it may begin a path
    app_->set_help_flag("-h,--help", "Shows this text");
    app_->footer(footer);
    app_->get_formatter()->column_width(26);
    app_->get_formatter()->label("REQUIRED", "");
    app_->get_formatter()->label("TEXT", "");
}

CommandParser::~CommandParser() = default;

CLI::Option* CommandParser::addPositional(const char* name, std::wstring& value, const char* text,
                                          bool required) {
    return addText(name, value, text)->required(required);
}

CLI::Option* CommandParser::addValue(const char* name, std::wstring& value, const char* label,
                                     const char* text) {
    return addText(name, value, text)->type_name(label);
}

CLI::Option* CommandParser::addJson(bool& value) {
    return app_->add_flag("--json", value, "Prints one JSON object a line, for programs");
}

CLI::Option* CommandParser::addText(const char* name, std::wstring& value, const char* text) {
    return app_->add_option_function<std::string>(
        name, [&value](const std::string& word) { value = toWide(word); }, text);
}

bool CommandParser::parse(const std::vector<std::wstring>& arguments, Answer& answer) {
    std::vector<std::string> words;
    for (auto word = arguments.rbegin(); word != arguments.rend(); ++word) {
        words.push_back(*word == L"/?" ? "--help" : toUtf8(*word));
    }
    try {
        app_->parse(std::move(words));
        return true;
    } catch (const CLI::CallForHelp&) {
        answer.text = toWide(app_->help());
        return false;
    } catch (const CLI::ExtrasError&) {
        return fail(answer, explainExtras());
    } catch (const CLI::RequiredError&) {
        return fail(answer, explainMissing());
    } catch (const CLI::ArgumentMismatch& e) {
        const std::wstring text = toWide(e.what()); // "--name: ..."
        return fail(answer, text.substr(0, text.find(L':')) + L" needs a value behind it.");
    } catch (const CLI::ParseError& e) {
        return fail(answer, toWide(e.what()) + L".");
    }
}

bool CommandParser::fail(Answer& answer, const std::wstring& text) const {
    answer.isError = true;
    const std::wstring name = toWide(app_->get_name());
    const std::wstring words = positionals();
    answer.text = text + L"\nUsage: " + name + (words.empty() ? L"" : L" ") + words +
                  L" [options]\nMore:  " + name + L" --help";
    return false;
}

std::wstring CommandParser::positionals() const {
    std::wstring text;
    for (const CLI::Option* option : app_->get_options()) {
        if (option->get_positional()) {
            const std::wstring name = toWide(option->get_name(true));
            text +=
                (text.empty() ? L"" : L" ") + (option->get_required() ? name : L"[" + name + L"]");
        }
    }
    return text;
}

std::wstring CommandParser::explainExtras() const {
    const std::wstring extra = toWide(app_->remaining().front());
    if (extra.starts_with(L"-") && extra.size() > 1) {
        std::vector<std::wstring> known;
        for (const CLI::Option* option : app_->get_options()) {
            for (const std::string& name : option->get_lnames()) {
                known.push_back(L"--" + toWide(name));
            }
        }
        const std::wstring guess = nearest(extra, known);
        return L"There is no option \"" + extra + L"\"" +
               (guess.empty() ? L"." : L"; did you mean \"" + guess + L"\"?");
    }
    return L"\"" + extra +
           L"\" is one word too many. A path with blanks needs quotation marks: \"C:\\my data\".";
}

std::wstring CommandParser::explainMissing() const {
    std::wstring missing;
    for (const CLI::Option* option : app_->get_options()) {
        if (option->get_required() && option->count() == 0) {
            missing += (missing.empty() ? L"" : L" and ") +
                       toWide(option->get_name(option->get_positional()));
        }
    }
    return missing.find(L" and ") == std::wstring::npos ? missing + L" is missing."
                                                        : missing + L" are missing.";
}

ExitCode print(const Answer& answer, Console& console) {
    if (answer.isError) {
        console.errorLine(answer.text);
        return ExitCode::Usage;
    }
    console.line(answer.text);
    return ExitCode::Success;
}

} // namespace zopctl
