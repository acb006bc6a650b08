// The rows of a query, from the first to the last, read from the server as they are asked for. They
// stay readable when the database object has gone.
//
//     auto rows = database.query(L"select login, home from sys_users");
//     while (rows.next()) {
//         use(rows.text(L"login"));
//     }
//
// One thread at a time, which is also that of the database. Every failure leaves as
// ZOPDatabaseException.
#pragma once

#include "runtime/export.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class VMySQLRecordSet;

namespace zopobsolete {

class ZOP_API ZOPMySQLRecordSet {
public:
    ZOPMySQLRecordSet(ZOPMySQLRecordSet&& other) noexcept;
    ZOPMySQLRecordSet& operator=(ZOPMySQLRecordSet&& other) noexcept;
    ~ZOPMySQLRecordSet();

    // Goes to the next row, at first to the first one; false when there is none.
    bool next();

    // The names of the columns, in order; a copy.
    std::vector<std::wstring> columns();

    // A column of this row by its name, in any letter case, or by its place, from 0. None for NULL,
    // which is not the empty text. Fails for bytes that are no text.
    std::optional<std::wstring> text(const std::wstring& column);
    std::optional<std::wstring> text(std::size_t column);

    // Gives back what the rows hold; later calls fail.
    void Dispose();

private:
    friend class ZOPMySQLDatabase;
    explicit ZOPMySQLRecordSet(std::unique_ptr<VMySQLRecordSet> rows);
    VMySQLRecordSet& native();

    std::unique_ptr<VMySQLRecordSet> rows_;
};

} // namespace zopobsolete
