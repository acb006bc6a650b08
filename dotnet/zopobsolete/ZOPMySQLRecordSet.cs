using System;

namespace zopobsolete
{
    /// <summary>
    /// The rows of a query, from the first to the last, read from the server as they are asked for. They stay readable when
    /// the database object has gone. One thread at a time, which is also that of the database.
    /// </summary>
    public class ZOPMySQLRecordSet : IDisposable
    {
        readonly NativeObject native;

        internal ZOPMySQLRecordSet(IntPtr rows)
        {
            native = new NativeObject(rows, NativeMethods.zop_record_set_free);
        }

        /// <summary>The names of the columns, in order.</summary>
        public string[] columns => native.List(NativeMethods.zop_record_set_columns);

        /// <summary>A column of this row by its name, in any letter case; null for NULL.</summary>
        public string this[string column]
        {
            get
            {
                NativeMethods.zop_record_set_text(native, Native.Whole(column, "column"), out IntPtr text, out IntPtr error);
                return NativeResult.Text(text, error);
            }
        }

        /// <summary>A column of this row by its place, from 0; null for NULL.</summary>
        public string this[int column]
        {
            get
            {
                if (column < 0)
                {
                    throw new ArgumentOutOfRangeException("column");
                }
                NativeMethods.zop_record_set_text_at(native, (UIntPtr)column, out IntPtr text, out IntPtr error);
                return NativeResult.Text(text, error);
            }
        }

        /// <summary>Goes to the next row, at first to the first one.</summary>
        /// <returns>False when there is none.</returns>
        public bool next()
        {
            return native.Get<int>(NativeMethods.zop_record_set_next) != 0;
        }

        /// <summary>Gives back what the rows hold.</summary>
        public void Dispose()
        {
            native.Dispose();
        }
    }
}
