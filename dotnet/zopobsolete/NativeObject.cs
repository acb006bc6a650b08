using System;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    // A native object and what its callbacks know of the managed one. The runtime holds it through
    // every native call that is given it, so it is never freed under a running operation, and frees it
    // in the end if nobody else does.
    internal sealed class NativeObject : SafeHandle
    {
        readonly Action<IntPtr> free;
        readonly Listener listener;
        readonly object owner; // null without callbacks
        GCHandle context;      // weak: a dropped object is collected though native code knows of it

        internal delegate IntPtr Create(IntPtr context, out IntPtr error);
        internal delegate int Operation(NativeObject native, out IntPtr error);
        internal delegate int Getter<T>(NativeObject native, out T value, out IntPtr error);
        internal delegate IntPtr Result(NativeObject native, out IntPtr error);

        internal NativeObject(object owner, Listener listener, Create create, Action<IntPtr> free) : base(IntPtr.Zero, true)
        {
            this.owner = owner;
            this.listener = listener;
            this.free = free;
            Native.CheckVersion();
            context = GCHandle.Alloc(owner, GCHandleType.Weak);
            handle = create(GCHandle.ToIntPtr(context), out IntPtr error);
            NativeResult.Check(error);
        }

        // Of an object without callbacks.
        internal NativeObject(IntPtr native, Action<IntPtr> free) : base(IntPtr.Zero, true)
        {
            this.free = free;
            listener = new Listener();
            handle = native;
        }

        public override bool IsInvalid => false; // there is always a context to free

        // Each calls the function, and throws what it or a listener has to say.
        internal void Call(Operation operation)
        {
            operation(this, out IntPtr error);
            GC.KeepAlive(owner);
            listener.Check(error);
        }

        internal T Get<T>(Getter<T> getter)
        {
            getter(this, out T value, out IntPtr error);
            GC.KeepAlive(owner);
            listener.Check(error);
            return value;
        }

        internal string[] List(Result result)
        {
            return NativeResult.List(result(this, out IntPtr error), error);
        }

        internal string Text(Result result)
        {
            return NativeResult.Text(result(this, out IntPtr error), error);
        }

        protected override bool ReleaseHandle()
        {
            if (handle != IntPtr.Zero)
            {
                free(handle);
            }
            if (context.IsAllocated)
            {
                context.Free();
            }
            return true;
        }

        // The managed object of a callback's context.
        internal static T Owner<T>(IntPtr context) where T : class
        {
            return (T)GCHandle.FromIntPtr(context).Target;
        }
    }
}
