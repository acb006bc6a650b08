// An import happens whole or not at all, whatever fails, and takes nothing but an export.
#include "runtime/database/database_import.h"

#include "runtime/database/export_reader.h"
#include "runtime/thread_cancelation.h"
#include "tests/runtime/database/transfer_fixture.h"
#include "tests/support/import_patch.h"
#include "tests/support/mutator.h"

#include <winsock2.h>

namespace {

using database::ExportReader;
using database::ExportWriter;

class DatabaseImportTest : public TransferFixture {
protected:
    void SetUp() override {
        TransferFixture::SetUp();
        if (database) {
            makeFamily(*source);
            VDatabaseExport(at(L"zop_test_source")).run(file);
            makeTarget();
        }
    }

    // Another family than the one in the file, and a table that the file does not have.
    void makeTarget() {
        target = makeDatabase(L"zop_test_target");
        makeFamily(*target);
        run(*target, {L"insert into parent (name) values ('to go')", L"delete from child",
                      L"create table third (id int primary key, child int unsigned, constraint "
                      L"third foreign key (child) references child (id)) engine = InnoDB"});
    }
};

// Spoils the n-th statement that is sent, so that the server refuses it.
class StatementSpoiler {
public:
    StatementSpoiler() : patch_("send", &StatementSpoiler::spoil) {
        original = patch_.original<decltype(&::send)>();
    }
    static inline int failAt = -1;
    static inline int sent = 0;

private:
    static int WSAAPI spoil(SOCKET socket, const char* data, int size, int flags) {
        // The head of a packet: length, number, then COM_QUERY.
        if (size > 5 && data[3] == 0 && data[4] == 3 && sent++ == failAt) {
            std::string spoilt(data, static_cast<std::size_t>(size));
            spoilt[5] = ')';
            return original(socket, spoilt.data(), size, flags);
        }
        return original(socket, data, size, flags);
    }
    static inline decltype(&::send) original = nullptr;
    ImportPatch patch_;
};

// The text of an export with these definitions and no rows, sum included.
std::vector<std::uint8_t> exportOf(const std::vector<std::string>& definitions,
                                   const std::string& rows = {}) {
    std::vector<std::uint8_t> bytes;
    ExportWriter writer(
        [&](std::string_view text) { bytes.insert(bytes.end(), text.begin(), text.end()); });
    writer.header({"panel", "10.11", "2026-01-31T12:00:00Z"});
    for (const std::string& definition : definitions) {
        writer.table(definition);
    }
    if (!rows.empty()) {
        writer.beginRows("t", "(`a`)");
        writer.beginRow(0);
        writer.value(rows, ExportWriter::Form::Number, "");
        writer.endRow();
        writer.endRows();
    }
    writer.finish();
    return bytes;
}

// Reads a text whole, as an import does before it changes anything; the error, empty for none.
std::string readAll(std::span<const std::uint8_t> bytes) {
    try {
        ExportReader reader([&](std::span<char> to) {
            const std::size_t count = std::min<std::size_t>({to.size(), bytes.size(), 1000});
            std::copy_n(bytes.begin(), count, to.begin());
            bytes = bytes.subspan(count);
            return count;
        });
        using Item = ExportReader::Item;
        for (Item item = reader.next(); item != Item::End; item = reader.next()) {
            if (item == Item::Rows) {
                reader.readRows(nullptr);
            }
        }
    } catch (const ArgumentException& e) {
        return toUtf8(e.message());
    }
    return {};
}

} // namespace

TEST_F(DatabaseImportTest, TheNewTablesStandWhereTheOldOnesStood) {
    VDatabaseImport importer(at(L"zop_test_target"), file);
    const VDatabaseImport::Outlook outlook = importer.outlook();
    EXPECT_EQ(outlook.replaced, (std::vector<std::wstring>{L"child", L"parent"}));
    EXPECT_EQ(outlook.removed, std::vector<std::wstring>{L"third"});
    EXPECT_TRUE(outlook.added.empty());
    const VDatabaseImport::Result result = importer.run();
    EXPECT_TRUE(result.leftBehind.empty());
    EXPECT_EQ(imageOf(*target), imageOf(*source));
    // The references are those of the new tables, and they hold.
    statementError(1452, [this] { target->execute(L"insert into child (parent_id) values (9)"); });
    target->execute(L"delete from parent where id = 2");
    EXPECT_EQ(oneOf(*target, L"select group_concat(id) from child"), "10,11");
    target->execute(L"insert into parent (name) values ('next')");
    EXPECT_EQ(target->lastInsertId(), 50u);
}

TEST_F(DatabaseImportTest, WhicheverStatementFailsTheDatabaseIsAsItWasOrAllNew) {
    const std::string before = imageOf(*target);
    int done = 0;
    int refused = 0;
    const StatementSpoiler spoiler;
    for (bool fired = true; fired;) {
        const int n = done + refused;
        SCOPED_TRACE(n);
        StatementSpoiler::sent = 0;
        StatementSpoiler::failAt = n;
        const std::string error =
            errorOf([this] { EXPECT_EQ(import(file).leftBehind.size(), 0u); });
        fired = StatementSpoiler::sent > n;
        StatementSpoiler::failAt = -1;
        ++(error.empty() ? done : refused);
        ASSERT_EQ(imageOf(*target), error.empty() ? imageOf(*source) : before) << error;
        if (error.empty()) {
            makeTarget();
        }
    }
    EXPECT_GT(refused, 10);
    EXPECT_GT(done, 4) << "what is left to do after the swap is tried once more";
}

TEST_F(DatabaseImportTest, WhereverTheConnectionIsLostTheDatabaseIsAsItWasOrAllNew) {
    const std::string before = imageOf(*target);
    const std::string after = imageOf(*source);
    for (const auto& [function, forGood] : {std::pair("connect", false),
                                            {"send", false},
                                            {"recv", false},
                                            {"send", true},
                                            {"recv", true}}) {
        FaultPoint fault(function, ::GetModuleHandleW(L"libmariadb.dll"));
        fault.code = WSAECONNRESET;
        fault.result = static_cast<std::uintptr_t>(SOCKET_ERROR);
        bool fired = true;
        for (long n = 0; fired; ++n) {
            SCOPED_TRACE(std::string(function) + " " + std::to_string(n));
            fault.calls = 0;
            fault.failOnwards = forGood;
            fault.failAt = n;
            const std::string error = errorOf([this] { import(file); });
            fired = fault.fired();
            fault.failAt = -1;
            fault.failOnwards = false;
            if (forGood) { // what could not be removed is what the next import removes
                VDatabaseImport(at(L"zop_test_target"), file).outlook();
            }
            const std::string image = imageOf(*target);
            if (image != before) {
                if (image != after) { // the swap was done, and foreign keys still have odd names
                    EXPECT_NE(image.find("`zop$import$key$"), std::string::npos);
                    EXPECT_TRUE(forGood) << error;
                    import(file);
                }
                ASSERT_EQ(imageOf(*target), after) << error;
                makeTarget();
            }
        }
    }
}

TEST_F(DatabaseImportTest, ACancelLeavesTheDatabaseAsItWas) {
    const std::string before = imageOf(*target);
    bool asked = true;
    for (int n = 0; asked; ++n) {
        VDatabaseImport importer(at(L"zop_test_target"), file);
        int turn = 0;
        asked = false;
        const Hook canceller =
            importer.progressEvent.hook([&](const DatabaseProgress&, bool& cancel) {
                asked = asked || turn == n;
                cancel = turn++ == n;
            });
        const std::string error = errorOf([&] { importer.run(); });
        EXPECT_EQ(error, asked ? "Canceled!" : "");
        EXPECT_EQ(imageOf(*target) == before, asked);
    }
}

TEST_F(DatabaseImportTest, WhatACrashLeftIsRemovedAndAHalfSwapUndone) {
    const std::string before = imageOf(*target);
    // New tables only, old ones only: broken off before and after the swap.
    for (const wchar_t* left : {L"zop$import$new$1", L"zop$import$old$3", L"zop$import$list"}) {
        target->execute(L"create table " + std::wstring(left) +
                        L" (id int unsigned primary key, foreign key (id) references child (id))");
        VDatabaseImport(at(L"zop_test_target"), file).outlook();
        EXPECT_EQ(imageOf(*target), before);
    }
    // A server that does not rename atomically crashed behind the first half of the statement.
    constexpr const wchar_t* half = L"rename table child to zop$import$old$1, "
                                    L"parent to zop$import$old$2, zop$import$new$1 to child";
    run(*target,
        {L"create table zop$import$list (number int, name varchar(100))",
         L"insert into zop$import$list values (0, 'child'), (1, 'parent'), (2, 'third')",
         L"create table zop$import$new$1 (a int)", L"create table zop$import$new$2 (a int)", half});
    VDatabaseImport(at(L"zop_test_target"), file).outlook();
    EXPECT_EQ(imageOf(*target), before);
    // Without its list nothing is touched.
    run(*target,
        {L"create table zop$import$new$1 (a int)", L"create table zop$import$old$1 (a int)"});
    EXPECT_NE(errorOf([this] { import(file); }).find("no list"), std::string::npos);
    EXPECT_NE(imageOf(*target).find("zop$import$old$1"), std::string::npos);
}

TEST_F(DatabaseImportTest, ADatabaseThatCannotTakeItIsRefusedBeforeAnythingIsChanged) {
    const auto expectRefusal = [this](const char* text) {
        const std::string before = imageOf(*target);
        const std::string error = errorOf([this] { import(file); });
        EXPECT_NE(error.find(text), std::string::npos) << error;
        EXPECT_EQ(imageOf(*target), before);
    };
    VMySQLDatabase other(at(L"zop_test_target"));
    oneOf(other, L"select get_lock(concat('zop$import$', md5(database())), 0)");
    expectRefusal("another import into this database is at work");
    oneOf(other, L"select release_all_locks()");
    // The server takes a statement of 16 MiB, and bytes are written with two digits each.
    run(*source,
        {L"create table large (b longblob)", L"insert into large values (repeat('x', 9000000))"});
    VDatabaseExport(at(L"zop_test_source")).run(file);
    expectRefusal("set max_allowed_packet of the server to 18001");
    source->execute(L"drop table large");
    VDatabaseExport(at(L"zop_test_source")).run(file);
    target->execute(L"create trigger g before insert on third for each row set @x = 1");
    expectRefusal("trigger (g)");
    run(*target,
        {L"drop trigger g", L"set foreign_key_checks = 0", L"drop table third, parent, child"});
    target->execute(L"create view PARENT as select 1");
    expectRefusal("a view or sequence of that name");
    target->execute(L"drop view PARENT");
    run(*source,
        {L"create table elsewhere (id int unsigned)",
         L"create table zop_test_target.here (id int unsigned primary key)",
         L"alter table elsewhere add foreign key (id) references zop_test_target.here (id)"});
    expectRefusal("(zop_test_source.elsewhere) of another database");
    target->execute(L"drop database zop_test_source");
}

TEST_F(DatabaseImportTest, ADamagedFileIsRefusedBeforeAnythingIsChanged) {
    const std::string whole = directory.readFile(L"panel.sql");
    ASSERT_EQ(readAll({reinterpret_cast<const std::uint8_t*>(whole.data()), whole.size()}), "");
    const std::string before = imageOf(*target);
    std::string altered = whole;
    altered.replace(altered.find("'b'"), 3, "'c'");
    for (const std::string& content :
         {std::string(), whole + "\n", whole.substr(0, whole.size() - 1), altered}) {
        directory.writeFile(L"damaged.sql", content);
        EXPECT_NE(errorOf([this] { import(directory / L"damaged.sql"); }).find("no export"),
                  std::string::npos);
    }
    EXPECT_EQ(imageOf(*target), before);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(readAll({reinterpret_cast<const std::uint8_t*>(whole.data()), length}), "");
    }
}

// With a sum that is right: what an attacker would write.
TEST(ExportReaderTest, NothingButTablesAndTheirRowsIsTakenFromAFile) {
    const char* const tail = ") ENGINE=InnoDB DEFAULT CHARSET=utf8mb4";
    EXPECT_EQ(
        readAll(exportOf({std::string("CREATE TABLE `t` (\n `a` int(11) DEFAULT 1") + tail}, "1")),
        "");
    for (const char* item :
         {"`a` int DEFAULT load_file('/etc/passwd')", "`a` int DEFAULT (select 1)", "`a` int) -- ",
          "`a` int AS (sleep(9))", "`a` int /*!50000 , b int */", "LIKE `other`",
          "`a` int) SELECT 1", "`a` int DEFAULT @@hostname", "`a` int; DROP TABLE `x`",
          "`a` int REFERENCES `x` (`y`)", "`a` int DEFAULT \"x\"", "`a` int, KEY `k` (`x`.`a`)",
          "`a` int) UNION=(`x`",
          "`a` int, CONSTRAINT `c` FOREIGN KEY (`a`) REFERENCES `mysql`.`user` (`a`)",
          "`a` int DEFAULT `f`.`g`()", "`a` int DEFAULT nextval(`s`)", ""}) {
        EXPECT_NE(readAll(exportOf({std::string("CREATE TABLE `t` (") + item + tail})), "") << item;
    }
    for (const char* options :
         {"ENGINE=FEDERATED CONNECTION='mysql://x'", "ENGINE=InnoDB DATA DIRECTORY='C:\\\\'",
          "ENGINE=CONNECT", "ENGINE=InnoDB UNION=(`x`)", "ENGINE=InnoDB SELECT 1",
          "ENGINE='InnoDB'",
          "ENGINE=InnoDB PARTITION BY HASH (`a`) (PARTITION `p` DATA DIRECTORY 'x')",
          "ENGINE=InnoDB;DROP TABLE `x`", "ENGINE=InnoDB AS SELECT 1", "IGNORE", "\\"}) {
        EXPECT_NE(readAll(exportOf({std::string("CREATE TABLE `t` (`a` int) ") + options})), "")
            << options;
    }
    for (const char* rows :
         {"1 + 1", "sleep(1)", "(select 1)", "1e", "-", "1)--", "0x41", "@a", "a", "", "'a' 'b'",
          "'a\nb'", "'\\x'", "x'4'", "x'4g'", "_utf8'a'", "NULLIF(1,1)"}) {
        EXPECT_NE(readAll(exportOf({std::string("CREATE TABLE `t` (`a` int") + tail},
                                   *rows ? rows : " ")),
                  "")
            << rows;
    }
    const std::string table = std::string("CREATE TABLE `t` (`b` int") + tail;
    EXPECT_NE(readAll(exportOf({table}, "1")), "") << "no such column";
    EXPECT_NE(readAll(exportOf({table, table})), "") << "twice";
    EXPECT_NE(readAll(exportOf({"DROP TABLE `t`"})), "");
    EXPECT_NE(readAll(exportOf({"CREATE TABLE `" + std::string(300, 'x') + "` (`a` int" + tail})),
              "");
    EXPECT_NE(readAll(exportOf({"CREATE TABLE `t` (`a` int COMMENT '" +
                                std::string(2'000'000, 'x') + "'" + tail})),
              "");
}

TEST(ExportReaderTest, DamagedFilesAreErrorsAndNothingElse) {
    FuzzCorpus corpus = {
        exportOf(
            {"CREATE TABLE `t` (\n  `a` int(11) NOT NULL COMMENT 'it''s \\n;',\n  PRIMARY KEY "
             "(`a`),\n  CONSTRAINT `c` FOREIGN KEY (`a`) REFERENCES `t``2` (`b`, `c`) ON DELETE "
             "SET NULL ON UPDATE NO ACTION\n) ENGINE=InnoDB AUTO_INCREMENT=5 COMMENT='x'"},
            "-1.5e10"),
        exportOf({"CREATE TABLE `t` (`a` enum('x') CHARACTER SET latin1 DEFAULT concat('a',1.5))"},
                 "NULL"),
        exportOf({"CREATE TABLE `t` (`a` blob)"}, "_latin1 x'00FF'"),
        exportOf({"CREATE TABLE `t` (`a` text)"}, "'a\\\\\\0\\''"),
    };
    fuzz(
        corpus,
        [&](std::span<const std::uint8_t> input) {
            // The sum finds every change; a text that is unchanged is none.
            const bool isOne = std::any_of(corpus.begin(), corpus.end(), [&](const auto& each) {
                return std::equal(each.begin(), each.end(), input.begin(), input.end());
            });
            EXPECT_EQ(readAll(input).empty(), isOne);
        },
        10);
}
