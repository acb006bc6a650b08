// Connections that are refused, lost and opened again, and what depends on one: transactions and
// table locks.
#include "runtime/database/mysql_database.h"

#include "tests/support/database_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/import_patch.h"
#include "tests/support/registry_override.h"

#include <thread>
#include <winsock2.h>

namespace {

class MySQLConnectionTest : public DatabaseFixture {
protected:
    void SetUp() override {
        DatabaseFixture::SetUp();
        if (database) {
            other = std::make_unique<VMySQLDatabase>(parameters());
            makeTable(L"t", L"id int primary key");
        }
    }

    std::wstring connectionId() { return toWide(one(L"select connection_id()")); }
    std::string ids() {
        return oneOf(*other, L"select coalesce(group_concat(id order by id), '') from t");
    }

    // Ends a connection and waits until the server has closed it.
    void kill(const std::wstring& id) {
        other->execute(L"kill " + id);
        waitFor(id, L"", false);
    }
    // Waits until the connection runs a statement with this in its text, or has gone.
    void waitFor(const std::wstring& id, const std::wstring& text, bool there = true) {
        while (oneOf(*other,
                     L"select count(*) from information_schema.processlist where id = ? "
                     L"and coalesce(info, '') like concat('%', ?, '%')",
                     {id, text}) != std::to_string(there)) {
            std::this_thread::yield();
        }
    }

    std::unique_ptr<VMySQLDatabase> other;
};

std::string connectError(const VMySQLDatabase::Parameters& parameters) {
    try {
        const VMySQLDatabase refused(parameters);
    } catch (const VDatabase::ConnectException& e) {
        return toUtf8(e.what());
    }
    ADD_FAILURE() << "connected";
    return {};
}

// A port that accepts connections, as the system does for it, and never says a word.
SOCKET listenInSilence(std::uint16_t& port) {
    const SOCKET silent = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    int size = sizeof address;
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(0, ::bind(silent, place, size) + ::listen(silent, 1) +
                     ::getsockname(silent, place, &size));
    port = ::ntohs(address.sin_port);
    return silent;
}

} // namespace

TEST_F(MySQLConnectionTest, ConnectErrorsNameServerAndUserAndNoPassword) {
    Parameters wrong = parameters();
    wrong.password = L"wr0ng";
    const std::string denied = connectError(wrong);
    EXPECT_NE(denied.find("(Error number 1045)"), std::string::npos) << denied;
    EXPECT_NE(denied.find("as (zop)"), std::string::npos) << denied;
    EXPECT_EQ(denied.find("wr0ng"), std::string::npos) << denied;

    wrong = parameters();
    wrong.database = L"absent";
    EXPECT_NE(connectError(wrong).find("(Error number 1044)"), std::string::npos);

    wrong = parameters();
    wrong.connectTimeout = std::chrono::seconds(1);
    const SOCKET silent = listenInSilence(wrong.port);
    const ULONGLONG start = ::GetTickCount64();
    EXPECT_NE(connectError(wrong).find("127.0.0.1:"), std::string::npos);
    EXPECT_GE(::GetTickCount64() - start, 900U);
    EXPECT_LT(::GetTickCount64() - start, 12'000U); // of the 15 s of the configuration
    ::closesocket(silent);
    EXPECT_NE(connectError(wrong).find("(Error number 2002)"), std::string::npos);

    wrong.user = std::wstring(L"a\0b", 3);
    EXPECT_THROW(VMySQLDatabase{wrong}, ArgumentException);
}

TEST_F(MySQLConnectionTest, TheTimeOutOfConnectingIsConfiguredAndNotThatOfStatements) {
    const RegistryOverride registry;
    EXPECT_EQ(VMySQLDatabase::configuredTimeout().count(), 15);
    for (const auto& [configured, used] : {std::pair(60UL, 60), {0UL, 15}, {~0UL, 3600}}) {
        RegistryOverride::setDword(L"MySQLConnectionTimeout", configured);
        EXPECT_EQ(VMySQLDatabase::configuredTimeout().count(), used);
    }
    RegistryOverride::setDword(L"MySQLConnectionTimeout", 1);
    VMySQLDatabase quick(parameters());
    EXPECT_EQ(oneOf(quick, L"select sleep(1.5)"), "0");
}

TEST_F(MySQLConnectionTest, ALostConnectionIsOpenedAgainButNotInATransactionOrLock) {
    const std::wstring id = connectionId();
    kill(id);
    EXPECT_EQ(database->escape(L"'"), L"\\'");
    EXPECT_EQ(one(L"select ? = '\U0001F600' and @@sql_mode like 'STRICT%'", {L"\U0001F600"}), "1");
    EXPECT_NE(connectionId(), id);
    {
        VDatabase::Transaction transaction(*database);
        database->execute(L"insert into t values (1)");
        kill(connectionId());
        for (const int row : {2, 3}) {
            statementError(0, [&] { database->execute(L"insert into t values (?)", {row}); });
        }
        EXPECT_THROW(transaction.commit(), vexception);
    }
    {
        const VDatabase::TableLock lock(*database, {{L"t", VDatabase::Lock::Write}});
        kill(connectionId());
        statementError(0, [&] { database->execute(L"insert into t values (4)"); });
    }
    EXPECT_EQ(database->execute(L"insert into t values (5)"), 1U);
    EXPECT_EQ(ids(), "5");
}

TEST_F(MySQLConnectionTest, AStatementThatLosesItsConnectionIsNotRepeated) {
    const std::wstring id = connectionId();
    std::jthread killer([this, id] {
        waitFor(id, L"sleep(60)");
        kill(id);
    });
    EXPECT_THROW(database->execute(L"insert into t values (1 + sleep(60))"),
                 VDatabase::StatementException);
    killer.join();
    EXPECT_EQ(ids(), "");
    EXPECT_NE(connectionId(), id) << "the next one connects again";

    const auto rows = database->query(L"select repeat('x', 1000) as t from seq_1_to_100000");
    EXPECT_TRUE(rows->next());
    kill(toWide(oneOf(*other, L"select max(id) from information_schema.processlist where info "
                              L"like '%repeat(%' and id <> connection_id()")));
    EXPECT_THROW(while (rows->next()){}, VDatabase::StatementException);
    EXPECT_THROW(rows->next(), VDatabase::StatementException) << "an end that is none";
    EXPECT_EQ(one(L"select 1"), "1");
}

TEST_F(MySQLConnectionTest, TransactionsNest) {
    {
        VDatabase::Transaction outer(*database);
        {
            VDatabase::Transaction inner(*database);
            database->execute(L"insert into t values (1)");
            inner.commit();
        }
        EXPECT_EQ(ids(), "") << "the inner one commits nothing";
        statementError(1062, [this] { database->execute(L"insert into t values (1)"); });
        database->execute(L"insert into t values (2)"); // an error alone does not end it
        outer.commit();
    }
    EXPECT_EQ(ids(), "1,2");
    {
        VDatabase::Transaction outer(*database);
        database->execute(L"insert into t values (3)");
        {
            const VDatabase::Transaction inner(*database);
            database->execute(L"insert into t values (4)");
        }
        database->execute(L"insert into t values (5)");
        expectError<vexception>(L"Unable to commit the transaction: a part of it was rolled back",
                                [&] { outer.commit(); });
    }
    EXPECT_EQ(database->transLevel(), 0);
    EXPECT_EQ(ids(), "1,2");
    EXPECT_THROW(database->commitTrans(), vexception);
    EXPECT_THROW(database->rollbackTrans(), vexception);
    database->execute(L"insert into t values (6)");
    EXPECT_EQ(ids(), "1,2,6") << "takes effect at once";
}

// Without that, what follows would take effect at once and could not be undone.
TEST_F(MySQLConnectionTest, NothingRunsInATransactionThatTheServerHasEnded) {
    database->beginTrans();
    database->execute(L"insert into t values (1)");
    database->execute(L"create or replace table u (id int)");
    statementError(0, [this] { database->execute(L"insert into t values (2)"); });
    database->rollbackTrans();
    EXPECT_EQ(ids(), "1");

    // A deadlock: each waits for the other's row; the server ends one transaction of the two.
    database->execute(L"insert into t values (2)");
    const std::wstring id = connectionId();
    database->beginTrans();
    other->beginTrans();
    database->execute(L"update t set id = 10 where id = 1");
    other->execute(L"update t set id = 20 where id = 2");
    const auto cross = [](VDatabase& victim, int row) {
        try {
            victim.execute(L"update t set id = id + 100 where id = ?", {row});
            return 0U;
        } catch (const VDatabase::StatementException& e) {
            statementError(0, [&] { victim.execute(L"insert into t values (99)"); });
            victim.rollbackTrans();
            return e.errorNumber();
        }
    };
    std::uint32_t first = 0;
    std::jthread waiting([&] { first = cross(*database, 2); });
    waitFor(id, L"id + 100");
    const std::uint32_t second = cross(*other, 1);
    waiting.join();
    EXPECT_EQ(first + second, 1213U);
    (first != 0 ? *other : *database).rollbackTrans();
    EXPECT_EQ(ids(), "1,2");
}

TEST_F(MySQLConnectionTest, WhicheverTransferFailsATransactionIsWholeOrNotThere) {
    for (const char* function : {"connect", "send", "recv", "select"}) {
        // Null, which is this program, where the client library is linked in.
        FaultPoint fault(function, ::GetModuleHandleW(L"libmariadb.dll"));
        fault.code = WSAECONNRESET;
        fault.result = static_cast<std::uintptr_t>(SOCKET_ERROR);
        int failures = 0;
        bool fired = true;
        for (long n = 0; fired; ++n) {
            SCOPED_TRACE(std::string(function) + ", call " + std::to_string(n));
            ASSERT_LT(n, 200);
            database->execute(L"delete from t");
            bool failed = false, committing = false;
            fault.calls = 0;
            fault.failAt = n;
            try {
                VMySQLDatabase fresh(parameters());
                VDatabase::Transaction transaction(fresh);
                const auto rows = fresh.query(L"select seq from seq_1_to_3");
                while (rows->next()) {
                    fresh.execute(L"insert into t values (?)", {rows->value(L"seq")});
                }
                committing = true;
                transaction.commit();
            } catch (const vexception&) {
                failed = true;
            }
            fired = fault.fired();
            fault.failAt = -1;
            const std::string left = one(L"select group_concat(id order by id) from t");
            // Where COMMIT fails, it may be that its answer alone was lost.
            EXPECT_TRUE((committing && left == "1,2,3") || (failed && left == "NULL")) << left;
            failures += failed ? 1 : 0;
        }
        EXPECT_GT(failures, 0) << function;
    }
}

TEST_F(MySQLConnectionTest, LockedTablesAreForOneConnection) {
    other->execute(L"set session lock_wait_timeout = 0");
    {
        const VDatabase::TableLock lock(*database, {{L"t", VDatabase::Lock::Write}});
        database->execute(L"insert into t values (1)");
        statementError(1205, [this] { ids(); });
        EXPECT_THROW(database->beginTrans(), vexception);
        EXPECT_THROW(database->lockTables({{L"t", VDatabase::Lock::Read}}), vexception);
    }
    EXPECT_EQ(ids(), "1");
    const VDatabase::Transaction transaction(*database);
    EXPECT_THROW(VDatabase::TableLock(*database, {{L"t", VDatabase::Lock::Read}}), vexception);
    EXPECT_EQ(database->transLevel(), 1);
}
