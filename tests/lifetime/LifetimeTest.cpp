// The library never takes its host down: not at exit, whatever order the host's static objects and
// the library's go in, and not when a producer's buffer is unregistered under its engine. Each case
// is a child process that must end with its own exit code (no signal, no sanitizer report).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Reading/TraceReader.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/TraceRegistry.h"
#include "paxltrace.h"
#include "platform/EventLog.h"

namespace Tracing {
namespace {

struct Producer {
    TraceEngine* engine = nullptr;
    unsigned* filter = nullptr;

    bool Create(const char* buffer) {
        return trace_engine_create(buffer, "Module", 0, 5, false, &engine, &filter) == TRACE_ENGINE_OK;
    }
    // What a producer does for every trace: the filter test, then the write.
    int Trace(const char* text) {
        if ((*filter & 7u) < 4u)
            return -1;
        int value = 42;
        ::TraceParameter parameter;
        trace_param_init(&parameter, TRACE_PARAM_INT32, &value);
        return trace_engine_write(engine, __FILE__, __LINE__, 4, text, 0, 1, &parameter);
    }
    // Everything else a producer may call on its engine.
    void Touch() {
        const unsigned char bit = trace_engine_register_flag(engine, "Flag", true);
        trace_engine_set_flag(engine, bit, false);
        trace_engine_set_severity(engine, 5);
        trace_set_severity(5, "Exit", nullptr);
    }
};

Producer atExitProducer;
std::string atExitMarker;

// Made before the registry, so destroyed after it would be.
std::unique_ptr<TraceReader> globalReader;

PAXLTRACE_CHILD_ROLE(TraceFromAtExit) {
    atExitMarker = args.at(0);
    // Registered before the library makes anything: it runs after every library object's end.
    std::atexit([] {
        const bool traced = atExitProducer.Trace("from atexit %1") == TRACE_ENGINE_OK;
        atExitProducer.Touch();
        if (traced)
            std::fclose(std::fopen(atExitMarker.c_str(), "w"));
    });
    if (!atExitProducer.Create("Exit"))
        return 2;
    return atExitProducer.Trace("before exit %1") == TRACE_ENGINE_OK ? 0 : 3;
}

PAXLTRACE_CHILD_ROLE(GlobalReader) {
    globalReader = std::make_unique<TraceReader>();
    if (globalReader->Create(0, true, true) != TraceReader::Success)
        return 2;
    Producer producer;
    if (!producer.Create("Global"))
        return 3;
    producer.Trace("read at exit %1");
    std::vector<std::unique_ptr<Tracing::Trace>> traces;
    globalReader->ReadTraces(traces);
    trace_engine_destroy(producer.engine);
    return 0;
}

PAXLTRACE_CHILD_ROLE(DetachedWriter) {
    static Producer producer;
    if (!producer.Create("Detached"))
        return 2;
    static std::atomic<bool> running{false};
    std::thread([] {
        running = true;
        for (unsigned i = 0;; ++i) {
            producer.Trace("detached %1");
            if (i % 64 == 0)
                producer.Touch();
        }
    }).detach();
    while (!running)
        std::this_thread::yield();
    // Returns at a different point of the writer's work each time.
    std::this_thread::sleep_for(std::chrono::microseconds(std::stoi(args.at(0)) % 500));
    return 0;
}

// Unregisters the buffer of a new engine, then uses the engine: text writes first, or binary ones.
PAXLTRACE_CHILD_ROLE(WriteAfterUnregister) {
    const bool binaryFirst = args.at(0) == "binary";
    std::vector<Platform::EventLogEntry> reports;
    Platform::SetEventLogSink([&](const Platform::EventLogEntry& entry) { reports.push_back(entry); });
    Producer producer;
    if (!producer.Create("Gone"))
        return 2;
    TraceRegistry& registry = TraceRegistry::GetInstance();
    TraceBuffer* buffer =
        registry.GetProducerBuffer(static_cast<int32_t>(trace_engine_get_buffer_id(producer.engine)));
    if (buffer == nullptr || registry.UnregisterBuffer(buffer) != TraceRegistry::Done)
        return 3;
    const auto binary = [&] {
        return trace_engine_write(producer.engine, nullptr, 0, 4, nullptr, 4711, 0, nullptr);
    };
    const auto text = [&] { return producer.Trace("lost %1"); };
    int failures = 0;
    for (int i = 0; i < 3; ++i) {
        failures += (binaryFirst ? binary() : text()) != TRACE_ENGINE_BUFFER_ERROR;
        failures += (binaryFirst ? text() : binary()) != TRACE_ENGINE_BUFFER_ERROR;
        producer.Touch();
    }
    if (failures != 0)
        return 4;
    trace_engine_destroy(producer.engine);
    Platform::SetEventLogSink({});
    // Once, for the first lost trace.
    const char* expected =
        binaryFirst ? "Failed to write binary trace message (4711) to stream. Object is already deleted."
                    : "Failed to write trace message to stream. Object is already deleted.\nlost %1";
    if (reports.size() != 1 || reports[0].source != "TraceStream" || reports[0].message != expected)
        return 5;
    // With its last engine gone the buffer is too: the name is free for a new one.
    Producer again;
    const bool back = again.Create("Gone") && again.Trace("back %1") == TRACE_ENGINE_OK;
    trace_engine_destroy(again.engine);
    return back ? 0 : 6;
}

TEST(Lifetime, ExitAndUnregisterEndNormally) {
    const std::string marker = "lifetime-atexit-" + Tracing::Test::ShmPrefix();
    struct Case {
        const char* role;
        std::vector<std::string> args;
    };
    for (const Case& c : {Case{"TraceFromAtExit", {marker}}, Case{"GlobalReader", {}},
                          Case{"WriteAfterUnregister", {"text"}}, Case{"WriteAfterUnregister", {"binary"}}}) {
        EXPECT_EQ(Tracing::Test::WaitChild(Tracing::Test::SpawnChild(c.role, c.args)), 0) << c.role;
    }
    EXPECT_TRUE(std::filesystem::exists(marker)) << "the atexit handler traced";
    Tracing::Test::RemoveFile(marker);
}

TEST(Lifetime, MainReturnsWhileADetachedThreadTraces) {
    // Timing dependent: many exits, each at another point of the writer's work, within a bound.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    unsigned runs = 0;
    for (; runs < 200 && std::chrono::steady_clock::now() < end; ++runs) {
        const int code = Tracing::Test::WaitChild(
            Tracing::Test::SpawnChild("DetachedWriter", {std::to_string(runs * 37)}));
        ASSERT_EQ(code, 0) << "run " << runs;
    }
    EXPECT_GE(runs, 20u);
}

}  // namespace
}  // namespace Tracing
