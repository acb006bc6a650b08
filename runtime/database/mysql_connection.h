// One connection to the server, which can be opened again, and the one record set that is being
// read from it. Internal to VMySQLDatabase and VMySQLRecordSet.
#pragma once

#include "runtime/database/mysql_database.h"
#include "runtime/database/mysql_record_set.h"
#include "runtime/database/sql_text.h"

#include <memory>
#include <mysql.h>
#include <string>

namespace database {

class MySQLConnection {
public:
    explicit MySQLConnection(VMySQLDatabase::Parameters parameters);
    ~MySQLConnection();
    MySQLConnection(const MySQLConnection&) = delete;
    MySQLConnection& operator=(const MySQLConnection&) = delete;

    // Connects and sets the session up. Throws ConnectException.
    void open();
    void close() noexcept { handle_.reset(); }
    const VMySQLDatabase::Parameters& parameters() const noexcept { return parameters_; }
    bool isOpen() const noexcept { return handle_ != nullptr; }
    // Whether the server has neither closed the idle connection nor said why it will.
    bool isAlive() const noexcept;

    // Sends the statement and waits for the answer. False: it failed, see failure().
    bool send(std::string_view statement);
    // The last error of the client library, for a statement. Closes a connection that was lost.
    VDatabase::StatementException failure(const std::wstring& shownStatement,
                                          const vexception::CallStackInfo& frame);

    // Passes over the results that a procedure gives behind its first. False: one of its statements
    // failed, see failure().
    bool dropFurtherResults() noexcept;

    void escape(Bytes& to, std::string_view text) const;
    bool inTransaction() const noexcept;
    MYSQL* get() const noexcept { return handle_.get(); }

    // The record set that still has rows to read; the next statement makes it read ahead.
    VMySQLRecordSet* reader = nullptr;

private:
    struct Close {
        void operator()(MYSQL* handle) const noexcept { ::mysql_close(handle); }
    };
    using Handle = std::unique_ptr<MYSQL, Close>;

    [[noreturn]] void failToConnect(MYSQL* handle) const;

    VMySQLDatabase::Parameters parameters_;
    Handle handle_;
};

} // namespace database
