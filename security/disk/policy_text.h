// The text of a policy file, made safe for a parser. A file may have been written by anybody: it
// must not make the process read other files, hang, or fill memory. What the parser would have to
// be trusted with is refused before it sees the text, which it gets in one encoding only; so
// nothing can hide in another.
//
//   no document type declaration, and with it no entity but XML's own five
//   UTF-8, UTF-16 and Windows' 8-bit code pages, decoded strictly
//   at most maxFileBytes, maxElements, and maxTagBytes for one tag with all of its attributes
#pragma once

#include "runtime/exception.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace DiskSecurity {

inline constexpr std::size_t maxFileBytes = 16 * 1024 * 1024;
inline constexpr std::size_t maxElements = 200'000;
inline constexpr std::size_t maxTagBytes = 128 * 1024; // parsers compare each attribute with all

// A place in a text, both counted from 1. Zeros: nowhere in particular.
struct TextPosition {
    int line = 0;
    int column = 0;
};

// What is wrong with the text itself, and where.
class PolicyTextException : public vexception {
public:
    PolicyTextException(const std::wstring& message, TextPosition position, CallStackInfo frame)
        : vexception(message, std::move(frame)), position_(position) {}
    TextPosition position() const noexcept { return position_; }

private:
    TextPosition position_;
};

// The bytes of a policy file; path may be of any length. A link is not followed: policy files lie
// in a directory of the administrator's, and nothing there needs to be one. "Unable to open policy
// file
// (%s)", "Unable to read policy file (%s)"; vexception for a link, a directory and a file that is
// too large.
std::string readPolicyFile(const std::wstring& path);

class PolicyText {
public:
    // bytes: a file's. Throws PolicyTextException for what must not reach a parser.
    explicit PolicyText(std::string_view bytes);

    // In UTF-8, without a byte order mark and without the name of its former encoding. Line ends
    // are put in behind tags where a line is long: a parser that counts columns from the beginning
    // of the line would take the square of its length.
    std::string_view forParser() const noexcept { return parserText_; }
    // Where in the file a place in the parser's text is.
    TextPosition inFile(TextPosition inParserText) const;
    // Where the start tag of that number, from 0, begins in the file. Cheap for rising numbers.
    TextPosition startTag(std::size_t number);

private:
    void joinLineEnds();
    void vetCharacters() const;
    void scan();
    void vetContent(std::size_t begin, std::size_t end);
    std::size_t scanTag(std::size_t at);
    void breakLongLine(std::size_t at);
    void takeAndBreak(std::size_t end);

    std::string text_; // the file's, in UTF-8
    std::string parserText_;
    std::vector<std::size_t> tags_;   // offsets in text_
    std::vector<std::size_t> breaks_; // offsets in parserText_ of what was put in
    // Offsets in text_: how far it was scanned and taken into parserText_, and where the line that
    // is being scanned begins.
    std::size_t scanned_ = 0;
    std::size_t taken_ = 0;
    std::size_t lineStart_ = 0;
    std::size_t references_ = 0; // in what stands between tags
    // The last answer of startTag(), to count on from.
    std::size_t reached_ = 0;
    TextPosition position_{1, 1};
};

// Quotes a file as messages and frames show it: "C:\...\policy.xml", line 3, column 17.
std::wstring placeText(const std::wstring& file, TextPosition position);

} // namespace DiskSecurity
