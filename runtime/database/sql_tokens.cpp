#include "runtime/database/sql_tokens.h"

#include "runtime/exception.h"
#include "runtime/text.h"

namespace database {

namespace {

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

bool isLetter(char c) noexcept {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

} // namespace

std::string quotedName(std::string_view name) {
    std::string result = "`";
    for (const char c : name) {
        result.append(c == '`' ? 2 : 1, c);
    }
    return result + '`';
}

SqlTokens::SqlTokens(std::string_view sql) : sql_(sql) {
    next();
}

void SqlTokens::next() {
    const std::size_t begin = sql_.find_first_not_of(" \t\r\n", end_);
    begin_ = begin == std::string_view::npos ? sql_.size() : begin;
    end_ = begin_;
    value_.clear();
    if (begin_ == sql_.size()) {
        kind_ = SqlToken::End;
        return;
    }
    const char c = sql_[end_];
    if (isLetter(c)) {
        kind_ = SqlToken::Word;
        for (; end_ < sql_.size() && (isLetter(sql_[end_]) || isDigit(sql_[end_])); ++end_) {
            const char letter = sql_[end_];
            value_ += static_cast<char>(letter >= 'A' && letter <= 'Z' ? letter + 32 : letter);
        }
    } else if (isDigit(c)) {
        number();
    } else if (c == '`' || c == '\'') {
        quoted(c);
    } else {
        kind_ = SqlToken::Mark;
        value_ = c;
        ++end_;
        const char following = end_ < sql_.size() ? sql_[end_] : ' ';
        if (std::string_view("(),=<>!+-*/%&|^~").find(c) == std::string_view::npos ||
            (c == '-' && following == '-') || (c == '/' && following == '*')) {
            refuse();
        }
    }
}

bool SqlTokens::is(std::string_view wordOrMark) const noexcept {
    return (kind_ == SqlToken::Word || kind_ == SqlToken::Mark) && value_ == wordOrMark;
}

bool SqlTokens::accept(std::string_view wordOrMark) {
    if (!is(wordOrMark)) {
        return false;
    }
    next();
    return true;
}

void SqlTokens::expect(std::string_view wordsOrMarks) {
    while (!wordsOrMarks.empty()) {
        const std::size_t length = wordsOrMarks.find(' ');
        if (!accept(wordsOrMarks.substr(0, length))) {
            refuse();
        }
        wordsOrMarks.remove_prefix(length == std::string_view::npos ? wordsOrMarks.size()
                                                                    : length + 1);
    }
}

std::string SqlTokens::expectName() {
    if (kind_ != SqlToken::Name) {
        refuse();
    }
    std::string name = value_;
    next();
    return name;
}

void SqlTokens::refuse() const {
    constexpr std::size_t longest = 60;
    throw ArgumentException(
        L"an export has nothing like (" +
            toWide(sql_.substr(begin_, std::min(longest, std::max(end_ - begin_, longest / 3)))) +
            L") there",
        {L"", "database::SqlTokens::refuse", __LINE__});
}

void SqlTokens::quoted(char quote) {
    kind_ = quote == '`' ? SqlToken::Name : SqlToken::Text;
    for (++end_; end_ < sql_.size(); ++end_) {
        const char c = sql_[end_];
        if (c == '\\' && quote == '\'') {
            ++end_;
        } else if (c == quote) {
            if (end_ + 1 == sql_.size() || sql_[end_ + 1] != quote) {
                break;
            }
            ++end_;
        }
        if (quote == '`') {
            value_ += c;
        }
    }
    if (end_ >= sql_.size() || (quote == '`' && value_.empty())) {
        end_ = sql_.size();
        refuse();
    }
    ++end_;
}

// 12, 1.5, 1e10. What stands in front of a letter is none: 12ab would be a name to the server.
void SqlTokens::number() {
    kind_ = SqlToken::Number;
    const auto digits = [this] {
        while (end_ < sql_.size() && isDigit(sql_[end_])) {
            ++end_;
        }
    };
    digits();
    if (end_ + 1 < sql_.size() && sql_[end_] == '.' && isDigit(sql_[end_ + 1])) {
        ++end_;
        digits();
    }
    if (end_ < sql_.size() && (sql_[end_] == 'e' || sql_[end_] == 'E')) {
        ++end_;
        if (end_ < sql_.size() && (sql_[end_] == '+' || sql_[end_] == '-')) {
            ++end_;
        }
        digits();
    }
    if (end_ < sql_.size() && (isLetter(sql_[end_]) || static_cast<signed char>(sql_[end_]) < 0)) {
        refuse();
    }
    value_ = sql_.substr(begin_, end_ - begin_);
}

} // namespace database
