using System;
using System.Globalization;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    /// <summary>Where a database is and who asks for it.</summary>
    public class ZOPDatabaseParameters
    {
        /// <summary>The server: localhost at first.</summary>
        public string host { get; set; } = "localhost";

        /// <summary>Its port: 3306 at first.</summary>
        public int port { get; set; } = 3306;

        /// <summary>The account on the server.</summary>
        public string login { get; set; } = "";

        /// <summary>Its password.</summary>
        public string password { get; set; } = "";

        /// <summary>The database; empty: none is chosen.</summary>
        public string database { get; set; } = "";

        /// <summary>Seconds for all of opening a connection; 0: as configured.</summary>
        public int connectTimeout { get; set; }

        /// <summary>The panel's own database.</summary>
        /// <exception cref="ZOPDatabaseException">The configuration cannot be read.</exception>
        public static ZOPDatabaseParameters fromConfiguration()
        {
            Native.CheckVersion();
            string[] texts = NativeResult.List(NativeMethods.zop_database_configuration(out IntPtr error), error);
            return new ZOPDatabaseParameters
            {
                host = texts[0],
                port = int.Parse(texts[1], CultureInfo.InvariantCulture),
                login = texts[2],
                password = texts[3],
                database = texts[4],
                connectTimeout = int.Parse(texts[5], CultureInfo.InvariantCulture),
            };
        }

        internal IntPtr Open(out IntPtr error)
        {
            Native.CheckVersion();
            if (port < 1 || port > 65535)
            {
                throw new ArgumentOutOfRangeException("port", port, "A port is from 1 to 65535.");
            }
            if (connectTimeout < 0)
            {
                throw new ArgumentOutOfRangeException("connectTimeout", connectTimeout, "A time-out is not negative.");
            }
            var native = new NativeMethods.DatabaseParameters
            {
                Size = (UIntPtr)Marshal.SizeOf(typeof(NativeMethods.DatabaseParameters)),
                Port = (uint)port,
                ConnectTimeout = (uint)connectTimeout,
            };
            try
            {
                native.Host = Marshal.StringToHGlobalUni(Native.Whole(host, "host"));
                native.Login = Marshal.StringToHGlobalUni(Native.Whole(login, "login"));
                native.Password = Marshal.StringToHGlobalUni(Native.Whole(password, "password"));
                native.Database = Marshal.StringToHGlobalUni(Native.Whole(database, "database"));
                return NativeMethods.zop_database_open(ref native, out error);
            }
            finally
            {
                Marshal.FreeHGlobal(native.Host);
                Marshal.FreeHGlobal(native.Login);
                Marshal.ZeroFreeGlobalAllocUnicode(native.Password);
                Marshal.FreeHGlobal(native.Database);
            }
        }
    }
}
