using System;
using System.Collections;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    /// <summary>
    /// Moves a data directory to a new place as a transaction: <see cref="Change"/> moves it, then the caller decides to
    /// <see cref="Commit"/> or <see cref="Rollback"/>.
    /// </summary>
    /// <remarks>
    /// One thread at a time; listeners run on the calling thread. Every failure is a
    /// <see cref="System.Exception"/> with the whole text; what a listener throws fails the operation,
    /// and is its inner exception. The directory is the caller's to name: configuration values are
    /// neither read nor changed.
    /// </remarks>
    /// <example><code>
    /// using (var location = new DataLocation())
    /// {
    ///     location.ProgressEvent_Name += (string name, bool isFile, long cost, ref bool cancel) => Console.WriteLine(name);
    ///     if (location.Change(@"C:\panel\data", @"D:\panel\data")) location.Commit(); else location.Rollback();
    /// }
    /// </code></example>
    public class DataLocation : IDisposable
    {
        /// <summary>Work lies ahead: items of a directory, and bytes of their data.</summary>
        public delegate void ProgressCostDelegate(int count, long cost, ref bool cancel);

        /// <summary>An item is worked on; cost is the bytes done before it.</summary>
        public delegate void ProgressNameDelegate(string name, bool isFile, long cost, ref bool cancel);

        static readonly NativeMethods.DataLocationCost onCost = OnCost;
        static readonly NativeMethods.DataLocationName onName = OnName;
        static readonly NativeMethods.ErrorMessage onError = OnError;

        readonly NativeObject native;
        readonly Listener listener = new Listener();

        /// <summary>Makes one that carries over streams of all kinds.</summary>
        public DataLocation() : this(0)
        {
        }

        /// <summary>Makes one that carries over streams of these kinds.</summary>
        public DataLocation(StreamType type) : this(type, false)
        {
        }

        /// <summary>Makes one that carries over streams of these kinds and, if so told, the owner of each item.</summary>
        public DataLocation(StreamType type, bool copyOwner)
        {
            native = new NativeObject(
                this, listener,
                (IntPtr context, out IntPtr error) =>
                {
                    var events = new NativeMethods.DataLocationEvents
                    {
                        Size = (UIntPtr)Marshal.SizeOf(typeof(NativeMethods.DataLocationEvents)),
                        Context = context,
                        Cost = onCost,
                        Name = onName,
                        Error = onError,
                    };
                    return NativeMethods.zop_data_location_create((int)type, copyOwner ? 1 : 0, ref events, out error);
                },
                NativeMethods.zop_data_location_free);
        }

        /// <summary>Releases the native object.</summary>
        ~DataLocation()
        {
            Dispose(false);
        }

        /// <summary>Bytes and items that a walk has come upon. A listener sets cancel to stop the operation.</summary>
        public event ProgressCostDelegate ProgressEvent_Cost;

        /// <summary>The item that is worked on. A listener sets cancel to stop the operation.</summary>
        public event ProgressNameDelegate ProgressEvent_Name;

        /// <summary>An item failed. Without a listener that ignores it, the operation fails.</summary>
        public event ErrorDelegate ErrorEvent;

        /// <summary>The kinds of stream that a copy carries over. None is stored as all seven.</summary>
        public StreamType CopyStreams
        {
            get => (StreamType)native.Get<int>(NativeMethods.zop_data_location_get_copy_streams);
            set => native.Call(
                (NativeObject location, out IntPtr error) =>
                    NativeMethods.zop_data_location_set_copy_streams(location, (int)value, out error));
        }

        /// <summary>The names of the items that could not be moved, in the order of failure: a new list of strings.</summary>
        public ArrayList Failed => new ArrayList(native.List(NativeMethods.zop_data_location_failed));

        /// <summary>What the last Commit or Rollback left in place.</summary>
        public string[] LeftBehind => native.List(NativeMethods.zop_data_location_left_behind);

        /// <summary>What the system will remove or move at its next restart.</summary>
        public string[] PendingRestart => native.List(NativeMethods.zop_data_location_pending_restart);

        /// <summary>Moves the directory.</summary>
        /// <returns>False when a listener cancelled; call <see cref="Rollback"/> then.</returns>
        /// <exception cref="System.Exception">It failed; call <see cref="Rollback"/>.</exception>
        public bool Change(string source, string dest)
        {
            return native.Get(
                (NativeObject location, out int moved, out IntPtr error) => NativeMethods.zop_data_location_change(
                    location, Native.Whole(source, "source"), Native.Whole(dest, "dest"), out moved, out error)) != 0;
        }

        /// <summary>Makes the move final: the old place is removed.</summary>
        public void Commit()
        {
            native.Call(NativeMethods.zop_data_location_commit);
        }

        /// <summary>Undoes the move, as far as it had come.</summary>
        public void Rollback()
        {
            native.Call(NativeMethods.zop_data_location_rollback);
        }

        /// <summary>Releases the native object; an open move is not rolled back.</summary>
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

        static int OnCost(IntPtr context, int count, long cost, IntPtr call)
        {
            var self = NativeObject.Owner<DataLocation>(context);
            return self.listener.Run(call, () =>
            {
                bool cancel = false;
                self.ProgressEvent_Cost?.Invoke(count, cost, ref cancel);
                return cancel;
            });
        }

        static int OnName(IntPtr context, IntPtr name, int isFile, long cost, IntPtr call)
        {
            var self = NativeObject.Owner<DataLocation>(context);
            ProgressNameDelegate listeners = self.ProgressEvent_Name;
            if (listeners == null)
            {
                return 0;
            }
            return self.listener.Run(call, () =>
            {
                bool cancel = false;
                listeners(Marshal.PtrToStringUni(name), isFile != 0, cost, ref cancel);
                return cancel;
            });
        }

        static int OnError(IntPtr context, IntPtr message, int ignore, IntPtr call)
        {
            var self = NativeObject.Owner<DataLocation>(context);
            return self.listener.Run(call, () =>
            {
                var error = new BackupCopyErrorEvent(Marshal.PtrToStringUni(message), ignore != 0);
                self.ErrorEvent?.Invoke(error);
                return error.ignore;
            });
        }
    }
}
