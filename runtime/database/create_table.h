// The definition of a table as the server writes it (SHOW CREATE TABLE), taken apart as far as an
// import needs: to make the table under another name, and to be certain that the text makes a table
// and does nothing else. Words, functions, engines and options that are not on our lists are
// refused; so are directories, connections to other servers, and rows from a query.
//
// Names are UTF-8.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace database {

class CreateTable {
public:
    struct ForeignKey {
        std::string name;       // of the constraint
        std::string table;      // that it refers to
        std::string definition; // "FOREIGN KEY ... REFERENCES ..."
    };

    // Throws ArgumentException, which says what is not known.
    explicit CreateTable(std::string_view sql);
    CreateTable() = default;

    const std::string& name() const noexcept { return name_; }
    const std::vector<std::string>& columns() const noexcept { return columns_; }
    const std::vector<ForeignKey>& foreignKeys() const noexcept { return foreignKeys_; }

    // The statement with other names: each of the functions is given a name and returns the one to
    // write. table: of this table and of those that it refers to; constraint: of foreign keys.
    using Rename = std::function<std::string(const std::string& name)>;
    std::string statement(const Rename& table, const Rename& constraint) const;

private:
    class Parser;

    struct Place {
        std::size_t begin;
        std::size_t end;
        std::string name;
        bool isConstraint;
    };

    std::string sql_;
    std::string name_;
    std::vector<std::string> columns_;
    std::vector<ForeignKey> foreignKeys_;
    std::vector<Place> places_; // of names that may change, in order
};

} // namespace database
