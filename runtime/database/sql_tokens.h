// The words and marks of a statement that somebody else wrote, for a parser that takes nothing it
// does not know: comments, variables, quotation marks and ends of statements are errors.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace database {

// A name between backticks, read and written. What is read is UTF-8 and not empty.
std::string quotedName(std::string_view name);

enum class SqlToken { Word, Number, Text, Name, Mark, End };

class SqlTokens {
public:
    // The text must outlive the object. Stands at the first token.
    explicit SqlTokens(std::string_view sql);

    // Goes to the next token. Throws ArgumentException for what is none.
    void next();

    SqlToken kind() const noexcept { return kind_; }
    // A word in small letters, a name without its backticks, a mark; others as they stand.
    const std::string& value() const noexcept { return value_; }
    std::size_t begin() const noexcept { return begin_; }
    std::size_t end() const noexcept { return end_; }

    bool is(std::string_view wordOrMark) const noexcept;
    // Passes over the word or mark; false where another stands there.
    bool accept(std::string_view wordOrMark);
    // As accept(); throws ArgumentException where another stands there. Words apart by blanks.
    void expect(std::string_view wordsOrMarks);
    std::string expectName();

    // Throws an ArgumentException that shows the token.
    [[noreturn]] void refuse() const;

private:
    void quoted(char quote);
    void number();

    std::string_view sql_;
    SqlToken kind_ = SqlToken::End;
    std::string value_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

} // namespace database
