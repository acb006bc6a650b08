using System;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    /// <summary>
    /// Checks and repairs the security of one hosting: the Windows accounts of a domain or of a web user, and the permissions
    /// below its root, a directory below that of the virtual hosts.
    /// </summary>
    /// <remarks>
    /// One thread at a time; listeners run on the calling thread. Every failure is a <see cref="System.Exception"/> with the
    /// whole text; what was done before it stays done.
    /// </remarks>
    public class VHostsSecurity : IDisposable
    {
        /// <summary>What a root is the root of.</summary>
        public enum HostingType
        {
            /// <summary>A domain.</summary>
            Domain = 1,
            /// <summary>A web user under a domain.</summary>
            Webuser = 2,
        }

        /// <summary>How to check.</summary>
        [Flags]
        public enum CheckPermissionsFlags
        {
            /// <summary>Every item is checked and repaired.</summary>
            None = 0,
            /// <summary>Permissions are checked and reported, and stay as they are; accounts are seen to all the same.</summary>
            ReadOnly = 1,
            /// <summary>The items that the template names are checked and repaired, no others.</summary>
            FastCheck = 2,
        }

        /// <summary>An item is looked at.</summary>
        public delegate void ProgressDelegate(string path);

        /// <summary>The permissions of an item are not as they should be.</summary>
        public delegate void SecurityExceptionDelegate(string path, string text);

        /// <summary>An account or a group was missing, and is made.</summary>
        public delegate void WarningDelegate(string text);

        /// <summary>An item could not be looked at or repaired, and is passed over.</summary>
        public delegate void ItemErrorDelegate(string path, string text);

        static readonly NativeMethods.Message onProgress = OnProgress;
        static readonly NativeMethods.PathMessage onSecurityException = OnSecurityException;
        static readonly NativeMethods.Message onWarning = OnWarning;
        static readonly NativeMethods.PathMessage onError = OnError;

        readonly NativeObject native;
        readonly Listener listener = new Listener();

        /// <summary>Prepares the root: a file in its place is removed, and it is made where it is missing.</summary>
        /// <exception cref="System.Exception">The root is not below the directory of virtual hosts.</exception>
        public VHostsSecurity(string root)
        {
            native = new NativeObject(
                this, listener,
                (IntPtr context, out IntPtr error) =>
                {
                    var events = new NativeMethods.VHostsSecurityEvents
                    {
                        Size = (UIntPtr)Marshal.SizeOf(typeof(NativeMethods.VHostsSecurityEvents)),
                        Context = context,
                        Progress = onProgress,
                        SecurityException = onSecurityException,
                        Warning = onWarning,
                        Error = onError,
                    };
                    return NativeMethods.zop_vhosts_security_create(Native.Whole(root, "root"), ref events, out error);
                },
                NativeMethods.zop_vhosts_security_free);
        }

        /// <summary>Releases the native object.</summary>
        ~VHostsSecurity()
        {
            Dispose(false);
        }

        /// <summary>An item is looked at.</summary>
        public event ProgressDelegate Progress;

        /// <summary>The permissions of an item are not as they should be.</summary>
        public event SecurityExceptionDelegate SecurityException;

        /// <summary>An account or a group was missing, and is made.</summary>
        public event WarningDelegate Warning;

        /// <summary>An item could not be looked at or repaired, and is passed over.</summary>
        public event ItemErrorDelegate Error;

        /// <summary>The file in which the last repair kept the permissions that it replaced; empty when it replaced none.</summary>
        public string UndoFile => native.Text(NativeMethods.zop_vhosts_security_undo_file);

        /// <summary>How many items the last check gave other permissions.</summary>
        public long RepairedCount => native.Get<long>(NativeMethods.zop_vhosts_security_repaired_count);

        /// <summary>"web" for Webuser, "domain" for everything else.</summary>
        public static string translateHostingType(HostingType hosting)
        {
            return hosting == HostingType.Webuser ? "web" : "domain";
        }

        /// <summary>Sees to the accounts and groups, which are made where they are missing, then to the permissions.</summary>
        /// <param name="hosting">What the root is the root of.</param>
        /// <param name="user">The hosting's account.</param>
        /// <param name="parent">The domain's account, for a web user; null or empty otherwise.</param>
        /// <param name="flags">How to check; other values count as None.</param>
        public void CheckPermissions(HostingType hosting, string user, string parent, CheckPermissionsFlags flags)
        {
            if (user == null)
            {
                throw new ArgumentNullException("user");
            }
            native.Call((NativeObject security, out IntPtr error) => NativeMethods.zop_vhosts_security_check(
                security, (int)hosting, Native.Whole(user, "user"), Native.Whole(parent, "parent"), (int)flags, out error));
        }

        /// <summary>Sees to the permissions of a domain that only forwards, and so has no account.</summary>
        public void CheckFrameForwardingPermissions(CheckPermissionsFlags flags)
        {
            native.Call(
                (NativeObject security, out IntPtr error) =>
                    NativeMethods.zop_vhosts_security_check_frame_forwarding(security, (int)flags, out error));
        }

        /// <summary>Looks at accounts and permissions and changes nothing at all.</summary>
        /// <returns>False when an account is missing, and the permissions could not be looked at for it.</returns>
        public bool InspectPermissions(HostingType hosting, string user, string parent)
        {
            if (user == null)
            {
                throw new ArgumentNullException("user");
            }
            return native.Get((NativeObject security, out int whole, out IntPtr error) => NativeMethods.zop_vhosts_security_inspect(
                security, (int)hosting, Native.Whole(user, "user"), Native.Whole(parent, "parent"), out whole, out error)) != 0;
        }

        /// <summary>Releases the native object.</summary>
        public void Dispose()
        {
            Dispose(true);
            GC.SuppressFinalize(this);
        }

        /// <summary>Releases the native object.</summary>
        protected virtual void Dispose(bool disposing)
        {
            if (disposing)
            {
                native?.Dispose();
            }
        }

        static void OnProgress(IntPtr context, IntPtr path, IntPtr call)
        {
            var self = NativeObject.Owner<VHostsSecurity>(context);
            if (self.Progress != null)
            {
                self.listener.Run(call, () => self.Progress?.Invoke(Marshal.PtrToStringUni(path)));
            }
        }

        static void OnSecurityException(IntPtr context, IntPtr path, IntPtr text, IntPtr call)
        {
            var self = NativeObject.Owner<VHostsSecurity>(context);
            self.listener.Run(
                call, () => self.SecurityException?.Invoke(Marshal.PtrToStringUni(path), Marshal.PtrToStringUni(text)));
        }

        static void OnWarning(IntPtr context, IntPtr text, IntPtr call)
        {
            var self = NativeObject.Owner<VHostsSecurity>(context);
            self.listener.Run(call, () => self.Warning?.Invoke(Marshal.PtrToStringUni(text)));
        }

        static void OnError(IntPtr context, IntPtr path, IntPtr text, IntPtr call)
        {
            var self = NativeObject.Owner<VHostsSecurity>(context);
            self.listener.Run(call, () => self.Error?.Invoke(Marshal.PtrToStringUni(path), Marshal.PtrToStringUni(text)));
        }
    }
}
