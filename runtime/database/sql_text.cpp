#include "runtime/database/sql_text.h"

#include "runtime/format_string.h"
#include "runtime/text.h"

#include <algorithm>

namespace database {

namespace {

void append(Bytes& to, std::string_view text) {
    to.insert(to.end(), text.begin(), text.end());
}

void appendValue(Bytes& to, const VDatabase::Value& value, const Escape& escape) {
    if (const auto* text = std::get_if<std::wstring_view>(&value.get())) {
        const Bytes bytes = toSqlBytes(*text);
        to.push_back('\'');
        escape(to, {bytes.data(), bytes.size()});
        to.push_back('\'');
    } else if (const auto* number = std::get_if<std::int64_t>(&value.get())) {
        append(to, std::to_string(*number));
    } else if (const auto* count = std::get_if<std::uint64_t>(&value.get())) {
        append(to, std::to_string(*count));
    } else {
        append(to, "NULL");
    }
}

[[noreturn]] void refuse(const wchar_t* reason, const std::wstring& sql) {
    throw ArgumentException(
        formatString(L"Unable to build (%s): %s", shownStatement(sql).c_str(), reason),
        {L"", "database::bindValues", __LINE__});
}

// Where the quotes of a statement end must be certain, or a value could stand outside of its own.
// A backslash ends that certainty, since the server's mode says what it means; so does a comment
// with an apostrophe.
void checkTemplate(const std::wstring& sql) {
    for (const wchar_t* mark : {L"\\", L"#", L"--", L"/*"}) {
        if (sql.find(mark) != std::wstring::npos) {
            refuse(L"a statement with values has no backslash and no comment", sql);
        }
    }
}

} // namespace

Bytes toSqlBytes(std::wstring_view text) {
    std::string bytes = toUtf8(text);
    const RunTime::WipeOnExit wipeBytes(bytes);
    std::wstring back = toWide(bytes);
    const RunTime::WipeOnExit wipeBack(back);
    if (back != text) {
        throw ArgumentException(L"The text for the database has half a surrogate pair in it",
                                {L"", "database::toSqlBytes", __LINE__});
    }
    return Bytes(bytes.begin(), bytes.end());
}

Bytes bindValues(const std::wstring& sql, const VDatabase::Values& values, const Escape& escape) {
    const Bytes bytes = toSqlBytes(sql);
    if (values.empty()) {
        return bytes;
    }
    checkTemplate(sql);
    Bytes result;
    std::size_t used = 0;
    char quote = 0; // the one that we are behind; a doubled one closes and opens again
    for (const char c : bytes) {
        if (c == '?') {
            if (quote != 0) {
                refuse(L"a placeholder stands between quotes", sql);
            }
            if (used == values.size()) {
                refuse(L"there are more placeholders than values", sql);
            }
            appendValue(result, values[used++], escape);
            continue;
        }
        if (c == quote) {
            quote = 0;
        } else if (quote == 0 && (c == '\'' || c == '"' || c == '`')) {
            quote = c;
        }
        result.push_back(c);
    }
    if (used != values.size()) {
        refuse(L"there are more values than placeholders", sql);
    }
    return result;
}

std::wstring shownStatement(const std::wstring& sql) {
    constexpr std::size_t longest = 200;
    const std::size_t end = std::min(sql.find_first_of(L"'\"\r\n"), longest);
    return end < sql.size() ? sql.substr(0, end) + L"..." : sql;
}

std::wstring quotedName(const std::wstring& name) {
    std::wstring result = L"`";
    for (const wchar_t c : name) {
        result.append(c == L'`' ? 2 : 1, c);
    }
    return result + L'`';
}

} // namespace database
