using System;
using System.Collections;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    /// <summary>
    /// Moves the directory of virtual hosts, which holds all hosted sites, to a new place, and brings everything that names it
    /// into line: FTP, homes of users, permissions, IIS sites, document roots, ASP.NET, PHP and webmail settings, the
    /// installer's registry values, and the configuration value "HTTPD_VHOSTS_D".
    /// </summary>
    /// <remarks>
    /// After a <see cref="Change(string)"/> that threw, cancelled or not, <see cref="Rollback"/> puts everything back that had
    /// been changed. One thread at a time; listeners run on the calling thread. Every failure is a
    /// <see cref="System.Exception"/> with the whole text; what a listener throws fails the operation, and is its inner
    /// exception.
    /// </remarks>
    /// <example><code>
    /// using (var location = new VirtualHostsLocation())
    /// {
    ///     try { location.Change(@"D:\vhosts"); location.Commit(); }
    ///     catch { location.Rollback(); throw; }
    /// }
    /// </code></example>
    public class VirtualHostsLocation : IDisposable
    {
        static readonly NativeMethods.VHostsLocationCost onCost = OnCost;
        static readonly NativeMethods.VHostsLocationName onName = OnName;
        static readonly NativeMethods.SubProgress onSubStart = OnSubStart;
        static readonly NativeMethods.SubProgress onSubEnd = OnSubEnd;
        static readonly NativeMethods.Message onError = OnError;
        static readonly NativeMethods.ErrorMessage onIgnorableError = OnIgnorableError;

        readonly NativeObject native;
        readonly Listener listener = new Listener();

        /// <summary>Makes one that carries over streams of all kinds.</summary>
        public VirtualHostsLocation() : this(0)
        {
        }

        /// <summary>Makes one that carries over streams of these kinds.</summary>
        public VirtualHostsLocation(StreamType type) : this(type, false)
        {
        }

        /// <summary>Makes one that carries over streams of these kinds and, if so told, the owner of each item.</summary>
        public VirtualHostsLocation(StreamType type, bool copyOwner)
        {
            native = new NativeObject(
                this, listener,
                (IntPtr context, out IntPtr error) =>
                {
                    var events = new NativeMethods.VHostsLocationEvents
                    {
                        Size = (UIntPtr)Marshal.SizeOf(typeof(NativeMethods.VHostsLocationEvents)),
                        Context = context,
                        Cost = onCost,
                        Name = onName,
                        SubStart = onSubStart,
                        SubEnd = onSubEnd,
                        Error = onError,
                        IgnorableError = onIgnorableError,
                    };
                    return NativeMethods.zop_vhosts_location_create((int)type, copyOwner ? 1 : 0, ref events, out error);
                },
                NativeMethods.zop_vhosts_location_free);
        }

        /// <summary>Releases the native object.</summary>
        ~VirtualHostsLocation()
        {
            Dispose(false);
        }

        /// <summary>An amount of work lies ahead.</summary>
        public event ProgressCostDelegate ProgressEvent_Cost;

        /// <summary>A step or an item is worked on.</summary>
        public event ProgressNameDelegate ProgressEvent_Name;

        /// <summary>The home of one user is worked on from here on.</summary>
        public event SubProgressStartDelegate SubProgressEvent_Start;

        /// <summary>The work on the home of one user has ended.</summary>
        public event SubProgressEndDelegate SubProgressEvent_End;

        /// <summary>Something went wrong that does not fail the operation.</summary>
        public event MsgErrorDelegate ErrorEvent;

        /// <summary>An item failed. Without a listener that ignores it, the operation fails.</summary>
        public event IgnorebleErrorDelegate IgnorebleErrorEvent;

        /// <summary>The kinds of stream that a copy carries over. None is stored as all seven.</summary>
        public StreamType CopyStreams
        {
            get => (StreamType)native.Get<int>(NativeMethods.zop_vhosts_location_get_copy_streams);
            set => native.Call(
                (NativeObject location, out IntPtr error) =>
                    NativeMethods.zop_vhosts_location_set_copy_streams(location, (int)value, out error));
        }

        /// <summary>
        /// The names of the items that could not be moved, in the order of failure: a new list of strings. Empty when the last
        /// Change was cancelled.
        /// </summary>
        public ArrayList Failed => new ArrayList(native.List(NativeMethods.zop_vhosts_location_failed));

        /// <summary>Whether the last Change was cancelled.</summary>
        public bool Canceled { get; private set; }

        /// <summary>What the last Commit or Rollback left in place.</summary>
        public string[] LeftBehind => native.List(NativeMethods.zop_vhosts_location_left_behind);

        /// <summary>What the system will remove or move at its next restart.</summary>
        public string[] PendingRestart => native.List(NativeMethods.zop_vhosts_location_pending_restart);

        /// <summary>Moves the directory from its configured place.</summary>
        /// <returns>False. A Change that a listener cancels throws.</returns>
        /// <exception cref="System.Exception">It failed or was cancelled; call <see cref="Rollback"/>.</exception>
        public bool Change(string dest)
        {
            return ChangeFrom(null, dest);
        }

        /// <summary>Moves the directory from source.</summary>
        /// <returns>False. A Change that a listener cancels throws.</returns>
        /// <exception cref="System.Exception">It failed or was cancelled; call <see cref="Rollback"/>.</exception>
        public bool Change(string source, string dest)
        {
            if (source == null)
            {
                throw new ArgumentNullException("source");
            }
            return ChangeFrom(source, dest);
        }

        /// <summary>Deletes the old copies.</summary>
        /// <returns>Whether a part of it was cancelled, which is never so.</returns>
        public bool Commit()
        {
            native.Call(NativeMethods.zop_vhosts_location_commit);
            return false;
        }

        /// <summary>Undoes the Change, also one that threw, as far as it had come.</summary>
        /// <returns>Whether a part of it was cancelled, which is never so.</returns>
        public bool Rollback()
        {
            native.Call(NativeMethods.zop_vhosts_location_rollback);
            return false;
        }

        /// <summary>Raises the event.</summary>
        /// <returns>Whether a listener cancels.</returns>
        public bool Fire_ProgressEvent_Cost(long cost) => ProgressEvent_Cost?.Invoke(cost) ?? false;

        /// <summary>Raises the event.</summary>
        /// <returns>Whether a listener cancels.</returns>
        public bool Fire_ProgressEvent_Name(string name, long val, int completeCount, long itemSize) =>
            ProgressEvent_Name?.Invoke(name, val, completeCount, itemSize) ?? false;

        /// <summary>Raises the event.</summary>
        /// <returns>Whether a listener cancels.</returns>
        public bool Fire_SubProgressEvent_Start() => SubProgressEvent_Start?.Invoke() ?? false;

        /// <summary>Raises the event.</summary>
        /// <returns>Whether a listener cancels.</returns>
        public bool Fire_SubProgressEvent_End() => SubProgressEvent_End?.Invoke() ?? false;

        /// <summary>Raises the event.</summary>
        public void Fire_ErrorEvent(string msg) => ErrorEvent?.Invoke(msg);

        /// <summary>Raises the event.</summary>
        public void Fire_IgnorebleErrorEvent(BackupCopyErrorEvent ee) => IgnorebleErrorEvent?.Invoke(ee);

        /// <summary>Releases the native object; a move is neither committed nor rolled back.</summary>
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

        bool ChangeFrom(string source, string dest)
        {
            native.Call((NativeObject location, out IntPtr error) =>
            {
                int done = NativeMethods.zop_vhosts_location_change(
                    location, Native.Whole(source, "source"), Native.Whole(dest, "dest"), out int cancelled, out error);
                Canceled = cancelled != 0;
                return done;
            });
            return false;
        }

        static int OnCost(IntPtr context, long cost, IntPtr call)
        {
            var self = NativeObject.Owner<VirtualHostsLocation>(context);
            return self.listener.Run(call, () => self.Fire_ProgressEvent_Cost(cost));
        }

        static int OnName(IntPtr context, IntPtr name, long val, int completeCount, long itemSize, IntPtr call)
        {
            var self = NativeObject.Owner<VirtualHostsLocation>(context);
            if (self.ProgressEvent_Name == null)
            {
                return 0;
            }
            return self.listener.Run(
                call, () => self.Fire_ProgressEvent_Name(Marshal.PtrToStringUni(name), val, completeCount, itemSize));
        }

        static int OnSubStart(IntPtr context, IntPtr call)
        {
            var self = NativeObject.Owner<VirtualHostsLocation>(context);
            return self.listener.Run(call, self.Fire_SubProgressEvent_Start);
        }

        static int OnSubEnd(IntPtr context, IntPtr call)
        {
            var self = NativeObject.Owner<VirtualHostsLocation>(context);
            return self.listener.Run(call, self.Fire_SubProgressEvent_End);
        }

        static void OnError(IntPtr context, IntPtr message, IntPtr call)
        {
            var self = NativeObject.Owner<VirtualHostsLocation>(context);
            self.listener.Run(call, () => self.Fire_ErrorEvent(Marshal.PtrToStringUni(message)));
        }

        static int OnIgnorableError(IntPtr context, IntPtr message, int ignore, IntPtr call)
        {
            var self = NativeObject.Owner<VirtualHostsLocation>(context);
            return self.listener.Run(call, () =>
            {
                var error = new BackupCopyErrorEvent(Marshal.PtrToStringUni(message), ignore != 0);
                self.Fire_IgnorebleErrorEvent(error);
                return error.ignore;
            });
        }
    }
}
