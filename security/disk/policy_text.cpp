#include "security/disk/policy_text.h"

#include "runtime/files/file.h"
#include "runtime/format_string.h"
#include "runtime/text.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace DiskSecurity {

namespace {

using RunTime::nicePath;

constexpr std::string_view blanks = " \t\r\n";
constexpr std::string_view utf8Mark = "\xEF\xBB\xBF";
constexpr std::size_t longLine = 512;
constexpr std::size_t maxContentBytes = 64 * 1024; // in one place
constexpr std::size_t maxReferences = 2000;        // in all contents together

// position: that of the offset from, where the counting begins
TextPosition positionAt(std::string_view text, std::size_t offset, std::size_t from = 0,
                        TextPosition position = {1, 1}) {
    for (const char c : text.substr(from, offset - from)) {
        if (c == '\n') {
            ++position.line;
            position.column = 1;
        } else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) { // begins a character
            ++position.column;
        }
    }
    return position;
}

[[noreturn]] void refuse(std::string_view text, std::size_t offset, const std::wstring& message,
                         int line) {
    throw PolicyTextException(message, positionAt(text, offset),
                              {L"", "DiskSecurity::PolicyText::PolicyText", line});
}

// Where the value of encoding="..." stands in the XML declaration that the text begins with, and
// where the whole of that word does.
struct Encoding {
    std::size_t begin = 0; // of the word
    std::size_t end = 0;   // behind its closing quote; equal when there is none
    std::string name;      // upper case
};

Encoding declaredEncoding(std::string_view text) {
    if (!text.starts_with("<?xml") || text.size() < 6 || blanks.find(text[5]) == blanks.npos) {
        return {};
    }
    const std::string_view declaration = text.substr(0, text.find("?>"));
    const std::size_t begin = declaration.find("encoding");
    const std::size_t quote = declaration.find_first_of("'\"", begin);
    if (begin == declaration.npos || quote == declaration.npos) {
        return {};
    }
    const std::size_t close = declaration.find(declaration[quote], quote + 1);
    if (close == declaration.npos) {
        return {};
    }
    Encoding result{begin, close + 1,
                    std::string(declaration.substr(quote + 1, close - quote - 1))};
    std::transform(result.name.begin(), result.name.end(), result.name.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return result;
}

struct CodePage {
    const char* name;
    UINT number;
};

constexpr CodePage codePages[] = {
    {"US-ASCII", 20127},    {"ISO-8859-1", 28591},  {"ISO-8859-2", 28592},  {"ISO-8859-5", 28595},
    {"ISO-8859-9", 28599},  {"ISO-8859-15", 28605}, {"WINDOWS-1250", 1250}, {"WINDOWS-1251", 1251},
    {"WINDOWS-1252", 1252}, {"WINDOWS-1253", 1253}, {"WINDOWS-1254", 1254}, {"WINDOWS-1255", 1255},
    {"WINDOWS-1256", 1256}, {"WINDOWS-1257", 1257}, {"WINDOWS-1258", 1258}, {"KOI8-R", 20866},
};

// UTF-16 to UTF-8; a half character alone becomes U+FFFD, which is looked for afterwards.
std::string fromUtf16(std::string_view bytes, bool bigEndian) {
    std::wstring wide(bytes.size() / 2, L'\0');
    for (std::size_t i = 0; i < wide.size(); ++i) {
        const auto first = static_cast<unsigned char>(bytes[2 * i]);
        const auto second = static_cast<unsigned char>(bytes[2 * i + 1]);
        wide[i] = static_cast<wchar_t>(bigEndian ? first << 8 | second : second << 8 | first);
    }
    std::string text = toUtf8(wide);
    if (bytes.size() % 2 != 0 || toWide(text) != wide) {
        refuse(text, text.size(), L"The file is not whole UTF-16 text.", __LINE__);
    }
    return text;
}

std::string fromCodePage(std::string_view bytes, const Encoding& encoding) {
    for (const CodePage& page : codePages) {
        if (encoding.name != page.name) {
            continue;
        }
        const int length = static_cast<int>(bytes.size());
        std::wstring wide(bytes.size(), L'\0'); // one character a byte, at the most
        const int count = ::MultiByteToWideChar(page.number, MB_ERR_INVALID_CHARS, bytes.data(),
                                                length, wide.data(), length);
        if (count == 0) {
            const DWORD code = ::GetLastError();
            _throwError(
                formatString(L"Unable to read the text as %s", toWide(page.name).c_str()).c_str(),
                code, {L"", "DiskSecurity::PolicyText::PolicyText", __LINE__});
        }
        wide.resize(static_cast<std::size_t>(count));
        return toUtf8(wide);
    }
    refuse(bytes, encoding.begin,
           formatString(L"Unknown encoding: %s, save the file as UTF-8",
                        toWide(encoding.name).c_str()),
           __LINE__);
}

std::string checkedUtf8(std::string_view bytes) {
    std::string whole = toUtf8(toWide(bytes));
    if (whole != bytes) {
        const auto wrong = std::mismatch(whole.begin(), whole.end(), bytes.begin(), bytes.end());
        refuse(bytes, static_cast<std::size_t>(wrong.second - bytes.begin()),
               L"The file is not UTF-8 text, and names no other encoding.", __LINE__);
    }
    return whole;
}

std::string decode(std::string_view bytes) {
    const auto begins = [&](std::initializer_list<unsigned char> mark) {
        return bytes.size() >= mark.size() &&
               std::equal(mark.begin(), mark.end(), bytes.begin(), [](unsigned char m, char c) {
                   return m == static_cast<unsigned char>(c);
               });
    };
    if (bytes.starts_with(utf8Mark)) {
        return checkedUtf8(bytes.substr(utf8Mark.size()));
    }
    if (begins({0xFF, 0xFE}) || begins({0xFE, 0xFF})) {
        return fromUtf16(bytes.substr(2), begins({0xFE}));
    }
    if (begins({'<', 0}) || begins({0, '<'})) {
        return fromUtf16(bytes, begins({0}));
    }
    const Encoding encoding = declaredEncoding(bytes);
    if (encoding.name.empty() || encoding.name == "UTF-8") {
        return checkedUtf8(bytes);
    }
    return fromCodePage(bytes, encoding);
}

// Behind the next needle; npos when there is none.
std::size_t behind(std::string_view text, std::string_view needle, std::size_t at) {
    at = text.find(needle, at);
    return at == text.npos ? at : at + needle.size();
}

// Behind a tag: its ">", but for those in the values of attributes.
std::size_t behindTag(std::string_view text, std::size_t at) {
    while ((at = text.find_first_of("'\">", at)) != text.npos && text[at] != '>') {
        at = behind(text, text.substr(at, 1), at + 1);
    }
    return at == text.npos ? at : at + 1;
}

} // namespace

std::string readPolicyFile(const std::wstring& path) {
    constexpr const char* function = "DiskSecurity::readPolicyFile";
    // What is opened is what is looked at: a name that is looked up twice may have become a link.
    RunTime::AutoHandle file = RunTime::openExisting(path, GENERIC_READ, FILE_SHARE_READ);
    DWORD code = file ? ERROR_SUCCESS : ::GetLastError();
    RunTime::FileInformation kind;
    if (code == ERROR_SUCCESS) {
        code = RunTime::readKind(file.get(), kind);
    }
    if (code == ERROR_SUCCESS && (kind.isLink() || kind.isDirectory())) {
        throw vexception(formatString(kind.isLink() ? L"A policy file must not be a link (%s)"
                                                    : L"A directory is no policy file (%s)",
                                      nicePath(path).c_str()),
                         {L"", function, __LINE__});
    }
    // Content that a filter keeps, as that of a deduplicated file, comes only by way of the reparse
    // point. As long as the first handle is there, nobody replaces the file.
    if (code == ERROR_SUCCESS && (kind.attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        const std::wstring name = RunTime::longPath(path);
        RunTime::AutoHandle content(::CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ,
                                                  nullptr, OPEN_EXISTING, 0, nullptr));
        code = content ? ERROR_SUCCESS : ::GetLastError();
        file = std::move(content);
    }
    if (code != ERROR_SUCCESS) {
        _throwError(
            formatString(L"Unable to open policy file (%s)", nicePath(path).c_str()).c_str(), code,
            {L"", function, __LINE__});
    }
    LARGE_INTEGER length;
    if (!::GetFileSizeEx(file.get(), &length)) {
        code = ::GetLastError();
        _throwError(
            formatString(L"Unable to read policy file (%s)", nicePath(path).c_str()).c_str(), code,
            {L"", function, __LINE__});
    }
    // Nobody can write while it is open; one byte more than there is tells the end, or too much.
    std::string bytes(static_cast<std::size_t>(
                          std::min<std::int64_t>(length.QuadPart, std::int64_t{maxFileBytes})) +
                          1,
                      '\0');
    std::size_t size = 0;
    for (DWORD got = 1; got != 0 && size < bytes.size(); size += got) {
        if (!::ReadFile(file.get(), bytes.data() + size, static_cast<DWORD>(bytes.size() - size),
                        &got, nullptr)) {
            code = ::GetLastError();
            _throwError(
                formatString(L"Unable to read policy file (%s)", nicePath(path).c_str()).c_str(),
                code, {L"", function, __LINE__});
        }
    }
    if (size > maxFileBytes) {
        throw vexception(formatString(L"A policy file has at most %llu bytes (%s)",
                                      static_cast<unsigned long long>(maxFileBytes),
                                      nicePath(path).c_str()),
                         {L"", function, __LINE__});
    }
    bytes.resize(size);
    return bytes;
}

PolicyText::PolicyText(std::string_view bytes) {
    if (bytes.size() > maxFileBytes) {
        refuse({}, 0, L"The file is too large.", __LINE__);
    }
    text_ = decode(bytes);
    // A parser may take a second mark for the first, and then go by the encoding named behind it.
    if (text_.starts_with(utf8Mark)) {
        refuse(text_, 0, L"The file begins with more than one byte order mark.", __LINE__);
    }
    joinLineEnds();
    vetCharacters();
    const Encoding encoding = declaredEncoding(text_);
    std::fill(text_.begin() + static_cast<std::ptrdiff_t>(encoding.begin),
              text_.begin() + static_cast<std::ptrdiff_t>(encoding.end), ' ');
    scan();
    // Wine's parser takes one byte less than it is given. A line end may follow any text.
    takeAndBreak(text_.size());
}

TextPosition PolicyText::inFile(TextPosition inParserText) const {
    if (breaks_.size() == 1) { // the one at the end
        return inParserText;
    }
    std::size_t at = 0;
    for (int line = 1; line < inParserText.line && at != parserText_.npos; ++line) {
        at = parserText_.find('\n', at);
        at += at == parserText_.npos ? 0 : 1;
    }
    at = std::min(at, parserText_.size());
    const std::size_t end = std::min(parserText_.find('\n', at), parserText_.size());
    at = std::min(at + static_cast<std::size_t>(std::max(inParserText.column, 1)) - 1, end);
    const auto before = std::lower_bound(breaks_.begin(), breaks_.end(), at) - breaks_.begin();
    return positionAt(text_, at - static_cast<std::size_t>(before));
}

TextPosition PolicyText::startTag(std::size_t number) {
    if (number >= tags_.size()) {
        return {};
    }
    const std::size_t offset = tags_[number];
    if (offset < reached_) {
        reached_ = 0;
        position_ = {1, 1};
    }
    position_ = positionAt(text_, offset, reached_, position_);
    reached_ = offset;
    return position_;
}

// As every parser must; Wine's takes the square of their number over carriage returns.
void PolicyText::joinLineEnds() {
    auto to = text_.begin();
    for (auto from = text_.begin(); from != text_.end(); ++from) {
        const bool isReturn = *from == '\r';
        if (isReturn && from + 1 != text_.end() && from[1] == '\n') {
            continue;
        }
        *to++ = isReturn ? '\n' : *from;
    }
    text_.erase(to, text_.end());
}

void PolicyText::vetCharacters() const {
    const auto control = std::find_if(text_.begin(), text_.end(), [](char c) {
        return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n';
    });
    if (control != text_.end()) {
        refuse(text_, static_cast<std::size_t>(control - text_.begin()),
               formatString(L"A control character (%02X) is not allowed.",
                            static_cast<unsigned>(*control)),
               __LINE__);
    }
}

// Goes from one "<" to the next as a parser does. What is broken ends the search: the parser stops
// there, too, and says so.
void PolicyText::scan() {
    const std::string_view text = text_;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('<', at), text.size());
        vetContent(at, end);
        const std::string_view rest = text.substr(end);
        at = end;
        if (rest.starts_with("<!--")) {
            at = behind(text, "-->", at + 4);
        } else if (rest.starts_with("<![CDATA[")) {
            at = behind(text, "]]>", at);
            vetContent(end, end + std::min(at - end, rest.size()));
        } else if (rest.starts_with("<?")) {
            at = behind(text, "?>", at);
        } else if (rest.starts_with("<!")) {
            refuse(text, at, L"A document type declaration (<!DOCTYPE) is not allowed.", __LINE__);
        } else if (!rest.empty()) {
            at = scanTag(at);
        }
        if (at == text.npos) {
            return;
        }
        breakLongLine(at);
    }
}

// What stands between tags means nothing here, and Wine's parser takes the square of its length.
void PolicyText::vetContent(std::size_t begin, std::size_t end) {
    if (end - begin > maxContentBytes) {
        refuse(text_, begin,
               formatString(L"Text between tags is longer than %llu bytes.",
                            static_cast<unsigned long long>(maxContentBytes)),
               __LINE__);
    }
    const std::string_view content = std::string_view(text_).substr(begin, end - begin);
    references_ += static_cast<std::size_t>(std::count(content.begin(), content.end(), '&'));
    if (references_ > maxReferences) {
        refuse(text_, begin, L"The text between tags has too many references (&...;).", __LINE__);
    }
}

std::size_t PolicyText::scanTag(std::size_t at) {
    const std::size_t end = behindTag(text_, at);
    if (std::min(end, text_.size()) - at > maxTagBytes) {
        refuse(text_, at,
               formatString(L"A tag is longer than %llu bytes.",
                            static_cast<unsigned long long>(maxTagBytes)),
               __LINE__);
    }
    if (text_.compare(at, 2, "</") != 0) {
        if (tags_.size() == maxElements) {
            refuse(text_, at,
                   formatString(L"The file has more than %llu elements.",
                                static_cast<unsigned long long>(maxElements)),
                   __LINE__);
        }
        tags_.push_back(at);
    }
    return end;
}

// at: behind markup, where a line end means nothing to anybody.
void PolicyText::breakLongLine(std::size_t at) {
    const std::string_view fresh = std::string_view(text_).substr(scanned_, at - scanned_);
    if (const std::size_t lineEnd = fresh.rfind('\n'); lineEnd != fresh.npos) {
        lineStart_ = scanned_ + lineEnd + 1;
    }
    scanned_ = at;
    if (at - lineStart_ > longLine) {
        takeAndBreak(at);
        lineStart_ = at;
    }
}

void PolicyText::takeAndBreak(std::size_t end) {
    parserText_.append(text_, taken_, end - taken_);
    taken_ = end;
    breaks_.push_back(parserText_.size());
    parserText_.push_back('\n');
}

std::wstring placeText(const std::wstring& file, TextPosition position) {
    std::wstring text = L"\"" + nicePath(file) + L"\"";
    if (position.line != 0) {
        text += formatString(L", line %d, column %d", position.line, position.column);
    }
    return text;
}

} // namespace DiskSecurity
