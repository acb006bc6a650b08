using System;

namespace zopobsolete
{
    // What holds for every way into zopnative.dll.
    internal static class Native
    {
        const uint InterfaceVersion = 0x00010001; // ZOP_INTERFACE_VERSION of the functions that are used
        static bool fits;

        // Before the first call of a function that another version may not have, or have otherwise.
        internal static void CheckVersion()
        {
            if (fits)
            {
                return;
            }
            uint version = NativeMethods.zop_interface_version();
            if (version >> 16 != InterfaceVersion >> 16 || version < InterfaceVersion)
            {
                throw new Exception(
                    "zopnative.dll has interface " + (version >> 16) + "." + (version & 0xFFFF) + ", this assembly needs " +
                    (InterfaceVersion >> 16) + "." + (InterfaceVersion & 0xFFFF) + ". Install both from one package.");
            }
            fits = true;
        }

        // The text, which ends at its first zero there: one with more behind it would be another text.
        internal static string Whole(string text, string name)
        {
            if (text != null && text.IndexOf('\0') >= 0)
            {
                throw new ArgumentException("There is a zero character in the text.", name);
            }
            return text;
        }
    }
}
