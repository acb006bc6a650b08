using System;

namespace zopobsolete
{
    // Runs the listeners of an object from inside a native call. What one of them throws must not pass
    // native frames: it is kept here and reported there, fails the operation, and comes out of the
    // public method as the inner exception.
    internal sealed class Listener
    {
        Exception thrown;

        internal int Run(IntPtr call, Func<bool> raise)
        {
            try
            {
                return raise() ? 1 : 0;
            }
            catch (Exception e)
            {
                thrown = e;
                NativeMethods.zop_call_fail(call, e.Message);
                return 1;
            }
        }

        internal void Run(IntPtr call, Action raise)
        {
            Run(call, () =>
            {
                raise();
                return false;
            });
        }

        // After the native call.
        internal void Check(IntPtr error)
        {
            Exception cause = thrown;
            thrown = null;
            NativeResult.Check(error, cause);
        }
    }
}
