using System;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    // What native functions give, on its way to managed types. Each frees what it is given.
    internal static class NativeResult
    {
        const int Database = 2, NullArgument = 3;

        // Throws the error where there is one. cause is what a listener threw meanwhile, if anything.
        internal static void Check(IntPtr error, Exception cause = null)
        {
            if (error == IntPtr.Zero)
            {
                return;
            }
            string text;
            int kind;
            try
            {
                text = Marshal.PtrToStringUni(NativeMethods.zop_error_text(error));
                kind = NativeMethods.zop_error_kind(error);
            }
            finally
            {
                NativeMethods.zop_error_free(error);
            }
            if (kind == NullArgument)
            {
                throw new ArgumentNullException(text);
            }
            throw kind == Database ? new ZOPDatabaseException(text, cause) : new Exception(text, cause);
        }

        // Null for none.
        internal static string Text(IntPtr text, IntPtr error)
        {
            Check(error);
            if (text == IntPtr.Zero)
            {
                return null;
            }
            try
            {
                return Marshal.PtrToStringUni(
                    NativeMethods.zop_text_data(text), checked((int)NativeMethods.zop_text_length(text)));
            }
            finally
            {
                NativeMethods.zop_text_free(text);
            }
        }

        internal static string[] List(IntPtr list, IntPtr error)
        {
            Check(error);
            try
            {
                var texts = new string[checked((int)NativeMethods.zop_list_count(list))];
                for (int i = 0; i < texts.Length; ++i)
                {
                    texts[i] = Marshal.PtrToStringUni(NativeMethods.zop_list_at(list, (UIntPtr)i));
                }
                return texts;
            }
            finally
            {
                NativeMethods.zop_list_free(list);
            }
        }
    }
}
