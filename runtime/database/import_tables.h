// The tables of an import beside those that it replaces. The new ones are filled under names of
// their own, "zop$import$new$1", and take their places by one statement, which moves the old ones
// to "zop$import$old$1". Until then the database is as it was; after it the old ones only have to
// go. What a crash left is found by these names, and removed by the next import.
//
//   left over                what happened                        the next import
//   new                      broken off before the swap           drops them
//   old, perhaps its list    broken off after it                  drops them
//   new and old and list     the server crashed in the swap, and  puts the old ones back, then
//                            is too old to undo that by itself    drops the new ones
//
// A lock by name keeps a second import of the database out. Names are UTF-8.
#pragma once

#include "runtime/database/create_table.h"
#include "runtime/database/mysql_database.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace database {

class ImportTables {
public:
    // Connects, takes the lock, sets the session up and removes what was left of an earlier import.
    // Throws vexception when another import is at work, or the database cannot take one: it has
    // triggers, which would go with the old tables, or tables elsewhere refer to its own.
    explicit ImportTables(VMySQLDatabase::Parameters parameters);
    ~ImportTables();
    ImportTables(const ImportTables&) = delete;
    ImportTables& operator=(const ImportTables&) = delete;

    // The tables that the swap will move away.
    const std::vector<std::string>& present() const noexcept { return present_; }
    // Whether two names mean one table on this server.
    bool isSame(const std::string& first, const std::string& second) const;
    // In bytes, of a statement.
    std::uint64_t longestStatement() const noexcept { return longestStatement_; }

    // What comes in. Called for all tables before make(): definitions refer to one another.
    // Throws ArgumentException for a name that the server takes for one that is there already.
    void expect(const std::string& name);
    void make(const CreateTable& table);
    // "INSERT INTO ... VALUES " for rows of a table.
    std::string head(const std::string& table, const std::string& columns) const;
    // The statement goes as it is. Throws vexception when it did not store all rows.
    void insert(std::string_view statement, std::uint64_t rows, const std::string& table);

    // One statement: afterwards the new tables are there, or, when it throws, the old ones. A
    // connection that is lost meanwhile is opened again to see which.
    void swap();
    // Drops the old tables and gives the foreign keys their names; returns what could not be done.
    std::vector<std::wstring> finish();
    // Drops the new tables, through another connection where this one was lost. Never throws.
    void discard() noexcept;

private:
    void connect(int lockSeconds);
    VMySQLDatabase& session();
    void recover();
    void undoHalfSwap(const std::vector<std::string>& left);
    std::vector<std::string> list(const wchar_t* condition);
    std::string stagedName(const std::string& table) const;
    std::string stagedConstraint(const std::string& table, const std::string& constraint);
    bool isSwapped();
    void run(const std::string& sql);
    void drop(const std::vector<std::string>& tables);

    struct ForeignKey {
        std::string table;
        std::string stagedName;
        CreateTable::ForeignKey key;
    };

    VMySQLDatabase::Parameters parameters_;
    std::unique_ptr<VMySQLDatabase> database_;
    std::vector<std::string> present_;
    std::vector<std::string> others_; // views and the like, whose names are taken
    std::vector<std::string> expected_;
    std::vector<ForeignKey> foreignKeys_; // whose names are given at the end
    std::uint64_t longestStatement_ = 0;
    std::string unique_; // part of names that must not be there yet
    bool ignoresCase_ = false;
};

} // namespace database
