using System;
using System.Runtime.InteropServices;

namespace zopobsolete
{
    // The functions of zopnative.dll (zopnative.h there), as far as they are used here. The last
    // parameter of most is set to the error when they fail.
    internal static class NativeMethods
    {
        const string Library = "zopnative.dll";

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern uint zop_interface_version();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_error_kind(IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_error_text(IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_error_free(IntPtr error);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_text_data(IntPtr text);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern UIntPtr zop_text_length(IntPtr text);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_text_free(IntPtr text);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern UIntPtr zop_list_count(IntPtr list);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_list_at(IntPtr list, UIntPtr index);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_list_free(IntPtr list);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern void zop_call_fail(IntPtr call, string text);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern IntPtr zop_config_get(string name, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_config_set(string name, string value, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_config_get_dword(string name, out uint value, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_config_set_dword(string name, uint value, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_is_vps(out int result, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern IntPtr zop_exec_bin_util(
            string name, [MarshalAs(UnmanagedType.LPArray, ArraySubType = UnmanagedType.LPWStr)] string[] arguments,
            UIntPtr count, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern IntPtr zop_user_name_without_domain(string name, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_user_domain_server_name(out IntPtr error);

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int DataLocationCost(IntPtr context, int count, long cost, IntPtr call);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int DataLocationName(IntPtr context, IntPtr name, int isFile, long cost, IntPtr call);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int ErrorMessage(IntPtr context, IntPtr message, int ignore, IntPtr call);

        [StructLayout(LayoutKind.Sequential)]
        internal struct DataLocationEvents
        {
            internal UIntPtr Size;
            internal IntPtr Context;
            internal DataLocationCost Cost;
            internal DataLocationName Name;
            internal ErrorMessage Error;
        }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_data_location_create(
            int streams, int copyOwner, ref DataLocationEvents events, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_data_location_free(IntPtr location);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_data_location_get_copy_streams(
            NativeObject location, out int streams, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_data_location_set_copy_streams(
            NativeObject location, int streams, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_data_location_change(
            NativeObject location, string source, string dest, out int moved, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_data_location_commit(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_data_location_rollback(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_data_location_failed(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_data_location_left_behind(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_data_location_pending_restart(NativeObject location, out IntPtr error);

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int VHostsLocationCost(IntPtr context, long cost, IntPtr call);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int VHostsLocationName(
            IntPtr context, IntPtr name, long val, int completeCount, long itemSize, IntPtr call);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int SubProgress(IntPtr context, IntPtr call);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void Message(IntPtr context, IntPtr text, IntPtr call);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void PathMessage(IntPtr context, IntPtr path, IntPtr text, IntPtr call);
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void Step(IntPtr context, int number, IntPtr name, IntPtr call);

        [StructLayout(LayoutKind.Sequential)]
        internal struct VHostsLocationEvents
        {
            internal UIntPtr Size;
            internal IntPtr Context;
            internal VHostsLocationCost Cost;
            internal VHostsLocationName Name;
            internal SubProgress SubStart;
            internal SubProgress SubEnd;
            internal Message Error;
            internal ErrorMessage IgnorableError;
            internal Step Step;
        }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_vhosts_location_create(
            int streams, int copyOwner, ref VHostsLocationEvents events, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_vhosts_location_free(IntPtr location);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_vhosts_location_get_copy_streams(
            NativeObject location, out int streams, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_vhosts_location_set_copy_streams(
            NativeObject location, int streams, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_vhosts_location_change(
            NativeObject location, string source, string dest, out int cancelled, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_vhosts_location_commit(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_vhosts_location_rollback(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_vhosts_location_failed(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_vhosts_location_left_behind(NativeObject location, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_vhosts_location_pending_restart(NativeObject location, out IntPtr error);

        [StructLayout(LayoutKind.Sequential)]
        internal struct VHostsSecurityEvents
        {
            internal UIntPtr Size;
            internal IntPtr Context;
            internal Message Progress;
            internal PathMessage SecurityException;
            internal Message Warning;
            internal PathMessage Error;
        }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern IntPtr zop_vhosts_security_create(
            string root, ref VHostsSecurityEvents events, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_vhosts_security_free(IntPtr security);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_vhosts_security_check(
            NativeObject security, int hosting, string user, string parent, int flags, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_vhosts_security_check_frame_forwarding(
            NativeObject security, int flags, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_vhosts_security_inspect(
            NativeObject security, int hosting, string user, string parent, out int whole, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_vhosts_security_repaired_count(
            NativeObject security, out long count, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_vhosts_security_undo_file(NativeObject security, out IntPtr error);

        [StructLayout(LayoutKind.Sequential)]
        internal struct DatabaseParameters
        {
            internal UIntPtr Size;
            internal IntPtr Host;
            internal IntPtr Login;
            internal IntPtr Password;
            internal IntPtr Database;
            internal uint Port;
            internal uint ConnectTimeout;
        }

        [StructLayout(LayoutKind.Sequential)]
        internal struct Value
        {
            internal int Kind;
            internal long Number;
            internal IntPtr Text;
            internal UIntPtr Length;
        }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_database_configuration(out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_database_open(ref DatabaseParameters parameters, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_database_free(IntPtr database);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern IntPtr zop_database_query(
            NativeObject database, string sql, Value[] values, UIntPtr count, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_database_execute(
            NativeObject database, string sql, Value[] values, UIntPtr count, out ulong rows, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern IntPtr zop_database_escape(
            NativeObject database, string text, UIntPtr length, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_database_last_insert_id(NativeObject database, out ulong id, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_database_begin_trans(NativeObject database, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_database_commit_trans(NativeObject database, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_database_rollback_trans(NativeObject database, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_database_trans_level(NativeObject database, out int level, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_database_lock_tables(
            NativeObject database, [MarshalAs(UnmanagedType.LPArray, ArraySubType = UnmanagedType.LPWStr)] string[] tables,
            int[] write, UIntPtr count, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_database_unlock_tables(NativeObject database, out IntPtr error);

        [StructLayout(LayoutKind.Sequential)]
        internal struct DatabaseProgress
        {
            internal UIntPtr Size;
            internal int Step;
            internal uint Tables;
            internal uint TotalTables;
            internal ulong Rows;
            internal ulong TotalRows;
            internal ulong Bytes;
            internal ulong TotalBytes;
            internal IntPtr Table;
        }

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate int DatabaseCallback(IntPtr context, ref DatabaseProgress progress, IntPtr call);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_database_export(
            NativeObject database, string file, DatabaseCallback callback, IntPtr context, out int completed, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_database_import(
            NativeObject database, string file, DatabaseCallback callback, IntPtr context, out int completed, out IntPtr error);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void zop_record_set_free(IntPtr rows);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_record_set_next(NativeObject rows, out int row, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr zop_record_set_columns(NativeObject rows, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl, CharSet = CharSet.Unicode)]
        internal static extern int zop_record_set_text(NativeObject rows, string column, out IntPtr text, out IntPtr error);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int zop_record_set_text_at(NativeObject rows, UIntPtr column, out IntPtr text, out IntPtr error);
    }
}
