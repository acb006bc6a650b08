// The rows that a MySQL or MariaDB server sends. They stay readable when the database object has
// gone.
#pragma once

#include "runtime/database/database.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct st_mysql_res;

namespace database {
class MySQLConnection;
} // namespace database

class VMySQLRecordSet final : public VRecordSet {
public:
    // Takes the result of the statement that the connection has just run. Throws
    // StatementException when it gave no rows.
    //   statement  as an error may show it
    VMySQLRecordSet(std::shared_ptr<database::MySQLConnection> connection, std::wstring statement);
    ~VMySQLRecordSet() override;

    bool next() override;
    const std::vector<std::wstring>& columns() const override { return columns_; }
    std::optional<std::wstring> text(std::wstring_view column) const override;

    // A column of this row by its place, from 0. Bytes are the server's own, until the next call of
    // next(), and until any call of the database. Throw vexception as text() by name does.
    std::optional<std::wstring> text(std::size_t column) const;
    std::optional<std::string_view> bytes(std::size_t column) const;

    // Reads what is left into memory, so that the connection is free for another statement. A
    // failure meanwhile is thrown by next(), behind the last row that came.
    void readAhead();

private:
    using Row = std::vector<std::optional<std::string_view>>;
    using KeptRow = std::vector<std::optional<std::string>>;

    bool fetch();
    KeptRow keep() const;
    void show(KeptRow&& row);
    void release() noexcept;
    [[noreturn]] void fail(const std::wstring& column, const wchar_t* reason) const;

    std::shared_ptr<database::MySQLConnection> connection_;
    st_mysql_res* result_ = nullptr; // while rows are left at the server
    std::wstring statement_;
    std::vector<std::wstring> columns_;
    Row row_; // empty: no row; in the client library's memory, or in that of shown_
    KeptRow shown_;
    std::deque<KeptRow> kept_;
    std::optional<VDatabase::StatementException> failure_;
};
