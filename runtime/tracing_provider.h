/* What a tracing provider, "opentracingprovider.dll", exports: three C functions. The library
 * loads it, once, when the DWORD value "opentracing_enabled" under HKEY_LOCAL_MACHINE
 * "SOFTWARE\Tarvo\ZOP Config\Config" (32-bit view) is not zero. It is looked for beside the
 * library, beside the program and in System32, in this order, and nowhere else.
 *
 * All texts are UTF-8 and end in a zero; they belong to the caller and are valid during the call
 * only. Functions may be called from any thread, also at the same time. None may throw; a
 * provider that fails does nothing, and the traced call goes on. */
#ifndef ZOP_TRACING_PROVIDER_H
#define ZOP_TRACING_PROVIDER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The provider's own; the library passes it around. */
typedef struct OpenTracingTracer OpenTracingTracer;

/* An open span. The provider allocates it, fills in every function and may keep data of its own
 * behind it. Used by one thread at a time. */
typedef struct OpenTracingSpan OpenTracingSpan;
struct OpenTracingSpan {
    /* The operation failed. text may be empty. */
    void(__cdecl* markError)(OpenTracingSpan* span, const char* text);
    void(__cdecl* tag)(OpenTracingSpan* span, const char* key, const char* value);
    /* Ends the span and frees it. */
    void(__cdecl* finish)(OpenTracingSpan* span);
};

/* "OpenTracingProviderGetTracer": called once. component names the library. Null: no tracing. */
typedef OpenTracingTracer*(__cdecl* OpenTracingProviderGetTracerFunction)(const char* component);

/* "OpenTracingProviderGetSpanContext": opens a span. line is the source line where the operation
 * begins. parent is what OpenTracingProviderInjectCurrentSpan gave, perhaps in another process;
 * empty: a child of the span that is open on the calling thread, or else a root. Null: this
 * operation is not traced. */
typedef OpenTracingSpan*(__cdecl* OpenTracingProviderGetSpanContextFunction)(
    OpenTracingTracer* tracer, const char* name, int32_t line, const char* parent);

/* "OpenTracingProviderInjectCurrentSpan": writes the identity of the span that is open on the
 * calling thread, ended by a zero, when that fits into size bytes. Returns its length without the
 * zero whether it fits or not; 0 when no span is open. */
typedef uint32_t(__cdecl* OpenTracingProviderInjectCurrentSpanFunction)(OpenTracingTracer* tracer,
                                                                        char* buffer,
                                                                        uint32_t size);

#ifdef __cplusplus
}
#endif

#endif
