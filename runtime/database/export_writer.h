// Writes the text of an export; docs/database.md has the format.
//
//     writer.header({...});
//     writer.table(definition);
//     writer.beginRows(table, columns);
//     for (...) { writer.beginRow(bytes); writer.value(...); ...; writer.endRow(); }
//     writer.endRows();
//     writer.finish();
#pragma once

#include "runtime/sha256.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace database {

struct ExportHeader {
    std::string database; // UTF-8
    std::string server;   // its version
    std::string time;     // "2026-01-31T12:00:00Z"
};

class ExportWriter {
public:
    enum class Form {
        Number,
        Text,  // utf8mb4
        Bytes, // hexadecimal
    };

    // write is given the text, some hundred kilobytes at a time.
    explicit ExportWriter(std::function<void(std::string_view)> write) : write_(std::move(write)) {}

    void header(const ExportHeader& header);
    void table(std::string_view definition);

    // columns: "(`a`,`b`)"
    void beginRows(const std::string& table, const std::string& columns);
    // bytes: of the server's values, to end a statement before it becomes too long
    void beginRow(std::size_t bytes);
    // charset: what the server is to take the bytes for; empty: none
    void value(const std::optional<std::string_view>& bytes, Form form, const std::string& charset);
    void endRow();
    void endRows();

    void finish();

    std::uint64_t rows() const noexcept { return rows_; }

private:
    void text(std::string_view bytes);
    void hexadecimal(std::string_view bytes);
    void flush();
    std::uint64_t position() const noexcept { return written_ + buffer_.size(); }

    std::function<void(std::string_view)> write_;
    RunTime::Sha256 sum_;
    std::string buffer_;
    std::uint64_t written_ = 0;
    std::string head_;            // of the statements of this table
    std::uint64_t statement_ = 0; // where the open one begins
    bool isOpen_ = false;
    bool isFirst_ = true; // value of its row
    std::uint32_t tables_ = 0;
    std::uint64_t rows_ = 0;
};

} // namespace database
