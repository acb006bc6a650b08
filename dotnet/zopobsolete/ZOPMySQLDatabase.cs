using System;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    /// <summary>A MySQL or MariaDB database: statements, rows, transactions, table locks.</summary>
    /// <remarks>
    /// Values go into a statement through its placeholders and nowhere else: each ? stands for the next one. A value is null,
    /// a string or a whole number. One thread at a time, for the object and its record sets together. Every failure is a
    /// <see cref="ZOPDatabaseException"/> with the whole text.
    /// </remarks>
    /// <example><code>
    /// using (var panel = new ZOPMySQLDatabase())
    /// using (ZOPMySQLRecordSet rows = panel.query("select home from sys_users where login = ?", login))
    /// {
    ///     while (rows.next()) Console.WriteLine(rows["home"]);
    /// }
    /// </code></example>
    public class ZOPMySQLDatabase : IDisposable
    {
        static readonly NativeMethods.DatabaseCallback onProgress = OnProgress;

        readonly NativeObject native;
        readonly Listener listener = new Listener();

        /// <summary>Connects to the panel's database.</summary>
        public ZOPMySQLDatabase() : this(ZOPDatabaseParameters.fromConfiguration())
        {
        }

        /// <summary>Connects to the database that the parameters name.</summary>
        public ZOPMySQLDatabase(ZOPDatabaseParameters parameters)
        {
            if (parameters == null)
            {
                throw new ArgumentNullException("parameters");
            }
            IntPtr database = parameters.Open(out IntPtr error);
            NativeResult.Check(error);
            native = new NativeObject(database, NativeMethods.zop_database_free);
        }

        /// <summary>An export or import goes on.</summary>
        public event DatabaseProgressDelegate progressEvent;

        /// <summary>How many transactions are open, one in the other.</summary>
        public int transLevel => native.Get<int>(NativeMethods.zop_database_trans_level);

        /// <summary>The identifier that the last execute made in an AUTO_INCREMENT column; 0: none.</summary>
        public ulong lastInsertId => native.Get<ulong>(NativeMethods.zop_database_last_insert_id);

        /// <summary>Runs a statement that gives rows.</summary>
        public ZOPMySQLRecordSet query(string sql, params object[] values)
        {
            IntPtr rows = IntPtr.Zero, error = IntPtr.Zero;
            With(values, native => rows = NativeMethods.zop_database_query(
                this.native, Native.Whole(sql, "sql"), native, (UIntPtr)native.Length, out error));
            NativeResult.Check(error);
            return new ZOPMySQLRecordSet(rows);
        }

        /// <summary>Runs a statement that gives no rows.</summary>
        /// <returns>The number of rows that it found: of an UPDATE also those that had the new values already.</returns>
        public ulong execute(string sql, params object[] values)
        {
            ulong rows = 0;
            IntPtr error = IntPtr.Zero;
            With(values, native => NativeMethods.zop_database_execute(
                this.native, Native.Whole(sql, "sql"), native, (UIntPtr)native.Length, out rows, out error));
            NativeResult.Check(error);
            return rows;
        }

        /// <summary>The text as it may stand between single quotes in a statement to this server, now.</summary>
        public string escape(string text)
        {
            return NativeResult.Text(
                NativeMethods.zop_database_escape(native, text, (UIntPtr)(text ?? "").Length, out IntPtr error), error);
        }

        /// <summary>Begins a transaction, or one inside it.</summary>
        public void beginTrans()
        {
            native.Call(NativeMethods.zop_database_begin_trans);
        }

        /// <summary>Ends a transaction; the outermost takes effect, or fails where one inside was rolled back.</summary>
        public void commitTrans()
        {
            native.Call(NativeMethods.zop_database_commit_trans);
        }

        /// <summary>Ends a transaction; the outermost will not take effect.</summary>
        public void rollbackTrans()
        {
            native.Call(NativeMethods.zop_database_rollback_trans);
        }

        /// <summary>Locks tables for this connection, which then can use no others.</summary>
        /// <param name="write">Nobody else may use them; otherwise nobody may change them.</param>
        /// <param name="tables">Their names.</param>
        public void lockTables(bool write, params string[] tables)
        {
            if (tables == null)
            {
                throw new ArgumentNullException("tables");
            }
            Array.ForEach(tables, table => Native.Whole(table, "tables"));
            var kinds = new int[tables.Length];
            for (int i = 0; i < kinds.Length; ++i)
            {
                kinds[i] = write ? 1 : 0;
            }
            native.Call((NativeObject database, out IntPtr error) => NativeMethods.zop_database_lock_tables(
                database, tables, kinds, (UIntPtr)tables.Length, out error));
        }

        /// <summary>Gives all locked tables back.</summary>
        public void unlockTables()
        {
            native.Call(NativeMethods.zop_database_unlock_tables);
        }

        /// <summary>Writes all tables into one file, which only System and Administrators may read.</summary>
        /// <returns>False when a listener cancelled; then, and after a failure, the file is as it was.</returns>
        public bool exportTo(string file)
        {
            return Transfer(NativeMethods.zop_database_export, file);
        }

        /// <summary>Makes the database what an exported file says: tables are replaced, others removed.</summary>
        /// <returns>False when a listener cancelled; then, and after a failure, the database is as it was.</returns>
        public bool importFrom(string file)
        {
            return Transfer(NativeMethods.zop_database_import, file);
        }

        /// <summary>Releases the connection and rolls back a transaction that is open. Record sets live on.</summary>
        public void Dispose()
        {
            native.Dispose();
        }

        delegate int Transferring(
            NativeObject database, string file, NativeMethods.DatabaseCallback callback, IntPtr context, out int completed,
            out IntPtr error);

        bool Transfer(Transferring run, string file)
        {
            GCHandle self = GCHandle.Alloc(this);
            try
            {
                run(native, Native.Whole(file, "file"), onProgress, GCHandle.ToIntPtr(self), out int completed, out IntPtr error);
                listener.Check(error);
                return completed != 0;
            }
            finally
            {
                self.Free();
            }
        }

        static int OnProgress(IntPtr context, ref NativeMethods.DatabaseProgress progress, IntPtr call)
        {
            var self = NativeObject.Owner<ZOPMySQLDatabase>(context);
            DatabaseProgressDelegate listeners = self.progressEvent;
            if (listeners == null)
            {
                return 0;
            }
            NativeMethods.DatabaseProgress now = progress;
            return self.listener.Run(call, () =>
            {
                bool cancel = false;
                listeners(new DatabaseProgress(now, Marshal.PtrToStringUni(now.Table)), ref cancel);
                return cancel;
            });
        }

        // Runs the call with the values in native form, which is wiped afterwards.
        static void With(object[] values, Action<NativeMethods.Value[]> call)
        {
            var result = new NativeMethods.Value[(values ?? new object[] { null }).Length];
            try
            {
                for (int i = 0; i < result.Length; ++i)
                {
                    result[i] = ToNative(values?[i]);
                }
                call(result);
            }
            finally
            {
                foreach (NativeMethods.Value value in result)
                {
                    Marshal.ZeroFreeGlobalAllocUnicode(value.Text);
                }
            }
        }

        static NativeMethods.Value ToNative(object value)
        {
            if (value == null)
            {
                return new NativeMethods.Value { Kind = 0 };
            }
            if (value is string text)
            {
                return new NativeMethods.Value { Kind = 1, Text = Marshal.StringToHGlobalUni(text), Length = (UIntPtr)text.Length };
            }
            if (value is ulong number)
            {
                return new NativeMethods.Value { Kind = 3, Number = unchecked((long)number) };
            }
            if (value is long || value is int || value is uint || value is short || value is ushort || value is byte || value is sbyte)
            {
                return new NativeMethods.Value { Kind = 2, Number = Convert.ToInt64(value) };
            }
            throw new ArgumentException("A value is null, a string or a whole number, not a " + value.GetType(), "values");
        }
    }
}
