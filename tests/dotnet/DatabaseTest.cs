using System;
using System.IO;
using System.Runtime.CompilerServices;
using zopobsolete;

public sealed class DatabaseTest : IDisposable
{
    readonly ZOPDatabaseParameters parameters = new ZOPDatabaseParameters
    {
        host = Environment.GetEnvironmentVariable("ZOP_TEST_DB_HOST"),
        port = int.Parse(Environment.GetEnvironmentVariable("ZOP_TEST_DB_PORT")),
        login = Environment.GetEnvironmentVariable("ZOP_TEST_DB_USER"),
        password = Environment.GetEnvironmentVariable("ZOP_TEST_DB_PASSWORD"),
        database = "zop_test",
        connectTimeout = 60,
    };
    readonly ZOPMySQLDatabase database;

    public DatabaseTest()
    {
        database = new ZOPMySQLDatabase(parameters);
        database.execute("create or replace table dotnet (id int auto_increment primary key, text longtext, number bigint unsigned)");
    }

    public void Dispose()
    {
        database.execute("drop table dotnet");
        database.Dispose();
    }

    [Test]
    public void ValuesOfEveryKindGoThereAndBack()
    {
        foreach (string text in new[] { "", "C:\\vhosts\\", "'; drop table dotnet; --", "\u65E5 \uD83D\uDE80 \0 zero", null })
        {
            Check.Equal(1UL, database.execute("insert into dotnet (text, number) values (?, ?)", text, ulong.MaxValue));
        }
        Check.Equal(5UL, database.lastInsertId);
        Check.Equal("it\\'s", database.escape("it's"));
        using (ZOPMySQLRecordSet rows = database.query("select id, text, number from dotnet where id > ? order by id", (byte)1))
        {
            Check.Equal("id text number", string.Join(" ", rows.columns));
            Check.True(rows.next());
            Check.Equal("C:\\vhosts\\", rows["TEXT"]);
            Check.True(rows.next() && rows.next());
            Check.Equal("\u65E5 \uD83D\uDE80 \0 zero", rows[1]);
            Check.Equal("18446744073709551615", rows[2]);
            Check.True(rows.next());
            Check.Equal(null, rows["text"]);
            Check.True(!rows.next());
        }
        using (ZOPMySQLRecordSet none = database.query("select id from dotnet where text <=> ? and id < 0", null))
        {
            Check.True(!none.next());
        }
    }

    [Test]
    public void TransactionsLocksAndLivesOfObjects()
    {
        database.beginTrans();
        database.beginTrans();
        Check.Equal(2, database.transLevel);
        database.execute("insert into dotnet (text) values ('gone')");
        database.rollbackTrans();
        Check.Throws<ZOPDatabaseException>(database.commitTrans);
        Check.Equal(0, database.transLevel);
        database.lockTables(true, "dotnet");
        Check.Throws<ZOPDatabaseException>(() => database.query("select * from absent"));
        database.unlockTables();
        ZOPMySQLRecordSet rows;
        using (var other = new ZOPMySQLDatabase(parameters))
        {
            rows = other.query("select count(*) as n from dotnet");
        }
        Check.True(rows.next());
        Check.Equal("0", rows["n"]);
        rows.Dispose();
        Check.Throws<ObjectDisposedException>(() => rows.next());
    }

    [Test]
    public void DroppedRecordSetsAreCollectedWhileTheDatabaseWorks()
    {
        for (int i = 0; i < 100; ++i)
        {
            DropOne();
            GC.Collect(); // the finaliser's thread begins, and we go on
            Check.Equal(1UL, database.execute("insert into dotnet (text) values (?)", i.ToString()));
        }
        using (ZOPMySQLRecordSet rows = database.query("select count(*) from dotnet"))
        {
            Check.True(rows.next());
            Check.Equal("100", rows[0]);
        }
    }

    [MethodImpl(MethodImplOptions.NoInlining)]
    void DropOne()
    {
        Check.True(database.query("select seq from seq_1_to_20000").next());
    }

    [Test]
    public void FailuresAreTheDatabasesOwnException()
    {
        ZOPDatabaseException wrong = Check.Throws<ZOPDatabaseException>(() => database.query("selec 1"));
        Check.True(wrong.Message.Contains("at (zopobsolete::ZOPMySQLDatabase::query line 155)"), wrong.Message);
        Check.Throws<ZOPDatabaseException>(() => database.query("select 1 where 1 = ?"));
        Check.Throws<ArgumentException>(() => database.query("select ?", DateTime.Now));
        Check.Equal("sql", Check.Throws<ArgumentNullException>(() => database.query(null)).ParamName);
        Check.Equal("parameters", Check.Throws<ArgumentNullException>(() => new ZOPMySQLDatabase(null)).ParamName);
        Check.Throws<ArgumentOutOfRangeException>(() => new ZOPMySQLDatabase(new ZOPDatabaseParameters { port = 0 }));
        parameters.password = "wr0ng";
        ZOPDatabaseException refused = Check.Throws<ZOPDatabaseException>(() => new ZOPMySQLDatabase(parameters));
        Check.True(refused.Message.Contains("1045") && !refused.Message.Contains("wr0ng"), refused.Message);
        using (ZOPMySQLRecordSet rows = database.query("select 1 as one"))
        {
            Check.Throws<ZOPDatabaseException>(() => rows["one"].ToString()); // there is no row yet
            rows.next();
            Check.Throws<ZOPDatabaseException>(() => rows["two"].ToString());
            Check.Throws<ZOPDatabaseException>(() => rows[1].ToString());
        }
    }

    [Test]
    public void AnExportComesBackAndACancelledOneLeavesNothing()
    {
        string file = Path.Combine(Path.GetTempPath(), Guid.NewGuid().ToString("N"));
        database.execute("insert into dotnet (text) values ('kept \u65E5')");
        DatabaseProgressDelegate cancels = (DatabaseProgress progress, ref bool cancel) => cancel = true;
        database.progressEvent += cancels;
        Check.True(!database.exportTo(file) && !File.Exists(file));
        database.progressEvent -= cancels;
        DatabaseProgress last = null;
        database.progressEvent += (DatabaseProgress progress, ref bool cancel) => last = progress;
        Check.True(database.exportTo(file));
        Check.True(last.bytes > 0 && last.tables <= last.totalTables, last.tables);
        database.execute("delete from dotnet");
        Check.True(database.importFrom(file));
        using (ZOPMySQLRecordSet rows = database.query("select text from dotnet"))
        {
            Check.True(rows.next());
            Check.Equal("kept \u65E5", rows[0]);
        }
        File.AppendAllText(file, "x");
        Check.Throws<ZOPDatabaseException>(() => database.importFrom(file));
        Check.Equal("file", Check.Throws<ArgumentNullException>(() => database.exportTo(null)).ParamName);
        File.Delete(file);
    }

    [Test]
    public void TheConfigurationNamesThePanelsDatabase()
    {
        ZOPDatabaseParameters configured = ZOPDatabaseParameters.fromConfiguration();
        Check.Equal("localhost 3306 panel", configured.host + " " + configured.port + " " + configured.database);
    }
}
