/* The library for other languages than C++: functions with C linkage, opaque handles, UTF-16 texts,
   callbacks with a context. No exception leaves a function. docs/c-interface.md is the guide.

       zop_error* error = NULL;
       zop_text* vhosts = zop_config_get(L"HTTPD_VHOSTS_D", &error);
       if (vhosts == NULL) {
           show(zop_error_text(error));
           zop_error_free(error);
       } else {
           use(zop_text_data(vhosts));
           zop_text_free(vhosts);
       }

   Failure. The last parameter of a function that can fail is a zop_error**, which may be NULL. A
   failing function sets it, and returns 0 or NULL; one that succeeds sets it to NULL. The caller
   frees the error.
   Texts that are given are zero-terminated UTF-16; they are copied, and may not be NULL unless it
   is said. Results belong to the caller, who frees them by the function of their type. Freeing
   NULL does nothing.
   Threads. A handle is used by one thread at a time. Functions without a handle may be called from
   any thread. Callbacks run on the thread that called, inside that call.
   Truth values are int32_t: 0 is false, anything else true.

   A function that is here stays here, with what it takes and gives, in every later version of the
   same first number. */
#ifndef ZOP_NATIVE_H
#define ZOP_NATIVE_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>

#if defined(ZOP_BUILD)
#define ZOP_C_API __declspec(dllexport)
#elif defined(ZOP_SHARED)
#define ZOP_C_API __declspec(dllimport)
#else
#define ZOP_C_API
#endif
#define ZOP_CALL __cdecl

#ifdef __cplusplus
extern "C" {
#endif

/* The version of these functions that this header describes: first number << 16 | second. The first
   changes when something is taken away or changed, the second when something is added. */
#define ZOP_INTERFACE_VERSION 0x00010001

/* The version that the library has. A program works with a library whose first number is the
   header's and whose second is not lower. */
ZOP_C_API uint32_t ZOP_CALL zop_interface_version(void);

/* ---- errors, texts, lists ---- */

typedef struct zop_error zop_error;
enum {
    ZOP_ERROR_GENERAL = 1,
    ZOP_ERROR_DATABASE = 2,     /* of a zop_database or zop_record_set */
    ZOP_ERROR_NULL_ARGUMENT = 3 /* the text is the parameter's name */
};
ZOP_C_API int32_t ZOP_CALL zop_error_kind(const zop_error* error);
/* What failed and why, with a line for each place that the failure passed. Never NULL. */
ZOP_C_API const wchar_t* ZOP_CALL zop_error_text(const zop_error* error);
ZOP_C_API void ZOP_CALL zop_error_free(zop_error* error);

typedef struct zop_text zop_text;
/* Zero-terminated; zeros before the length are the text's own. Valid until the text is freed. */
ZOP_C_API const wchar_t* ZOP_CALL zop_text_data(const zop_text* text);
ZOP_C_API size_t ZOP_CALL zop_text_length(const zop_text* text);
/* Wipes the memory: a text may have been a password. */
ZOP_C_API void ZOP_CALL zop_text_free(zop_text* text);

/* Freed with its memory wiped, as a text is. */
typedef struct zop_list zop_list;
ZOP_C_API size_t ZOP_CALL zop_list_count(const zop_list* list);
/* NULL behind the end; valid until the list is freed. */
ZOP_C_API const wchar_t* ZOP_CALL zop_list_at(const zop_list* list, size_t index);
ZOP_C_API void ZOP_CALL zop_list_free(zop_list* list);

/* ---- callbacks ----
   A callback that fails calls zop_call_fail and returns; the operation then fails with that text.
   call is valid inside the callback only. An exception of its own must not leave a callback.
   A callback may be NULL. */

typedef struct zop_call zop_call;
ZOP_C_API void ZOP_CALL zop_call_fail(zop_call* call, const wchar_t* text);

/* ---- configuration ---- */

/* As zopobsolete::zop in api/zop.h. */
ZOP_C_API zop_text* ZOP_CALL zop_config_get(const wchar_t* name, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_config_set(const wchar_t* name, const wchar_t* value,
                                          zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_config_get_dword(const wchar_t* name, uint32_t* value,
                                                zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_config_set_dword(const wchar_t* name, uint32_t value,
                                                zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_is_vps(int32_t* result, zop_error** error);
/* arguments: count texts. Gives what the utility printed. */
ZOP_C_API zop_text* ZOP_CALL zop_exec_bin_util(const wchar_t* name, const wchar_t* const* arguments,
                                               size_t count, zop_error** error);
ZOP_C_API zop_text* ZOP_CALL zop_user_name_without_domain(const wchar_t* name, zop_error** error);
ZOP_C_API zop_text* ZOP_CALL zop_user_domain_server_name(zop_error** error);

/* Asks the call that this thread runs in the library, or runs next, to end: it fails with
   "Canceled!" at the next point where that is possible. thread is a Windows thread identifier. */
ZOP_C_API int32_t ZOP_CALL zop_cancel_thread(uint32_t thread, zop_error** error);

/* ---- moving the data directory ---- */

enum {
    ZOP_STREAM_DATA = 1,
    ZOP_STREAM_EA_DATA = 2,
    ZOP_STREAM_SECURITY_DATA = 4,
    ZOP_STREAM_ALTERNATE_DATA = 8,
    ZOP_STREAM_PROPERTY_DATA = 16,
    ZOP_STREAM_OBJECT_ID = 32,
    ZOP_STREAM_REPARSE_DATA = 64
};

/* As zopobsolete::DataLocation in api/data_location.h. The callbacks return whether to cancel, the
   last one whether to pass over the failed item. */
typedef struct zop_data_location zop_data_location;
typedef struct zop_data_location_events {
    size_t size; /* of this structure: sizeof(zop_data_location_events) */
    void* context;
    int32_t(ZOP_CALL* progress_cost)(void* context, int32_t count, int64_t cost, zop_call* call);
    int32_t(ZOP_CALL* progress_name)(void* context, const wchar_t* name, int32_t is_file,
                                     int64_t cost, zop_call* call);
    int32_t(ZOP_CALL* error)(void* context, const wchar_t* message, int32_t ignore, zop_call* call);
} zop_data_location_events;

/* streams: the kinds of stream that a copy carries over, see zop_data_location_set_copy_streams.
   copy_owner: gives each copied item the owner of its source. events may be NULL; it is copied. */
ZOP_C_API zop_data_location* ZOP_CALL zop_data_location_create(
    int32_t streams, int32_t copy_owner, const zop_data_location_events* events, zop_error** error);
/* Inside a callback: takes effect when the running operation has ended. */
ZOP_C_API void ZOP_CALL zop_data_location_free(zop_data_location* location);
ZOP_C_API int32_t ZOP_CALL zop_data_location_get_copy_streams(zop_data_location* location,
                                                              int32_t* streams, zop_error** error);
/* ZOP_STREAM_... in one number; 0 stands for all seven. */
ZOP_C_API int32_t ZOP_CALL zop_data_location_set_copy_streams(zop_data_location* location,
                                                              int32_t streams, zop_error** error);
/* moved: 0 when a callback cancelled. */
ZOP_C_API int32_t ZOP_CALL zop_data_location_change(zop_data_location* location,
                                                    const wchar_t* source, const wchar_t* dest,
                                                    int32_t* moved, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_data_location_commit(zop_data_location* location, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_data_location_rollback(zop_data_location* location,
                                                      zop_error** error);
ZOP_C_API zop_list* ZOP_CALL zop_data_location_failed(zop_data_location* location,
                                                      zop_error** error);
ZOP_C_API zop_list* ZOP_CALL zop_data_location_left_behind(zop_data_location* location,
                                                           zop_error** error);
ZOP_C_API zop_list* ZOP_CALL zop_data_location_pending_restart(zop_data_location* location,
                                                               zop_error** error);

/* ---- moving the directory of virtual hosts ---- */

/* As zopobsolete::VirtualHostsLocation in api/virtual_hosts_location.h. The callbacks return
   whether to cancel; ignorable_error returns whether to pass over the failed item. */
typedef struct zop_vhosts_location zop_vhosts_location;
typedef struct zop_vhosts_location_events {
    size_t size; /* of this structure */
    void* context;
    int32_t(ZOP_CALL* progress_cost)(void* context, int64_t cost, zop_call* call);
    int32_t(ZOP_CALL* progress_name)(void* context, const wchar_t* name, int64_t val,
                                     int32_t complete_count, int64_t item_size, zop_call* call);
    int32_t(ZOP_CALL* sub_progress_start)(void* context, zop_call* call);
    int32_t(ZOP_CALL* sub_progress_end)(void* context, zop_call* call);
    void(ZOP_CALL* error)(void* context, const wchar_t* message, zop_call* call);
    int32_t(ZOP_CALL* ignorable_error)(void* context, const wchar_t* message, int32_t ignore,
                                       zop_call* call);
    void(ZOP_CALL* step)(void* context, int32_t number, const wchar_t* name, zop_call* call);
} zop_vhosts_location_events;

/* streams, copy_owner, events: as for zop_data_location_create. */
ZOP_C_API zop_vhosts_location* ZOP_CALL
zop_vhosts_location_create(int32_t streams, int32_t copy_owner,
                           const zop_vhosts_location_events* events, zop_error** error);
/* Inside a callback: takes effect when the running operation has ended. */
ZOP_C_API void ZOP_CALL zop_vhosts_location_free(zop_vhosts_location* location);
ZOP_C_API int32_t ZOP_CALL zop_vhosts_location_get_copy_streams(zop_vhosts_location* location,
                                                                int32_t* streams,
                                                                zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_vhosts_location_set_copy_streams(zop_vhosts_location* location,
                                                                int32_t streams, zop_error** error);
/* source: NULL for the configured place. Fails also when a callback cancels; cancelled, which may
   be NULL, tells that from other failures. */
ZOP_C_API int32_t ZOP_CALL zop_vhosts_location_change(zop_vhosts_location* location,
                                                      const wchar_t* source, const wchar_t* dest,
                                                      int32_t* cancelled, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_vhosts_location_commit(zop_vhosts_location* location,
                                                      zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_vhosts_location_rollback(zop_vhosts_location* location,
                                                        zop_error** error);
ZOP_C_API zop_list* ZOP_CALL zop_vhosts_location_failed(zop_vhosts_location* location,
                                                        zop_error** error);
ZOP_C_API zop_list* ZOP_CALL zop_vhosts_location_left_behind(zop_vhosts_location* location,
                                                             zop_error** error);
ZOP_C_API zop_list* ZOP_CALL zop_vhosts_location_pending_restart(zop_vhosts_location* location,
                                                                 zop_error** error);

/* ---- permissions of a hosting ---- */

/* As zopobsolete::VHostsSecurity in api/vhosts_security.h. */
typedef struct zop_vhosts_security zop_vhosts_security;
typedef struct zop_vhosts_security_events {
    size_t size; /* of this structure */
    void* context;
    void(ZOP_CALL* progress)(void* context, const wchar_t* path, zop_call* call);
    void(ZOP_CALL* security_exception)(void* context, const wchar_t* path, const wchar_t* text,
                                       zop_call* call);
    void(ZOP_CALL* warning)(void* context, const wchar_t* text, zop_call* call);
    void(ZOP_CALL* error)(void* context, const wchar_t* path, const wchar_t* text, zop_call* call);
} zop_vhosts_security_events;

enum { ZOP_HOSTING_DOMAIN = 1, ZOP_HOSTING_WEBUSER = 2 };
enum { ZOP_CHECK_NONE = 0, ZOP_CHECK_READ_ONLY = 1, ZOP_CHECK_FAST = 2 };

ZOP_C_API zop_vhosts_security* ZOP_CALL zop_vhosts_security_create(
    const wchar_t* root, const zop_vhosts_security_events* events, zop_error** error);
/* Inside a callback: takes effect when the running call has ended. */
ZOP_C_API void ZOP_CALL zop_vhosts_security_free(zop_vhosts_security* security);
/* parent may be NULL. */
ZOP_C_API int32_t ZOP_CALL zop_vhosts_security_check(zop_vhosts_security* security, int32_t hosting,
                                                     const wchar_t* user, const wchar_t* parent,
                                                     int32_t flags, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_vhosts_security_check_frame_forwarding(zop_vhosts_security* security,
                                                                      int32_t flags,
                                                                      zop_error** error);
/* Looks and changes nothing; whole, which may be NULL: no account is missing. */
ZOP_C_API int32_t ZOP_CALL zop_vhosts_security_inspect(zop_vhosts_security* security,
                                                       int32_t hosting, const wchar_t* user,
                                                       const wchar_t* parent, int32_t* whole,
                                                       zop_error** error);
/* How many items the last check gave other permissions. */
ZOP_C_API int32_t ZOP_CALL zop_vhosts_security_repaired_count(zop_vhosts_security* security,
                                                              int64_t* count, zop_error** error);
/* The file with what the last repair replaced; empty when it replaced nothing. */
ZOP_C_API zop_text* ZOP_CALL zop_vhosts_security_undo_file(zop_vhosts_security* security,
                                                           zop_error** error);

/* ---- the panel's database ---- */

/* As zopobsolete::ZOPMySQLDatabase and ZOPMySQLRecordSet in api/. Errors are of the kind
   ZOP_ERROR_DATABASE. A database and its record sets are used by one thread at a time, together;
   another may free those that nobody uses any more. */
typedef struct zop_database zop_database;
typedef struct zop_record_set zop_record_set;

typedef struct zop_database_parameters {
    size_t size;              /* of this structure */
    const wchar_t* host;      /* NULL: localhost */
    const wchar_t* login;     /* NULL: none */
    const wchar_t* password;  /* NULL: none */
    const wchar_t* database;  /* NULL: none is chosen */
    uint32_t port;            /* 0: 3306 */
    uint32_t connect_timeout; /* seconds; 0: as configured */
} zop_database_parameters;

enum { ZOP_VALUE_NULL = 0, ZOP_VALUE_TEXT = 1, ZOP_VALUE_SIGNED = 2, ZOP_VALUE_UNSIGNED = 3 };
/* What stands for a placeholder of a statement. */
typedef struct zop_value {
    int32_t kind;
    int64_t number;      /* of the two kinds of number; an unsigned one by its bits */
    const wchar_t* text; /* of a text, which may hold zeros */
    size_t length;
} zop_value;

/* Six texts: host, port, login, password, database, connect time-out in seconds, as the
   configuration has them for the panel's own database. */
ZOP_C_API zop_list* ZOP_CALL zop_database_configuration(zop_error** error);
/* Connects; to the panel's own database where parameters is NULL. */
ZOP_C_API zop_database* ZOP_CALL zop_database_open(const zop_database_parameters* parameters,
                                                   zop_error** error);
/* Rolls back a transaction that is open. Record sets live on. */
ZOP_C_API void ZOP_CALL zop_database_free(zop_database* database);
ZOP_C_API zop_record_set* ZOP_CALL zop_database_query(zop_database* database, const wchar_t* sql,
                                                      const zop_value* values, size_t count,
                                                      zop_error** error);
/* rows: those that the statement found; may be NULL. */
ZOP_C_API int32_t ZOP_CALL zop_database_execute(zop_database* database, const wchar_t* sql,
                                                const zop_value* values, size_t count,
                                                uint64_t* rows, zop_error** error);
ZOP_C_API zop_text* ZOP_CALL zop_database_escape(zop_database* database, const wchar_t* text,
                                                 size_t length, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_database_last_insert_id(zop_database* database, uint64_t* id,
                                                       zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_database_begin_trans(zop_database* database, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_database_commit_trans(zop_database* database, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_database_rollback_trans(zop_database* database, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_database_trans_level(zop_database* database, int32_t* level,
                                                    zop_error** error);
/* Names of count tables, and for each whether it is locked for writing. */
ZOP_C_API int32_t ZOP_CALL zop_database_lock_tables(zop_database* database,
                                                    const wchar_t* const* tables,
                                                    const int32_t* write, size_t count,
                                                    zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_database_unlock_tables(zop_database* database, zop_error** error);

enum { ZOP_DATABASE_STEP_CHECK = 0, ZOP_DATABASE_STEP_ROWS = 1, ZOP_DATABASE_STEP_SWAP = 2 };
/* How far an export or import is; a total of 0 is not known. */
typedef struct zop_database_progress {
    size_t size; /* of this structure, as the library has it */
    int32_t step;
    uint32_t tables; /* of this step, complete */
    uint32_t total_tables;
    uint64_t rows;
    uint64_t total_rows;
    uint64_t bytes; /* of the file */
    uint64_t total_bytes;
    const wchar_t* table; /* the one at hand; valid inside the callback */
} zop_database_progress;
/* Returns whether to cancel. */
typedef int32_t(ZOP_CALL* zop_database_callback)(void* context,
                                                 const zop_database_progress* progress,
                                                 zop_call* call);
/* Write all tables into a file, or make the database what such a file says. callback may be NULL.
   completed, which may be NULL: 0 when it was cancelled; then, and after a failure, the file or the
   database is as it was. */
ZOP_C_API int32_t ZOP_CALL zop_database_export(zop_database* database, const wchar_t* file,
                                               zop_database_callback callback, void* context,
                                               int32_t* completed, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_database_import(zop_database* database, const wchar_t* file,
                                               zop_database_callback callback, void* context,
                                               int32_t* completed, zop_error** error);

ZOP_C_API void ZOP_CALL zop_record_set_free(zop_record_set* rows);
/* row: whether there is a next one. */
ZOP_C_API int32_t ZOP_CALL zop_record_set_next(zop_record_set* rows, int32_t* row,
                                               zop_error** error);
ZOP_C_API zop_list* ZOP_CALL zop_record_set_columns(zop_record_set* rows, zop_error** error);
/* text: NULL for the NULL of the database. By the column's name, or by its place, from 0. */
ZOP_C_API int32_t ZOP_CALL zop_record_set_text(zop_record_set* rows, const wchar_t* column,
                                               zop_text** text, zop_error** error);
ZOP_C_API int32_t ZOP_CALL zop_record_set_text_at(zop_record_set* rows, size_t column,
                                                  zop_text** text, zop_error** error);

#ifdef __cplusplus
}
#endif

#endif
