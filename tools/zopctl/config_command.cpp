#include "tools/zopctl/config_command.h"

#include "config/config_service_exception.h"
#include "config/encoded_value.h"
#include "config/tarvo_srv_client.h"
#include "runtime/files/path.h"
#include "runtime/registry/config_values.h"
#include "runtime/text.h"
#include "runtime/wipe.h"
#include "tools/zopctl/config_arguments.h"
#include "tools/zopctl/json_writer.h"
#include "tools/zopctl/table.h"
#include "tools/zopctl/text_format.h"

#include <algorithm>
#include <array>
#include <cwchar>

namespace zopctl {

namespace {

constexpr std::size_t maxInput = 512 * 1024; // bytes; more than fits into a message to the service

// Ends a command with a message.
struct Stop {
    ExitCode code;
    std::wstring message;
};

// A name that is stored, or that the panel knows.
struct Entry {
    std::wstring name;
    DWORD type = REG_NONE; // REG_NONE: not set
    const config::ValueDescription* known = nullptr;

    bool isSet() const { return type != REG_NONE; }
    bool isSecret() const { return config::isSecret(name.c_str()); }
};

bool isText(DWORD type) {
    return type == REG_SZ || type == REG_EXPAND_SZ;
}

std::wstring typeName(const Entry& entry) {
    if (!entry.isSet()) {
        return entry.known->type == config::ValueType::Dword ? L"dword" : L"string";
    }
    return entry.type == REG_DWORD ? L"dword" : isText(entry.type) ? L"string" : L"other";
}

// What is stored, and what the panel knows beyond that, in alphabetical order. A known name is
// spelled as the panel spells it, since "FTPPassword" is read in exactly this letter case.
std::vector<Entry> entries() {
    std::vector<Entry> result;
    for (const TarvoSrvClient::Value& value : TarvoSrvClient::getInstance().list()) {
        result.push_back({value.name, value.type, nullptr});
    }
    for (const config::ValueDescription& row : config::valueTable()) {
        const auto same = std::find_if(result.begin(), result.end(), [&row](const Entry& entry) {
            return RunTime::equalNames(entry.name, row.name);
        });
        if (same == result.end()) {
            result.push_back({row.name, REG_NONE, &row});
        } else {
            same->name = row.name;
            same->known = &row;
        }
    }
    std::sort(result.begin(), result.end(), [](const Entry& first, const Entry& second) {
        return ::CompareStringOrdinal(first.name.c_str(), -1, second.name.c_str(), -1, TRUE) ==
               CSTR_LESS_THAN;
    });
    return result;
}

const Entry* find(const std::vector<Entry>& all, const std::wstring& name) {
    const auto found = std::find_if(all.begin(), all.end(), [&name](const Entry& entry) {
        return RunTime::equalNames(entry.name, name);
    });
    return found == all.end() ? nullptr : &*found;
}

// The value as JSON has it; null where it is not set, or of a type that the service does not read.
JsonValue read(const Entry& entry) {
    TarvoSrvClient& client = TarvoSrvClient::getInstance();
    if (entry.type == REG_DWORD) {
        return std::int64_t{client.getDWORD(entry.name)};
    }
    return isText(entry.type)
               ? JsonValue(config::fromStored(entry.name, client.getString(entry.name)))
               : JsonValue();
}

std::wstring textOf(const JsonValue& value) {
    if (const auto* number = std::get_if<std::int64_t>(&value.value)) {
        return std::to_wstring(*number);
    }
    const auto* text = std::get_if<std::wstring>(&value.value);
    return text != nullptr ? printable(*text) : std::wstring();
}

JsonFields fieldsOf(const Entry& entry, const JsonValue& value, bool hidden) {
    return {{"name", entry.name},
            {"type", typeName(entry)},
            {"value", value},
            {"set", entry.isSet()},
            {"secret", entry.isSecret()},
            {"hidden", hidden},
            {"meaning", entry.known != nullptr ? entry.known->meaning : L""}};
}

// The cause says what can be done, where something can.
std::wstring explain(const std::wstring& what, const ConfigServiceException& e) {
    return what + L": " + e.cause() + L".";
}

// Runs a command and gives its result line. what: what has not been done when it fails.
template <class Options, class Run>
ExitCode finish(const Options& options, Console& console, const wchar_t* status,
                const std::wstring& what, Run run) {
    Stop stop{ExitCode::Success, {}};
    try {
        run();
    } catch (const Stop& stopped) {
        stop = stopped;
    } catch (const ConfigServiceException& e) {
        stop = {ExitCode::Failed, explain(what, e)};
    }
    // A wrong command line gives no object, and neither does a wrong number in it.
    if (options.json && stop.code != ExitCode::Usage) {
        const wchar_t* ended = stop.code == ExitCode::Success     ? status
                               : stop.code == ExitCode::Refused   ? L"refused"
                               : stop.code == ExitCode::Cancelled ? L"cancelled"
                                                                  : L"failed";
        console.line(jsonLine(L"result", {{"status", ended},
                                          {"exitCode", static_cast<int>(stop.code)},
                                          {"message", stop.message}}));
    } else if (stop.code != ExitCode::Success) {
        console.errorLine(stop.message);
    }
    return stop.code;
}

ExitCode get(const ConfigGetOptions& options, Console& console) {
    const std::wstring name = quoted(options.name);
    return finish(options, console, L"read", name + L" cannot be read", [&] {
        const std::vector<Entry> all = entries();
        const Entry* entry = find(all, options.name);
        if (entry == nullptr) {
            std::vector<std::wstring> names(all.size());
            std::transform(all.begin(), all.end(), names.begin(),
                           [](const Entry& each) { return each.name; });
            const std::wstring guess = nearest(options.name, names);
            throw Stop{ExitCode::Refused,
                       L"There is no value " + name +
                           (guess.empty() ? L"." : L"; did you mean " + quoted(guess) + L"?") +
                           L" All values: zopctl config list"};
        }
        if (!entry->isSet()) {
            throw Stop{ExitCode::Refused, name + L" is not set: " + entry->known->meaning + L"."};
        }
        if (entry->isSecret() && !options.showSecrets) {
            throw Stop{ExitCode::Refused,
                       name + L" is a secret. Add --show-secrets to have it printed."};
        }
        if (typeName(*entry) == L"other") {
            throw Stop{ExitCode::Refused, name + L" is neither a text nor a number."};
        }
        const JsonValue value = read(*entry);
        console.line(options.json ? jsonLine(L"value", fieldsOf(*entry, value, false))
                                  : textOf(value));
    });
}

// The number, or why the text is none. shown: how the message names the text.
DWORD parseNumber(const std::wstring& text, const std::wstring& shown) {
    const bool hexadecimal = text.starts_with(L"0x") || text.starts_with(L"0X");
    const std::wstring digits = text.substr(hexadecimal ? 2 : 0);
    const wchar_t* allowed = hexadecimal ? L"0123456789abcdefABCDEF" : L"0123456789";
    if (digits.empty() || digits.find_first_not_of(allowed) != std::wstring::npos) {
        throw Stop{ExitCode::Usage, shown + L" is no number. Give decimal digits, or "
                                            L"hexadecimal ones behind 0x."};
    }
    const std::size_t first = std::min(digits.find_first_not_of(L'0'), digits.size() - 1);
    const unsigned long long number =
        digits.size() - first > 10 ? ~0ULL
                                   : std::wcstoull(digits.c_str(), nullptr, hexadecimal ? 16 : 10);
    if (number > MAXDWORD) {
        throw Stop{ExitCode::Usage,
                   shown + L" is too large: the largest number is 4294967295 (0xFFFFFFFF)."};
    }
    return static_cast<DWORD>(number);
}

// The line that standard input holds.
std::wstring readLine(Console& console) {
    std::optional<std::string> bytes = console.readInput(maxInput);
    if (!bytes) {
        throw Stop{ExitCode::Usage, L"\"-\" takes the value from standard input, which is a "
                                    L"console, cannot be read, or holds too much."};
    }
    const RunTime::WipeOnExit wipeBytes(*bytes);
    std::wstring text =
        toWide(std::string_view(*bytes).substr(bytes->starts_with("\xEF\xBB\xBF") ? 3 : 0));
    for (const wchar_t end : {L'\n', L'\r'}) {
        if (text.ends_with(end)) {
            text.pop_back();
        }
    }
    // What is not UTF-8 has become U+FFFD: a guess at its meaning would set a wrong password. No
    // line at all comes from a program that has failed.
    if (bytes->empty() ||
        text.find_first_of(std::wstring(L"\r\n\xFFFD\0", 4)) != std::wstring::npos) {
        RunTime::wipe(text);
        throw Stop{ExitCode::Usage, L"Standard input must hold one line of UTF-8 text."};
    }
    return text;
}

std::wstring askFor(const std::wstring& name, Console& console) {
    std::array<std::wstring, 2> answers;
    const RunTime::WipeOnExit wipeFirst(answers[0]);
    const RunTime::WipeOnExit wipeSecond(answers[1]);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        const std::wstring question = printable(name) + (i == 0 ? L": " : L" (again): ");
        if (!console.askHidden(question, answers[i])) {
            throw Stop{ExitCode::Cancelled, L"Nothing was changed."};
        }
    }
    if (answers[0] != answers[1]) {
        throw Stop{ExitCode::Cancelled, L"The two answers differ. Nothing was changed."};
    }
    return std::move(answers[0]);
}

std::wstring valueOf(const ConfigSetOptions& options, const Entry& entry, Console& console) {
    if (!options.value) {
        if (!entry.isSecret() || !console.canAsk() || options.json) {
            throw Stop{ExitCode::Usage, L"VALUE is missing. With - it is taken from standard "
                                        L"input.\nMore:  zopctl config set --help"};
        }
        return askFor(entry.name, console);
    }
    if (*options.value == L"-") {
        return readLine(console);
    }
    if (entry.isSecret()) {
        console.errorLine(L"Other programs can see a password on the command line. Better leave it "
                          L"out, and it is asked for; or give - and write it to standard input.");
    }
    return *options.value;
}

// Whether the value is to be a number: what the panel expects, then what is stored, then what was
// asked for.
bool isNumber(const ConfigSetOptions& options, const Entry& entry) {
    const bool settled = entry.known != nullptr || entry.isSet();
    const bool number = entry.known != nullptr ? entry.known->type == config::ValueType::Dword
                        : settled              ? entry.type == REG_DWORD
                                               : options.dword;
    if (options.dword && !number) {
        throw Stop{ExitCode::Refused,
                   quoted(entry.name) + L" is a text, no number: leave out --dword."};
    }
    if (entry.known == nullptr && entry.isSet() && typeName(entry) == L"other") {
        throw Stop{ExitCode::Refused,
                   quoted(entry.name) + L" holds something other than a text or a number."};
    }
    return number;
}

ExitCode set(const ConfigSetOptions& options, Console& console) {
    return finish(options, console, L"set", quoted(options.name) + L" cannot be set", [&] {
        const std::vector<Entry> all = entries();
        const Entry* stored = find(all, options.name);
        Entry entry = stored != nullptr ? *stored : Entry{options.name, REG_NONE, nullptr};
        const bool number = isNumber(options, entry);
        entry.type = number ? REG_DWORD : REG_SZ;
        std::wstring value = valueOf(options, entry, console);
        const RunTime::WipeOnExit wipeValue(value);
        const bool hidden = entry.isSecret() && !options.showSecrets;
        JsonValue shown;
        if (number) {
            const DWORD parsed =
                parseNumber(value, entry.isSecret() ? L"The value" : quoted(value));
            TarvoSrvClient::getInstance().setDWORD(entry.name, parsed);
            shown = std::int64_t{parsed};
        } else {
            std::wstring encoded = config::toStored(entry.name, value);
            const RunTime::WipeOnExit wipeEncoded(encoded);
            TarvoSrvClient::getInstance().setString(entry.name, encoded);
            shown = hidden ? JsonValue() : JsonValue(value);
        }
        if (options.json) {
            console.line(jsonLine(L"value", fieldsOf(entry, hidden ? JsonValue() : shown, hidden)));
        } else {
            console.line(printable(entry.name) +
                         (hidden ? std::wstring(L" is set.") : L" = " + textOf(shown)));
        }
    });
}

ExitCode list(const ConfigListOptions& options, Console& console) {
    return finish(options, console, L"listed", L"The values cannot be listed", [&] {
        std::vector<std::vector<std::wstring>> rows{{L"NAME", L"TYPE", L"VALUE", L"MEANING"}};
        for (const Entry& entry : entries()) {
            const bool hidden = entry.isSet() && entry.isSecret() && !options.showSecrets;
            JsonValue value;
            bool unreadable = false;
            try {
                value = hidden ? JsonValue() : read(entry);
            } catch (const ConfigServiceException& e) {
                // Too long for an answer, or removed or given another type since the names were
                // listed: the others are listed all the same.
                unreadable = e.status() == ConfigServiceException::badMessage;
                const bool gone = e.status() == ConfigServiceException::noSuchValue ||
                                  e.status() == ConfigServiceException::wrongType;
                if (gone) {
                    continue;
                }
                if (!unreadable) {
                    throw;
                }
            }
            if (options.json) {
                console.line(jsonLine(L"value", fieldsOf(entry, value, hidden)));
                continue;
            }
            const wchar_t* note = hidden           ? L"(hidden)"
                                  : !entry.isSet() ? L"(not set)"
                                  : unreadable     ? L"(cannot be read)"
                                                   : L"(neither text nor number)";
            const bool noted = std::holds_alternative<std::nullptr_t>(value.value);
            rows.push_back({printable(entry.name), typeName(entry), noted ? note : textOf(value),
                            entry.known != nullptr ? entry.known->meaning : L""});
        }
        if (!options.json) {
            printTable(rows, console, 40);
        }
    });
}

} // namespace

ExitCode runConfigGet(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseConfigGet(arguments), console,
                     [&](const ConfigGetOptions& options) { return get(options, console); });
}

ExitCode runConfigSet(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseConfigSet(arguments), console,
                     [&](const ConfigSetOptions& options) { return set(options, console); });
}

ExitCode runConfigList(const std::vector<std::wstring>& arguments, Console& console) {
    return runParsed(parseConfigList(arguments), console,
                     [&](const ConfigListOptions& options) { return list(options, console); });
}

} // namespace zopctl
