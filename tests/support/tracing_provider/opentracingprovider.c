/* A tracing provider that writes down what it is told, for the tests to read. In C, with no
 * runtime of C++ behind it: it also shows that the interface needs none, and a second copy of
 * winpthreads in the process was seen to hang the threads of the first. */
#include "runtime/tracing_provider.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

struct OpenTracingTracer {
    int unused;
};

struct Span {
    OpenTracingSpan functions; /* first: the library sees no more than this */
    struct Span* above;        /* open on the same thread when this one was opened */
    char name[1024];
};

enum { faultNone, faultNoSpan, faultCrash }; /* as in test_tracing_provider.h */

static struct OpenTracingTracer tracer;
static SRWLOCK lock = SRWLOCK_INIT;
static char record[65536];
static char shown[65536];
static size_t used;
static int faultMode;
static DWORD innermost; /* TLS slot of the innermost open span */

BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* reserved) {
    (void)module;
    (void)reserved;
    if (reason == DLL_PROCESS_ATTACH) {
        innermost = TlsAlloc();
    }
    return TRUE;
}

static void note(const char* a, const char* b, const char* c, const char* d, const char* e) {
    AcquireSRWLockExclusive(&lock);
    const int length = snprintf(record + used, sizeof record - used, "%s%s%s%s%s\n", a, b, c, d, e);
    if (length > 0 && (size_t)length < sizeof record - used) {
        used += (size_t)length;
    }
    ReleaseSRWLockExclusive(&lock);
}

static void failOnDemand(void) {
    if (faultMode == faultCrash) {
        RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, NULL);
    }
}

static void __cdecl markError(OpenTracingSpan* span, const char* text) {
    note("error ", ((struct Span*)span)->name, " [", text, "]");
    failOnDemand();
}

static void __cdecl tag(OpenTracingSpan* span, const char* key, const char* value) {
    char text[2048];
    snprintf(text, sizeof text, "%s [%s]", key, value);
    note("tag ", ((struct Span*)span)->name, " ", text, "");
    failOnDemand();
}

static void __cdecl finish(OpenTracingSpan* span) {
    struct Span* self = (struct Span*)span;
    TlsSetValue(innermost, self->above);
    note("finish ", self->name, "", "", "");
    free(self);
}

__declspec(dllexport)
    OpenTracingTracer* __cdecl OpenTracingProviderGetTracer(const char* component) {
    note("tracer ", component, "", "", "");
    return &tracer;
}

__declspec(dllexport) OpenTracingSpan* __cdecl OpenTracingProviderGetSpanContext(
    OpenTracingTracer* from, const char* name, int32_t line, const char* parent) {
    failOnDemand();
    struct Span* above = TlsGetValue(innermost);
    struct Span* span =
        from == &tracer && faultMode != faultNoSpan ? calloc(1, sizeof *span) : NULL;
    if (span == NULL) {
        return NULL;
    }
    span->functions.markError = &markError;
    span->functions.tag = &tag;
    span->functions.finish = &finish;
    span->above = above;
    snprintf(span->name, sizeof span->name, "%s", name);
    char text[2048];
    const char* parentName = *parent != '\0' ? parent : above != NULL ? above->name : "";
    snprintf(text, sizeof text, " %d [%s]", (int)line, parentName);
    note("start ", span->name, text, "", "");
    TlsSetValue(innermost, span);
    return &span->functions;
}

__declspec(dllexport) uint32_t
    __cdecl OpenTracingProviderInjectCurrentSpan(OpenTracingTracer* from, char* buffer,
                                                 uint32_t size) {
    (void)from;
    failOnDemand();
    const struct Span* span = TlsGetValue(innermost);
    if (span == NULL) {
        return 0;
    }
    const size_t length = strlen(span->name) + 3;
    if (length < size) {
        snprintf(buffer, size, "id:%s", span->name);
    }
    return (uint32_t)length;
}

__declspec(dllexport) const char* __cdecl TestTracingProviderTake(void) {
    AcquireSRWLockExclusive(&lock);
    memcpy(shown, record, used);
    shown[used] = '\0';
    used = 0;
    ReleaseSRWLockExclusive(&lock);
    return shown;
}

__declspec(dllexport) void __cdecl TestTracingProviderSetFault(int fault) {
    faultMode = fault;
}
