#include "runtime/database/export_writer.h"

#include "runtime/database/export_format.h"
#include "runtime/database/sql_tokens.h"
#include "runtime/exception.h"
#include "runtime/text.h"

namespace database {

namespace {

constexpr std::size_t bufferBytes = 256 * 1024;

// What stands behind a backslash for a character; 0 where it stands for itself.
char escapeOf(char c) noexcept {
    switch (c) {
    case '\0':
        return '0';
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\x1a':
        return 'Z';
    case '\\':
    case '\'':
        return c;
    default:
        return 0;
    }
}

} // namespace

void ExportWriter::header(const ExportHeader& header) {
    buffer_ += export_format::magic;
    for (const auto& [name, value] : {std::pair("Database", &header.database),
                                      {"Server", &header.server},
                                      {"Time", &header.time}}) {
        buffer_ += std::string("-- ") + name + ": ";
        text(*value);
        buffer_ += '\n';
    }
    buffer_ += export_format::preamble;
}

void ExportWriter::table(std::string_view definition) {
    buffer_ += definition;
    buffer_ += ";\n";
    ++tables_;
    flush();
}

void ExportWriter::beginRows(const std::string& table, const std::string& columns) {
    head_ = "INSERT INTO " + quotedName(table) + " " + columns + " VALUES\n";
}

void ExportWriter::beginRow(std::size_t bytes) {
    // Most texts need not be escaped; twice is the worst case.
    if (isOpen_ && position() - statement_ + bytes > export_format::rowsBytes) {
        endRows();
    }
    if (isOpen_) {
        buffer_ += ",\n";
    } else {
        statement_ = position();
        buffer_ += head_;
        isOpen_ = true;
    }
    buffer_ += '(';
    isFirst_ = true;
}

void ExportWriter::value(const std::optional<std::string_view>& bytes, Form form,
                         const std::string& charset) {
    if (!isFirst_) {
        buffer_ += ',';
    }
    isFirst_ = false;
    if (!bytes) {
        buffer_ += "NULL";
    } else if (form == Form::Number) {
        buffer_ += *bytes;
    } else if (form == Form::Text) {
        text(*bytes);
    } else {
        buffer_ += charset.empty() ? charset : "_" + charset + " ";
        hexadecimal(*bytes);
    }
}

void ExportWriter::endRow() {
    buffer_ += ')';
    ++rows_;
    if (position() - statement_ > export_format::longestStatement) {
        throw vexception(L"A row has more than a statement to a server can hold",
                         {L"", "database::ExportWriter::endRow", __LINE__});
    }
    if (buffer_.size() >= bufferBytes) {
        flush();
    }
}

void ExportWriter::endRows() {
    if (isOpen_) {
        buffer_ += ";\n";
        isOpen_ = false;
    }
}

void ExportWriter::finish() {
    flush();
    const std::string last = std::string(export_format::trailer) + std::to_string(tables_) +
                             ", rows " + std::to_string(rows_) + ", SHA-256 " + sum_.finish() +
                             "\n";
    written_ += last.size();
    write_(last);
}

// A value of gigabytes goes on its way in parts: it is not held twice.
void ExportWriter::text(std::string_view bytes) {
    buffer_ += '\'';
    std::size_t begin = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (const char escaped = escapeOf(bytes[i]); escaped != 0) {
            buffer_.append(bytes, begin, i - begin);
            buffer_ += '\\';
            buffer_ += escaped;
            begin = i + 1;
        } else if (i - begin >= bufferBytes) {
            buffer_.append(bytes, begin, i - begin);
            begin = i;
            flush();
        }
    }
    buffer_.append(bytes, begin);
    buffer_ += '\'';
}

void ExportWriter::hexadecimal(std::string_view bytes) {
    buffer_ += "x'";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        buffer_ += "0123456789ABCDEF"[byte >> 4];
        buffer_ += "0123456789ABCDEF"[byte & 15];
        if (buffer_.size() >= 2 * bufferBytes) {
            flush();
        }
    }
    buffer_ += '\'';
}

void ExportWriter::flush() {
    sum_.add(buffer_.data(), buffer_.size());
    written_ += buffer_.size();
    write_(buffer_);
    ::SecureZeroMemory(buffer_.data(), buffer_.size()); // it may hold passwords
    buffer_.clear();
}

} // namespace database
