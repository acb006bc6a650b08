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

    // Reads what is left into memory, so that the connection is free for another statement. A
    // failure meanwhile is thrown by next(), behind the last row that came.
    void readAhead();

private:
    using Row = std::vector<std::optional<std::string>>;

    bool fetch(Row& row);
    void release() noexcept;

    std::shared_ptr<database::MySQLConnection> connection_;
    st_mysql_res* result_ = nullptr; // while rows are left at the server
    std::wstring statement_;
    std::vector<std::wstring> columns_;
    Row row_; // empty: no row
    std::deque<Row> kept_;
    std::optional<VDatabase::StatementException> failure_;
};
