namespace zopobsolete
{
    /// <summary>What an export or import of a database does.</summary>
    public enum DatabaseStep
    {
        /// <summary>A file is read and vetted; nothing is changed.</summary>
        Check = 0,
        /// <summary>Tables are written to the file, or filled from it.</summary>
        Rows = 1,
        /// <summary>New tables take the place of the old ones; this can no longer be cancelled.</summary>
        Swap = 2,
    }

    /// <summary>How far an export or import of a database is. A total of 0 is not known.</summary>
    public class DatabaseProgress
    {
        internal DatabaseProgress(NativeMethods.DatabaseProgress native, string table)
        {
            step = (DatabaseStep)native.Step;
            this.table = table;
            tables = native.Tables;
            totalTables = native.TotalTables;
            rows = native.Rows;
            totalRows = native.TotalRows;
            bytes = native.Bytes;
            totalBytes = native.TotalBytes;
        }

        /// <summary>What is done.</summary>
        public DatabaseStep step { get; }

        /// <summary>The table at hand.</summary>
        public string table { get; }

        /// <summary>Tables of this step that are complete.</summary>
        public uint tables { get; }

        /// <summary>All tables.</summary>
        public uint totalTables { get; }

        /// <summary>Rows done.</summary>
        public ulong rows { get; }

        /// <summary>All rows; of an export the server's estimate.</summary>
        public ulong totalRows { get; }

        /// <summary>Bytes of the file done.</summary>
        public ulong bytes { get; }

        /// <summary>All bytes of the file.</summary>
        public ulong totalBytes { get; }
    }

    /// <summary>An export or import goes on. A listener sets cancel to stop it.</summary>
    public delegate void DatabaseProgressDelegate(DatabaseProgress progress, ref bool cancel);
}
