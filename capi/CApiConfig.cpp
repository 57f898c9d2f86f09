// The trace_config_* functions: thin forwarders to the process-wide configuration.
#include "Trace/Engine/TraceConfigurationPrivate.h"
#include "paxltrace.h"

using Tracing::TraceConfigurationPrivate;

namespace {

TraceConfigurationPrivate& Config() {
    return TraceConfigurationPrivate::GetInstance();
}

}  // namespace

extern "C" {

void trace_config_init(const char* system, const char* application, unsigned timestampMode,
                       unsigned streamSize, unsigned maxBuffers, unsigned maxModules) {
    Config().Initialize(system, application, static_cast<Tracing::TimestampMode::Type>(timestampMode),
                        streamSize, maxBuffers, maxModules);
}

const char* trace_config_get_system(void) {
    return Config().GetSystemName();
}

void trace_config_set_system(const char* system) {
    Config().SetSystemName(system);
}

const char* trace_config_get_application(void) {
    return Config().GetApplicationName();
}

void trace_config_set_application(const char* application) {
    Config().SetApplicationName(application);
}

unsigned trace_config_get_severity(void) {
    return static_cast<unsigned>(Config().GetSeverityFilter());
}

void trace_config_set_severity(unsigned severity) {
    Config().SetSeverityFilter(static_cast<Tracing::Severity::Type>(severity));
}

unsigned trace_config_get_timestamp_mode(void) {
    return static_cast<unsigned>(Config().GetTimestampMode());
}

void trace_config_set_timestamp_mode(unsigned timestampMode) {
    Config().SetTimestampMode(static_cast<Tracing::TimestampMode::Type>(timestampMode));
}

unsigned trace_config_get_stream_size(void) {
    return Config().GetTraceStreamSize();
}

void trace_config_set_stream_size(unsigned streamSize) {
    Config().SetTraceStreamSize(streamSize);
}

unsigned trace_config_get_max_buffers(void) {
    return Config().GetMaxNumberOfBuffers();
}

void trace_config_set_max_buffers(unsigned maxBuffers) {
    Config().SetMaxNumberOfBuffers(maxBuffers);
}

unsigned trace_config_get_max_modules(void) {
    return Config().GetMaxNumberOfModules();
}

void trace_config_set_max_modules(unsigned maxModules) {
    Config().SetMaxNumberOfModules(maxModules);
}

unsigned trace_config_get_buffer_close_wait_ms(void) {
    return Config().GetBufferCloseWaitMs();
}

void trace_config_set_buffer_close_wait_ms(unsigned milliseconds) {
    Config().SetBufferCloseWaitMs(milliseconds);
}

bool trace_config_get_global_trace_id(void) {
    return Config().GetGlobalTraceID();
}

void trace_config_set_global_trace_id(bool global) {
    Config().SetGlobalTraceID(global);
}

}  // extern "C"
