// One JSON object a line, for programs: UTF-8, integers as numbers, paths in nice form.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace zopctl {

struct JsonValue;
using JsonFields = std::vector<std::pair<std::string, JsonValue>>; // an object, in this order
using JsonList = std::vector<JsonValue>;

struct JsonValue {
    std::variant<std::nullptr_t, bool, std::int64_t, std::wstring, JsonFields, JsonList> value;

    JsonValue() : value(nullptr) {}
    JsonValue(bool flag) : value(flag) {}
    JsonValue(int number) : value(std::int64_t{number}) {}
    JsonValue(std::int64_t number) : value(number) {}
    JsonValue(std::uint64_t number) : value(static_cast<std::int64_t>(number)) {}
    JsonValue(const wchar_t* text);
    JsonValue(std::wstring text) : value(std::move(text)) {}
    JsonValue(JsonFields fields) : value(std::move(fields)) {}
    JsonValue(JsonList list) : value(std::move(list)) {}
    JsonValue(const std::vector<std::wstring>& texts)
        : value(JsonList(texts.begin(), texts.end())) {}
};

// {"event": event, ...} on one line, without its end. Lone surrogates, which file names may have,
// become U+FFFD.
std::wstring jsonLine(const wchar_t* event, const JsonFields& fields);

} // namespace zopctl
