using System.Reflection;
using System.Runtime.CompilerServices;
using System.Runtime.InteropServices;

[assembly: AssemblyTitle("zopobsolete")]
[assembly: AssemblyDescription("Server-side support library of the hosting panel")]
[assembly: ComVisible(false)]
[assembly: DisablePrivateReflection]
