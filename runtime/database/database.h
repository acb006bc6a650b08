// The panel's database as the library uses it: queries that give rows of named text columns,
// statements, transactions, table locks. VMySQLDatabase is the real one.
//
//     const auto rows = database.query(L"select home, quota from sys_users where login = ?",
//                                      {login});
//     while (rows->next()) {
//         use(rows->text(L"home"));
//     }
//
// Values go into a statement through the placeholders and nowhere else: each is escaped for the
// connection and put between quotes. Names of tables and columns are constants of the program.
//
// A database and its record sets are used by one thread at a time.
#pragma once

#include "runtime/exception.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// The rows of a query, from the first to the last.
class VRecordSet {
public:
    VRecordSet() = default;
    VRecordSet(const VRecordSet&) = delete;
    VRecordSet& operator=(const VRecordSet&) = delete;
    virtual ~VRecordSet() = default;

    // Goes to the next row, at first to the first one; false when there is none. Throws
    // VDatabase::StatementException when the rows break off.
    virtual bool next() = 0;

    // The names of the columns, in order.
    virtual const std::vector<std::wstring>& columns() const = 0;

    // A column of this row; none for NULL, which is not the empty text. Letter case of the name
    // does not matter. Throws vexception for a column that there is not, without a row, and for
    // bytes that are no text.
    virtual std::optional<std::wstring> text(std::wstring_view column) const = 0;

    // A column that cannot be NULL. Throws vexception when it is.
    std::wstring value(std::wstring_view column) const;
};

class VDatabase {
public:
    // There is no connection: the server was not reached in time, or refused. The message has the
    // server, the user, and the text and number of the error, never the password.
    class ConnectException : public vexception {
        using vexception::vexception;
    };

    // A statement failed. The message has the text and number of the server's error and the
    // statement as the program wrote it: up to its first quote, and not the values.
    class StatementException : public vexception {
    public:
        StatementException(const std::wstring& message, std::uint32_t errorNumber,
                           const CallStackInfo& frame)
            : vexception(message, frame), errorNumber_(errorNumber) {}
        std::uint32_t errorNumber() const noexcept { return errorNumber_; }

    private:
        std::uint32_t errorNumber_;
    };

    // What stands for a placeholder: NULL, a text or a whole number. A text is not copied, it must
    // live as long as the call.
    class Value {
    public:
        Value(std::nullptr_t) {}
        Value(const wchar_t* text) : value_(std::wstring_view(text)) {}
        Value(std::wstring_view text) : value_(text) {}
        Value(const std::wstring& text) : value_(std::wstring_view(text)) {}
        template <std::signed_integral T>
        Value(T number) : value_(static_cast<std::int64_t>(number)) {}
        template <std::unsigned_integral T>
        Value(T number) : value_(static_cast<std::uint64_t>(number)) {}
        Value(bool) = delete;
        Value(wchar_t) = delete;

        const auto& get() const noexcept { return value_; }

    private:
        std::variant<std::monostate, std::wstring_view, std::int64_t, std::uint64_t> value_;
    };
    using Values = std::vector<Value>;

    enum class Lock { Read, Write };
    struct LockedTable {
        std::wstring name;
        Lock lock;
    };

    VDatabase() = default;
    VDatabase(const VDatabase&) = delete;
    VDatabase& operator=(const VDatabase&) = delete;
    virtual ~VDatabase() = default;

    // Runs a statement that gives rows. With values, each ? of the statement is a placeholder for
    // the next one; the statement then has no comment, no backslash and no ? between quotes.
    // Throws StatementException; ConnectException when the connection had to be opened again;
    // ArgumentException when values and placeholders do not match, and for a text with half a
    // surrogate pair, which would arrive as another one.
    virtual std::unique_ptr<VRecordSet> query(const std::wstring& sql,
                                              const Values& values = {}) = 0;

    // Runs a statement that gives none, and returns the number of rows that it found: of an
    // UPDATE also those that had the new values already. Throws as query does.
    virtual std::uint64_t execute(const std::wstring& sql, const Values& values = {}) = 0;

    // The text as it may stand between single quotes in a statement to this server, now.
    virtual std::wstring escape(std::wstring_view text) = 0;

    // The identifier that the last execute() made in an AUTO_INCREMENT column; 0: none.
    virtual std::uint64_t lastInsertId() const noexcept = 0;

    // Transactions nest: the outermost begins and ends, the others count. A rollback inside marks
    // the whole, which then cannot be committed any more: the outermost commitTrans rolls back and
    // throws. When the connection is lost, or the server itself ends the transaction (a deadlock,
    // a statement that cannot be undone), every statement fails until the outermost is ended.
    // Transaction, below, is the safer way to use them.
    //   commitTrans    throws vexception when all was, or had to be, undone
    //   rollbackTrans  throws vexception when there is no transaction, for nothing else
    virtual void beginTrans() = 0;
    virtual void commitTrans() = 0;
    virtual void rollbackTrans() = 0;
    // How many transactions are open, one in the other.
    virtual int transLevel() const noexcept = 0;

    // Lock tables for this connection, which then can use no others, until unlockTables. Not
    // together with a transaction, since the server ends each by the other. TableLock, below, is
    // the safer way to use them.
    virtual void lockTables(const std::vector<LockedTable>& tables) = 0;
    virtual void unlockTables() = 0;

    class Transaction;
    class TableLock;
};

// A transaction, or one in another, for a scope. Rolls back when it goes without a commit.
class VDatabase::Transaction {
public:
    explicit Transaction(VDatabase& database);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Throws as commitTrans; the transaction has ended then, too.
    void commit();

private:
    VDatabase& database_;
    bool open_ = true;
};

// Tables locked for a scope.
class VDatabase::TableLock {
public:
    TableLock(VDatabase& database, const std::vector<LockedTable>& tables);
    ~TableLock();
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;

private:
    VDatabase& database_;
};
