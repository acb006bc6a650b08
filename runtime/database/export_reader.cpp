#include "runtime/database/export_reader.h"

#include "runtime/database/export_format.h"
#include "runtime/database/sql_tokens.h"
#include "runtime/exception.h"
#include "runtime/text.h"

#include <algorithm>
#include <array>
#include <utility>

namespace database {

namespace {

constexpr std::size_t bufferBytes = 256 * 1024;

bool isDigit(int c) noexcept {
    return c >= '0' && c <= '9';
}

// What a text may hold as it is: all but its own marks and what ends a line or a text elsewhere.
constexpr std::array<bool, 256> plainBytes() {
    std::array<bool, 256> table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = i != '\'' && i != '\\' && i != 0 && i != '\n' && i != '\r' && i != 0x1a;
    }
    return table;
}
constexpr std::array<bool, 256> plain = plainBytes();

} // namespace

ExportReader::ExportReader(Read read) : read_(std::move(read)), buffer_(bufferBytes) {
    expect(export_format::magic);
    header_.database = line("Database");
    header_.server = line("Server");
    header_.time = line("Time");
    expect(export_format::preamble);
}

ExportReader::Item ExportReader::next() {
    switch (peek()) {
    case 'C':
        definition();
        return Item::Table;
    case 'I':
        rowsHead();
        return Item::Rows;
    default:
        trailer();
        return Item::End;
    }
}

std::uint64_t ExportReader::readRows(Bytes* to) {
    const std::uint64_t begin = position();
    std::uint64_t count = 0;
    kept_ = to;
    keptFrom_ = at_;
    for (bool more = true; more;) {
        take();
        for (std::size_t i = 0; i < columnCount_; ++i) {
            expect(i == 0 ? "" : ",");
            value();
        }
        expect(")");
        ++count;
        if (position() - begin > export_format::longestStatement) {
            refuse(L"a statement is longer than any server takes");
        }
        more = peek() == ',';
        if (more) {
            expect(",\n");
            if (peek() != '(') {
                refuse(L"a row is missing");
            }
        }
    }
    keep(at_);
    kept_ = nullptr;
    expect(";\n");
    rows_ += count;
    return count;
}

void ExportReader::refuse(const wchar_t* reason) const {
    throw ArgumentException(L"The file is no export of a database that can be used: " +
                                std::wstring(reason) + L" (byte " + std::to_wstring(position()) +
                                L")",
                            {L"", "database::ExportReader::refuse", __LINE__});
}

// Reads on; false at the end of the file.
bool ExportReader::fill() {
    keep(end_);
    if (summing_) {
        sum_.add(buffer_.data() + summed_, end_ - summed_);
    }
    before_ += end_;
    at_ = 0;
    summed_ = 0;
    keptFrom_ = 0;
    end_ = 0;
    end_ = std::min(read_(buffer_), buffer_.size());
    return end_ > 0;
}

void ExportReader::keep(std::size_t end) {
    if (kept_ != nullptr) {
        kept_->insert(kept_->end(), buffer_.data() + keptFrom_, buffer_.data() + end);
    }
}

// -1 at the end of the file.
int ExportReader::peek() {
    return at_ < end_ || fill() ? static_cast<unsigned char>(buffer_[at_]) : -1;
}

char ExportReader::take() {
    if (peek() < 0) {
        refuse(L"it ends too early");
    }
    return buffer_[at_++];
}

void ExportReader::expect(std::string_view text) {
    for (const char c : text) {
        if (take() != c) {
            --at_;
            refuse(L"something stands there that an export does not have");
        }
    }
}

// "-- Name: 'value'"
std::string ExportReader::line(const char* name) {
    expect("-- ");
    expect(name);
    expect(": ");
    Bytes raw;
    kept_ = &raw;
    keptFrom_ = at_;
    text(export_format::longestLine);
    keep(at_);
    kept_ = nullptr;
    expect("\n");
    std::string value;
    for (std::size_t i = 1; i + 1 < raw.size(); ++i) {
        if (raw[i] != '\\') {
            value += raw[i];
        } else if (const char c = raw[++i]; c == '\\' || c == '\'') {
            value += c;
        } else {
            value += ' '; // a line end and its like, for people
        }
    }
    return value;
}

// A name between backticks.
std::string ExportReader::quoted() {
    expect("`");
    std::string name;
    for (;;) {
        const char c = take();
        if (c == '`' && peek() != '`') {
            break;
        }
        if (c == '`') {
            take();
        }
        name += c;
        if (name.size() > export_format::longestName) {
            refuse(L"a name is too long");
        }
    }
    if (name.empty()) {
        refuse(L"a name is empty");
    }
    return name;
}

void ExportReader::definition() {
    std::string sql;
    char quote = 0;
    for (bool more = true; more;) {
        const char c = take();
        if (c == ';' && quote == 0) {
            break;
        }
        sql += c;
        if (c == '\\' && quote == '\'') {
            sql += take();
        } else if (quote == 0 && (c == '\'' || c == '`')) {
            quote = c;
        } else if (c == quote) { // a doubled one ends it and begins it again
            quote = 0;
        }
        if (sql.size() > export_format::longestDefinition) {
            refuse(L"the definition of a table is too long");
        }
    }
    expect("\n");
    try {
        table_ = CreateTable(sql);
    } catch (const ArgumentException& e) {
        refuse((L"in the definition of a table " + e.message()).c_str());
    }
    if (table_.name().size() > export_format::longestName || !names_.insert(table_.name()).second ||
        names_.size() > export_format::mostTables) {
        refuse(L"the name of a table is too long, or there twice, or there are too many");
    }
}

void ExportReader::rowsHead() {
    expect("INSERT INTO ");
    if (names_.empty() || quoted() != table_.name()) {
        refuse(L"rows belong to another table than the one in front of them");
    }
    expect(" (");
    columns_.assign(1, '(');
    std::set<std::string> seen;
    do {
        const std::string name = quoted();
        const std::vector<std::string>& known = table_.columns();
        if (std::find(known.begin(), known.end(), name) == known.end() ||
            !seen.insert(name).second) {
            refuse(L"a column is not in the table, or there twice");
        }
        columns_ += seen.size() == 1 ? "" : ",";
        columns_ += quotedName(name);
    } while (peek() == ',' && take() == ',');
    columns_ += ')';
    columnCount_ = seen.size();
    expect(") VALUES\n");
    if (peek() != '(') {
        refuse(L"a row is missing");
    }
}

void ExportReader::value() {
    const int c = peek();
    if (c == '\'') {
        text(export_format::longestStatement);
    } else if (c == 'N') {
        expect("NULL");
    } else if (c == 'x') {
        hexadecimal();
    } else if (c == '_') {
        take();
        for (std::size_t length = 0; peek() != ' '; ++length) {
            const char letter = take();
            if (length > 32 || (!isDigit(letter) && (letter < 'a' || letter > 'z'))) {
                refuse(L"a character set has a name that is none");
            }
        }
        expect(" ");
        hexadecimal();
    } else {
        number();
    }
}

void ExportReader::text(std::uint64_t longest) {
    const std::uint64_t first = position();
    expect("'");
    for (;;) {
        while (at_ < end_ && plain[static_cast<unsigned char>(buffer_[at_])]) {
            ++at_;
        }
        if (position() - first > longest) {
            refuse(L"a text is too long");
        }
        const int c = peek();
        if (c >= 0 && plain[static_cast<std::size_t>(c)]) {
            continue; // the buffer was at its end
        }
        take();
        if (c == '\'') {
            return;
        }
        if (c != '\\' || std::string_view("0nrZ\\'").find(take()) == std::string_view::npos) {
            refuse(L"a text has a character that an export does not have in it");
        }
    }
}

void ExportReader::hexadecimal() {
    expect("x'");
    for (std::uint64_t digits = 0;; ++digits) {
        const char c = take();
        if (c == '\'' && digits % 2 == 0) {
            return;
        }
        if (!isDigit(c) && (c < 'A' || c > 'F')) {
            refuse(L"bytes are not hexadecimal");
        }
    }
}

void ExportReader::number() {
    const std::uint64_t begin = position();
    const auto digits = [&] {
        do {
            if (!isDigit(take()) || position() - begin > export_format::longestNumber) {
                refuse(L"a value is none");
            }
        } while (isDigit(peek()));
    };
    if (peek() == '-') {
        take();
    }
    digits();
    if (peek() == '.') {
        take();
        digits();
    }
    if (peek() == 'e') {
        take();
        if (peek() == '-' || peek() == '+') {
            take();
        }
        digits();
    }
}

std::uint64_t ExportReader::decimal() {
    std::uint64_t result = 0;
    for (int digits = 0; isDigit(peek()) && digits < 18; ++digits) {
        result = result * 10 + static_cast<std::uint64_t>(take() - '0');
    }
    return result;
}

void ExportReader::trailer() {
    peek();
    sum_.add(buffer_.data() + summed_, at_ - summed_);
    summing_ = false;
    expect(export_format::trailer);
    const std::uint64_t tables = decimal();
    expect(", rows ");
    const std::uint64_t rows = decimal();
    expect(", SHA-256 ");
    const std::string sum = sum_.finish();
    std::string stated;
    while (stated.size() < sum.size()) {
        stated += take();
    }
    expect("\n");
    if (tables != names_.size() || rows != rows_ || stated != sum) {
        refuse(L"it was altered since it was written");
    }
    if (peek() >= 0) {
        refuse(L"something follows its end");
    }
}

} // namespace database
