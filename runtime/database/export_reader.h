// Reads an export, statement by statement, and takes nothing that ExportWriter does not write: the
// file may come from anywhere. Memory: a buffer and one definition; rows only for who asks for
// them.
//
//     while ((item = reader.next()) != Item::End) {
//         if (item == Item::Table) make(reader.table());
//         else rows += reader.readRows(nullptr);
//     }
//
// Every function throws ArgumentException for what is no export, was cut off or altered. Whether
// the sum holds is known at the end only: read once to know, and once more to use.
#pragma once

#include "runtime/database/create_table.h"
#include "runtime/database/export_writer.h"
#include "runtime/database/sql_text.h"
#include "runtime/sha256.h"

#include <cstdint>
#include <functional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace database {

class ExportReader {
public:
    enum class Item { Table, Rows, End };

    // read fills a part of the buffer and returns how much; 0 at the end. Reads the header.
    using Read = std::function<std::size_t(std::span<char>)>;
    explicit ExportReader(Read read);
    ExportReader(const ExportReader&) = delete;
    ExportReader& operator=(const ExportReader&) = delete;

    const ExportHeader& header() const noexcept { return header_; }

    // Goes to the next statement. The rows of a table follow its definition. The rows of the last
    // item must have been read.
    Item next();

    // The table that was defined last.
    const CreateTable& table() const noexcept { return table_; }
    // Of the rows at hand: "(`a`,`b`)".
    const std::string& columns() const noexcept { return columns_; }
    // Reads the rows of the statement, and puts them behind what is in `to`: "(1,'x'),\n(2,'y')".
    // Returns their number.
    std::uint64_t readRows(Bytes* to);

    std::uint64_t position() const noexcept { return before_ + at_; }
    std::uint32_t tables() const noexcept { return static_cast<std::uint32_t>(names_.size()); }
    std::uint64_t rows() const noexcept { return rows_; }

private:
    [[noreturn]] void refuse(const wchar_t* reason) const;
    bool fill();
    int peek();
    char take();
    void expect(std::string_view text);
    void keep(std::size_t end);

    std::string line(const char* name);
    std::string quoted();
    void definition();
    void rowsHead();
    void value();
    void text(std::uint64_t longest);
    void hexadecimal();
    void number();
    std::uint64_t decimal();
    void trailer();

    Read read_;
    RunTime::Sha256 sum_;
    std::vector<char> buffer_;
    std::size_t at_ = 0;
    std::size_t end_ = 0;
    std::size_t summed_ = 0; // of the buffer
    bool summing_ = true;
    std::uint64_t before_ = 0; // bytes in front of the buffer
    Bytes* kept_ = nullptr;
    std::size_t keptFrom_ = 0;

    ExportHeader header_;
    CreateTable table_;
    std::string columns_;
    std::size_t columnCount_ = 0;
    std::set<std::string> names_;
    std::uint64_t rows_ = 0;
};

} // namespace database
