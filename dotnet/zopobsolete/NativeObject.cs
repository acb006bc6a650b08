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
        GCHandle owner; // weak: a dropped object is collected though native code knows of it

        internal delegate IntPtr Create(IntPtr context, out IntPtr error);

        internal NativeObject(object owner, Create create, Action<IntPtr> free) : base(IntPtr.Zero, true)
        {
            this.free = free;
            Native.CheckVersion();
            this.owner = GCHandle.Alloc(owner, GCHandleType.Weak);
            handle = create(GCHandle.ToIntPtr(this.owner), out IntPtr error);
            NativeResult.Check(error);
        }

        // Of an object without callbacks.
        internal NativeObject(IntPtr native, Action<IntPtr> free) : base(IntPtr.Zero, true)
        {
            this.free = free;
            handle = native;
        }

        public override bool IsInvalid => false; // there is always a context to free

        protected override bool ReleaseHandle()
        {
            if (handle != IntPtr.Zero)
            {
                free(handle);
            }
            if (owner.IsAllocated)
            {
                owner.Free();
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
