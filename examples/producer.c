/*
 * Example producer: writes numbered traces from several threads through the C interface.
 *
 *   producer BUFFER MODULE COUNT THREADS [--pace N] [--progress N] [--wait]
 *
 * Each thread writes COUNT traces "seq %1 thread %2" (Info), then one trace of the active flag
 * "Sequence" and one of the inactive flag "Details", which the filter suppresses.
 *   --pace N      sleep a millisecond after every N traces of a thread
 *   --progress N  print "progress THREAD DONE" after every N traces of a thread
 *   --wait        read commands from standard input: "go" starts the writers, "severity N"
 *                 changes this module's severity, end of input or "quit" ends the program; the
 *                 module's severity is printed whenever it changes, whoever changed it
 */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "paxltrace.h"

#define SEVERITY_INFO 4u
#define SEVERITY_VERBOSE 5u
#define SEVERITY_BITS 0xFu

typedef struct Producer {
    const char* bufferName;
    const char* moduleName;
    TraceEngine* engine;
    /* Other processes change the word at any time; volatile makes every test a fresh load. */
    volatile const unsigned* filterWord;
    unsigned sequenceFlag;
    unsigned detailsFlag;
    long count;
    long pace;
    long progress;
    /* The severity watcher runs until the main thread says stop; C99 has no atomics. */
    pthread_mutex_t stopLock;
    int stopWatching;
} Producer;

typedef struct Writer {
    Producer* producer;
    unsigned index;
    long written;
} Writer;

static void sleep_ms(long milliseconds) {
    struct timespec wait;
    wait.tv_sec = milliseconds / 1000;
    wait.tv_nsec = (milliseconds % 1000) * 1000000L;
    nanosleep(&wait, NULL);
}

/* Severity-only traces pass when the module's severity reaches theirs. */
static int severity_enabled(const Producer* producer, unsigned severity) {
    return (*producer->filterWord & 7u) >= severity;
}

/* Flagged traces pass when their flag is on in the module. */
static int flag_enabled(const Producer* producer, unsigned severityWord) {
    return (*producer->filterWord & severityWord & ~SEVERITY_BITS) != 0;
}

static void* write_traces(void* argument) {
    Writer* writer = (Writer*)argument;
    Producer* producer = writer->producer;
    TraceEngine* engine = producer->engine;
    TraceParameter params[2];
    unsigned flagged;
    long seq;

    for (seq = 0; seq < producer->count; ++seq) {
        if (severity_enabled(producer, SEVERITY_INFO)) {
            int value = (int)seq;
            trace_param_init(&params[0], TRACE_PARAM_INT32, &value);
            trace_param_init(&params[1], TRACE_PARAM_UINT32, &writer->index);
            trace_engine_write(engine, __FILE__, __LINE__, SEVERITY_INFO, "seq %1 thread %2", 0, 2, params);
            trace_param_clear(params, 2);
            ++writer->written;
        }
        if (producer->progress > 0 && (seq + 1) % producer->progress == 0) {
            printf("progress %u %ld\n", writer->index, seq + 1);
            fflush(stdout);
        }
        if (producer->pace > 0 && (seq + 1) % producer->pace == 0)
            sleep_ms(1);
    }

    flagged = (1u << producer->sequenceFlag) | SEVERITY_VERBOSE;
    if (producer->sequenceFlag != 0 && flag_enabled(producer, flagged)) {
        trace_param_init(&params[0], TRACE_PARAM_UINT32, &writer->index);
        trace_engine_write(engine, __FILE__, __LINE__, flagged, "thread %1 done", 0, 1, params);
        trace_param_clear(params, 1);
        ++writer->written;
    }
    flagged = (1u << producer->detailsFlag) | SEVERITY_VERBOSE;
    if (producer->detailsFlag != 0 && flag_enabled(producer, flagged)) {
        trace_param_init(&params[0], TRACE_PARAM_UINT32, &writer->index);
        trace_engine_write(engine, __FILE__, __LINE__, flagged, "thread %1 details", 0, 1, params);
        trace_param_clear(params, 1);
        ++writer->written;
    }
    return NULL;
}

static int should_stop_watching(Producer* producer) {
    int stop;
    pthread_mutex_lock(&producer->stopLock);
    stop = producer->stopWatching;
    pthread_mutex_unlock(&producer->stopLock);
    return stop;
}

static void* watch_severity(void* argument) {
    Producer* producer = (Producer*)argument;
    unsigned shown = 0xFFFFFFFFu;
    while (!should_stop_watching(producer)) {
        unsigned severity = *producer->filterWord & 7u;
        if (severity != shown) {
            shown = severity;
            printf("severity %u %s\n", severity, trace_severity_to_string(severity));
            fflush(stdout);
        }
        sleep_ms(5);
    }
    return NULL;
}

/* Runs commands until "go" (stopAtGo) or the end of input; 1 when "go" was read. */
static int run_commands(Producer* producer, int stopAtGo) {
    char line[128];
    while (fgets(line, sizeof line, stdin) != NULL) {
        unsigned severity;
        if (strncmp(line, "go", 2) == 0 && stopAtGo)
            return 1;
        if (strncmp(line, "quit", 4) == 0)
            return 0;
        if (sscanf(line, "severity %u", &severity) == 1)
            trace_set_severity(severity, producer->bufferName, producer->moduleName);
    }
    return 0;
}

static int usage(void) {
    fprintf(stderr, "usage: producer BUFFER MODULE COUNT THREADS [--pace N] [--progress N] [--wait]\n");
    return 2;
}

int main(int argc, char** argv) {
    Producer producer;
    Writer* writers;
    pthread_t* threads;
    pthread_t watcher;
    unsigned* filterWord = NULL;
    unsigned threadCount;
    unsigned i;
    long total = 0;
    int wait = 0;
    int argument;
    int result;

    if (argc < 5)
        return usage();
    memset(&producer, 0, sizeof producer);
    pthread_mutex_init(&producer.stopLock, NULL);
    producer.bufferName = argv[1];
    producer.moduleName = argv[2];
    producer.count = atol(argv[3]);
    threadCount = (unsigned)atoi(argv[4]);
    if (producer.count < 0 || threadCount == 0 || threadCount > 64)
        return usage();
    for (argument = 5; argument < argc; ++argument) {
        if (strcmp(argv[argument], "--wait") == 0)
            wait = 1;
        else if (strcmp(argv[argument], "--pace") == 0 && argument + 1 < argc)
            producer.pace = atol(argv[++argument]);
        else if (strcmp(argv[argument], "--progress") == 0 && argument + 1 < argc)
            producer.progress = atol(argv[++argument]);
        else
            return usage();
    }

    result = trace_engine_create(producer.bufferName, producer.moduleName, 0, SEVERITY_INFO, true,
                                 &producer.engine, &filterWord);
    if (result != TRACE_ENGINE_OK && result != TRACE_ENGINE_TEXT_TOO_LONG)
        return 1;
    if (filterWord == NULL) {
        trace_engine_destroy(producer.engine);
        return 1;
    }
    producer.filterWord = filterWord;
    producer.sequenceFlag = trace_engine_register_flag_checked(producer.engine, "Sequence", true);
    producer.detailsFlag = trace_engine_register_flag_checked(producer.engine, "Details", false);
    trace_engine_set_location(producer.engine, true);

    printf("producer buffer %u module %u\n", trace_engine_get_buffer_id(producer.engine),
           trace_engine_get_module_id(producer.engine));
    fflush(stdout);

    if (wait && pthread_create(&watcher, NULL, watch_severity, &producer) != 0)
        wait = 0;
    if (!wait || run_commands(&producer, 1)) {
        writers = (Writer*)calloc(threadCount, sizeof *writers);
        threads = (pthread_t*)calloc(threadCount, sizeof *threads);
        if (writers == NULL || threads == NULL)
            return 1;
        for (i = 0; i < threadCount; ++i) {
            writers[i].producer = &producer;
            writers[i].index = i;
            if (pthread_create(&threads[i], NULL, write_traces, &writers[i]) != 0)
                return 1;
        }
        for (i = 0; i < threadCount; ++i) {
            pthread_join(threads[i], NULL);
            total += writers[i].written;
        }
        printf("wrote %ld traces in %u threads\n", total, threadCount);
        fflush(stdout);
        free(writers);
        free(threads);
        if (wait)
            run_commands(&producer, 0);
    }
    if (wait) {
        pthread_mutex_lock(&producer.stopLock);
        producer.stopWatching = 1;
        pthread_mutex_unlock(&producer.stopLock);
        pthread_join(watcher, NULL);
    }
    trace_engine_destroy(producer.engine);
    pthread_mutex_destroy(&producer.stopLock);
    return 0;
}
