/*
 * PAXLtrace: the flat C interface for producers.
 *
 * Valid C99 and C++. Every string or parameter block the library allocates for the caller is
 * released with trace_free.
 */
#ifndef PAXLTRACE_H
#define PAXLTRACE_H

#include <stdbool.h>
#include <stddef.h>
#include <wchar.h>

#if defined(_WIN32)
#if defined(PAXLTRACE_BUILDING_LIBRARY)
#define PAXLTRACE_API __declspec(dllexport)
#else
#define PAXLTRACE_API __declspec(dllimport)
#endif
#else
#define PAXLTRACE_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Parameter types; the numbers are stored in shared memory and in log files. */
enum TraceParameterType {
    TRACE_PARAM_INVALID = 0,
    TRACE_PARAM_TOO_LONG = 1,
    TRACE_PARAM_STRING = 2,      /* zero-terminated 8-bit string, copied */
    TRACE_PARAM_WIDE_STRING = 3, /* zero-terminated UTF-16 string, copied */
    TRACE_PARAM_INT32 = 4,
    TRACE_PARAM_UINT32 = 5,
    TRACE_PARAM_INT64 = 6,
    TRACE_PARAM_UINT64 = 7,
    TRACE_PARAM_FLOAT = 8,
    TRACE_PARAM_DOUBLE = 9,
    TRACE_PARAM_BOOL = 10,
    TRACE_PARAM_STRING_REF = 11,     /* as STRING, the caller's storage is referenced */
    TRACE_PARAM_WIDE_STRING_REF = 12 /* as WIDE_STRING, the caller's storage is referenced */
};

/*
 * One typed trace parameter (16 bytes). Values of at most 8 bytes are held inline in `data`;
 * larger ones are pointed to (owned when `owned` is 1, borrowed for the reference types).
 * Initialise with trace_param_init and release with trace_param_clear.
 */
typedef struct TraceParameter {
    unsigned short type; /* enum TraceParameterType */
    unsigned char owned; /* 1 when `data` points to a heap block of this record */
    unsigned char reserved;
    unsigned int size; /* bytes, string terminator included */
    union {
        unsigned char bytes[8];
        const void* pointer;
    } data;
} TraceParameter;

/* Memory returned by the library. */
PAXLTRACE_API void trace_free(void* pointer);

/* Strings (UTF-8 <-> the platform's wchar_t: UTF-16 on Windows, UTF-32 elsewhere). */
PAXLTRACE_API char* trace_string_copy(const char* text);
PAXLTRACE_API char* trace_string_wide_to_narrow(const wchar_t* text);
PAXLTRACE_API wchar_t* trace_string_narrow_to_wide(const char* text);

/* Parameters. */
PAXLTRACE_API TraceParameter* trace_param_init(TraceParameter* record, unsigned type, const void* value);
PAXLTRACE_API TraceParameter* trace_param_copy(TraceParameter* destination, const TraceParameter* source,
                                               unsigned char count);
PAXLTRACE_API void trace_param_clear(TraceParameter* records, unsigned char count);
PAXLTRACE_API char* trace_param_format(const char* format, unsigned long long binaryTextId,
                                       unsigned char count, const TraceParameter* parameters);

/* Severities: 0 "None", 1 "Fatal", 2 "Error", 3 "Warning", 4 "Info", 5 "Verbose", 6 "Debug", 7 "Call". */
PAXLTRACE_API const char* trace_severity_to_string(unsigned severity);
PAXLTRACE_API unsigned trace_severity_from_string(const char* text);

/*
 * Process-wide configuration. Best called before the first engine is created: buffers keep the
 * sizes and timestamp mode they were created with; only name changes reach them later.
 */
PAXLTRACE_API void trace_config_init(const char* system, const char* application, unsigned timestampMode,
                                     unsigned streamSize, unsigned maxBuffers, unsigned maxModules);
PAXLTRACE_API const char* trace_config_get_system(void);
PAXLTRACE_API void trace_config_set_system(const char* system);
PAXLTRACE_API const char* trace_config_get_application(void);
PAXLTRACE_API void trace_config_set_application(const char* application);
PAXLTRACE_API unsigned trace_config_get_severity(void);
PAXLTRACE_API void trace_config_set_severity(unsigned severity);
PAXLTRACE_API unsigned trace_config_get_timestamp_mode(void);
PAXLTRACE_API void trace_config_set_timestamp_mode(unsigned timestampMode);
/* The three size setters store the built-in default when given 0. */
PAXLTRACE_API unsigned trace_config_get_stream_size(void);
PAXLTRACE_API void trace_config_set_stream_size(unsigned streamSize);
PAXLTRACE_API unsigned trace_config_get_max_buffers(void);
PAXLTRACE_API void trace_config_set_max_buffers(unsigned maxBuffers);
PAXLTRACE_API unsigned trace_config_get_max_modules(void);
PAXLTRACE_API void trace_config_set_max_modules(unsigned maxModules);
PAXLTRACE_API unsigned trace_config_get_buffer_close_wait_ms(void);
PAXLTRACE_API void trace_config_set_buffer_close_wait_ms(unsigned milliseconds);
PAXLTRACE_API bool trace_config_get_global_trace_id(void);
PAXLTRACE_API void trace_config_set_global_trace_id(bool global);

#ifdef __cplusplus
}
#endif

#endif /* PAXLTRACE_H */
