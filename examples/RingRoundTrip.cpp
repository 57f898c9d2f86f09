// Writes traces into this process's trace buffer and reads them back from its ring, printed as
// log lines: the data plane of PAXLtrace end to end inside one process.
//
//   ring_round_trip [COUNT]
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceModuleData.h"
#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Buffer/TraceStream.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceParameter.h"
#include "Trace/Registry/TraceRegistry.h"
#include "platform/Thread.h"

int main(int argc, char** argv) {
    using namespace Tracing;
    const int count = argc > 1 ? std::atoi(argv[1]) : 8;

    TraceRegistry& registry = TraceRegistry::GetInstance();
    TraceBuffer* buffer = registry.RegisterBuffer("RingDemo", "Main", TimestampMode::NotSet, 0, 0, nullptr);
    if (buffer == nullptr || buffer->GetTraceStream() == nullptr) {
        std::fprintf(stderr, "could not create the trace buffer\n");
        return 1;
    }
    TraceModuleData* module = buffer->RegisterModule("Main", Severity::Debug);
    const int32_t moduleID = module != nullptr ? module->GetModuleID() : 0;
    const uint8_t ioFlag = buffer->RegisterFlag(moduleID, "IO", true);

    // A reader connected before the first write reads everything written after it.
    TraceReaderInfo cursor;
    cursor.AttachBuffer = true;
    buffer->ConnectReader(cursor);

    TraceStream& stream = *buffer->GetTraceStream();
    for (int i = 0; i < count; ++i) {
        ::TraceParameter params[2];
        const int32_t value = i * i;
        Tracing::TraceParameter::Init(params[0], ParameterTypes::Int32, &i);
        Tracing::TraceParameter::Init(params[1], ParameterTypes::Int32, &value);
        const uint32_t severity = (i % 3 == 0) ? ((1u << ioFlag) | Severity::Verbose) : Severity::Info;
        stream.Write(0, moduleID, Platform::CurrentThreadId(), 0, severity, __FILE__, __LINE__,
                     "square of %1 is %2", 2, params);
        Tracing::TraceParameter::Clear(params[0]);
        Tracing::TraceParameter::Clear(params[1]);
    }

    std::vector<std::unique_ptr<Trace>> traces;
    bool overflow = false;
    buffer->Read(cursor, traces, overflow, 0);
    Trace::GetTraceHeader(std::cout, Trace::LOG_SEPARATOR);
    for (const auto& trace : traces)
        trace->WriteToStream(std::cout, Trace::LOG_SEPARATOR);
    std::cout << traces.size() << " traces read back" << (overflow ? " (overflow)" : "") << "\n";
    registry.UnregisterBuffer(buffer);
    return static_cast<int>(traces.size()) == count ? 0 : 1;
}
