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
#include <string.h>
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

/*
 * trace_param_init as the caller's compiler sees it: numbers and bool, the parameters of almost
 * every trace, are set up inline (a call would cost as much as the rest of the trace); everything
 * else goes to the exported function. (trace_param_init)(...) and &trace_param_init reach the
 * exported function directly.
 */
static inline TraceParameter* trace_param_init_inline(TraceParameter* record, unsigned type,
                                                      const void* value) {
    unsigned size;
    switch (type) {
        case TRACE_PARAM_BOOL:
            size = 1;
            break;
        case TRACE_PARAM_INT32:
        case TRACE_PARAM_UINT32:
        case TRACE_PARAM_FLOAT:
            size = 4;
            break;
        case TRACE_PARAM_INT64:
        case TRACE_PARAM_UINT64:
        case TRACE_PARAM_DOUBLE:
            size = 8;
            break;
        default:
            return (trace_param_init)(record, type, value);
    }
    if (record == NULL)
        return NULL;
    record->type = (unsigned short)type;
    record->owned = 0;
    record->reserved = 0;
    record->size = size;
    memset(record->data.bytes, 0, sizeof record->data.bytes);
    if (value != NULL)
        memcpy(record->data.bytes, value, size);
    return record;
}
#define trace_param_init(record, type, value) trace_param_init_inline(record, type, value)

PAXLTRACE_API char* trace_param_format(const char* format, unsigned long long binaryTextId,
                                       unsigned char count, const TraceParameter* parameters);

/* Severities: 0 "None", 1 "Fatal", 2 "Error", 3 "Warning", 4 "Info", 5 "Verbose", 6 "Debug", 7 "Call". */
PAXLTRACE_API const char* trace_severity_to_string(unsigned severity);
PAXLTRACE_API unsigned trace_severity_from_string(const char* text);

/*
 * Trace engines: one per (buffer name, module name) of this process, a handle onto a module slot
 * of the process's trace buffer in shared memory.
 */
typedef struct TraceEngine TraceEngine;

/* Results of the engine functions; texts from trace_engine_error_text. */
#define TRACE_ENGINE_OK 0
#define TRACE_ENGINE_ALREADY_CREATED 1
#define TRACE_ENGINE_CANNOT_CREATE_BUFFER 2
#define TRACE_ENGINE_CANNOT_CREATE_MODULE 3
#define TRACE_ENGINE_NOT_CREATED 4
#define TRACE_ENGINE_BUFFER_ERROR 5
#define TRACE_ENGINE_TEXT_TOO_LONG 6 /* a warning: the engine works, a name was truncated */
#define TRACE_ENGINE_MAX_MODULES_REACHED 7
#define TRACE_ENGINE_INVALID_ARGUMENTS 8

/*
 * Creates an engine. moduleCount 0 and severity 0 take the configured values. On 0 or 6 the engine
 * is stored in *engine and, when filterWord is non-null, the address of the module's filter word
 * (bits 0-3 severity, bits 4-31 flags) in *filterWord. Test that word before each write.
 */
PAXLTRACE_API int trace_engine_create(const char* bufferName, const char* moduleName, unsigned moduleCount,
                                      unsigned severity, bool printWarning, TraceEngine** engine,
                                      unsigned** filterWord);
/* Releases the handle only; the module stays in the buffer. */
PAXLTRACE_API void trace_engine_destroy(TraceEngine* engine);
/* The flag's bit (4-31), or 0 on failure. */
PAXLTRACE_API unsigned char trace_engine_register_flag(TraceEngine* engine, const char* flagName,
                                                       bool active);
/* As trace_engine_register_flag, printing a warning on failure. */
PAXLTRACE_API unsigned char trace_engine_register_flag_checked(TraceEngine* engine, const char* flagName,
                                                               bool active);
PAXLTRACE_API bool trace_engine_set_flag(TraceEngine* engine, unsigned flagBit, bool on);
PAXLTRACE_API bool trace_engine_get_flag(TraceEngine* engine, unsigned char flagBit);
/* No range check: a value above 15 also sets flag bits. */
PAXLTRACE_API void trace_engine_set_severity(TraceEngine* engine, unsigned severity);
PAXLTRACE_API unsigned trace_engine_get_severity(TraceEngine* engine);
/* Whether writes keep file and line. */
PAXLTRACE_API void trace_engine_set_location(TraceEngine* engine, bool on);
PAXLTRACE_API bool trace_engine_get_location(TraceEngine* engine);
PAXLTRACE_API unsigned trace_engine_get_buffer_id(TraceEngine* engine);
PAXLTRACE_API unsigned trace_engine_get_module_id(TraceEngine* engine);
/*
 * Writes one trace without testing the filter word. With text null the entry carries
 * binaryTextId instead. Returns 0, or 4 for an engine that was not created, or 5
 * (TRACE_ENGINE_BUFFER_ERROR) when the engine's buffer has been unregistered: the trace is
 * dropped, and the first such write is reported to the event log. The engine and its filter word
 * stay valid until it is destroyed.
 * Limits of one entry: at most 9 parameters are written (further ones are left out); parameters
 * of type 0 or above 12 are left out; the parameters share 2000 bytes, so string parameters too
 * long for them are shortened in place (ending in "...") or replaced by a "too long" mark; a file
 * name longer than 250 characters keeps its last 250; messages longer than one entry are split.
 */
PAXLTRACE_API int trace_engine_write(TraceEngine* engine, const char* file, unsigned line,
                                     unsigned severityWord, const char* text, unsigned long long binaryTextId,
                                     unsigned char count, TraceParameter* parameters);
PAXLTRACE_API const char* trace_engine_error_text(unsigned code);

/*
 * Severity of this process's modules: all of them (both names null), those of one buffer, or the
 * first module of that name in that buffer. 1 when any module changed, else 0.
 */
PAXLTRACE_API int trace_set_severity(unsigned severity, const char* bufferName, const char* moduleName);
/* Switches a named flag of a module of this process. */
PAXLTRACE_API bool trace_set_flag(const char* bufferName, const char* moduleName, const char* flagName,
                                  bool on);

/* Text of a timestamp in the given mode (0 = configured); release with trace_free. */
PAXLTRACE_API char* trace_timer_format(unsigned long long timestamp, unsigned timestampMode);
PAXLTRACE_API unsigned trace_current_thread_id(void);

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
