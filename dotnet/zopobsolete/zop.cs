using System;

namespace zopobsolete
{
    /// <summary>
    /// The panel's configuration values, read and written through the configuration service, and what
    /// else the panel's tools ask of the installation.
    /// </summary>
    /// <remarks>
    /// There is one object, without state, for any thread. Every failure is a
    /// <see cref="System.Exception"/> with the whole text, which never holds the value of a string.
    /// </remarks>
    /// <example><code>
    /// zop panel = zop.getInstance();
    /// string vhosts = panel["HTTPD_VHOSTS_D"];
    /// panel.ConfigDWORD["Debug"] = 1;
    /// </code></example>
    public sealed class zop : IDisposable
    {
        static zop instance;

        zop()
        {
            Native.CheckVersion();
        }

        /// <summary>Gives the object, which is made at the first call.</summary>
        public static zop getInstance()
        {
            return instance ?? (instance = new zop());
        }

        /// <summary>Does nothing.</summary>
        public void init()
        {
        }

        /// <summary>Does nothing.</summary>
        public void done()
        {
        }

        /// <summary>The string value of this name. "FTPPassword" is stored encoded, and given and taken plain.</summary>
        public string this[string name]
        {
            get { return NativeResult.Text(NativeMethods.zop_config_get(Native.Whole(name, "name"), out IntPtr error), error); }
            set
            {
                NativeMethods.zop_config_set(Native.Whole(name, "name"), Native.Whole(value, "value"), out IntPtr error);
                NativeResult.Check(error);
            }
        }

        /// <summary>The number values, by name.</summary>
        public ConfigDWORDValues ConfigDWORD { get; } = new ConfigDWORDValues();

        /// <summary>Whether the panel runs in a virtual environment.</summary>
        public bool isVPS
        {
            get
            {
                NativeMethods.zop_is_vps(out int result, out IntPtr error);
                NativeResult.Check(error);
                return result != 0;
            }
        }

        /// <summary>Runs a utility of the panel, from "admin\bin" below its installation root, and waits for its end.</summary>
        /// <param name="name">The file name with ".exe", no path.</param>
        /// <param name="arguments">As the utility is to see them, whatever characters they have.</param>
        /// <returns>What it printed to standard output.</returns>
        /// <exception cref="System.Exception">With what it printed to standard error, when its status is not 0.</exception>
        public string execBinUtil(string name, params string[] arguments)
        {
            if (arguments == null)
            {
                throw new ArgumentNullException("arguments");
            }
            Array.ForEach(arguments, argument => Native.Whole(argument, "arguments"));
            return NativeResult.Text(
                NativeMethods.zop_exec_bin_util(
                    Native.Whole(name, "name"), arguments, (UIntPtr)arguments.Length, out IntPtr error), error);
        }

        /// <summary>"DOMAIN\user" and "user@domain" as "user"; other names as they are.</summary>
        public string getUserNameWithoutDomain(string name)
        {
            return NativeResult.Text(NativeMethods.zop_user_name_without_domain(Native.Whole(name, "name"), out IntPtr error), error);
        }

        /// <summary>A domain controller where the accounts of hostings live in Active Directory, else empty.</summary>
        public string getUserDomainServerName()
        {
            return NativeResult.Text(NativeMethods.zop_user_domain_server_name(out IntPtr error), error);
        }

        /// <summary>There is nothing to release; the object can be used as before.</summary>
        public void Dispose()
        {
        }

        /// <summary>The number values of the configuration, by name.</summary>
        public sealed class ConfigDWORDValues
        {
            internal ConfigDWORDValues()
            {
            }

            /// <summary>The number value of this name.</summary>
            public uint this[string name]
            {
                get
                {
                    NativeMethods.zop_config_get_dword(Native.Whole(name, "name"), out uint value, out IntPtr error);
                    NativeResult.Check(error);
                    return value;
                }
                set
                {
                    NativeMethods.zop_config_set_dword(Native.Whole(name, "name"), value, out IntPtr error);
                    NativeResult.Check(error);
                }
            }
        }
    }
}
