#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceReaderInfo.h"
#include "Trace/Records/PrintMsg.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceMessage.h"
#include "Trace/Registry/TraceRegistry.h"
#include "paxltrace.h"
#include "platform/Process.h"
#include "tests/support/TestSupport.h"

using namespace Tracing;

namespace {

TraceBuffer* BufferOf(TraceEngine* engine) {
    return TraceRegistry::GetInstance().GetProducerBuffer(
        static_cast<int32_t>(trace_engine_get_buffer_id(engine)));
}

std::vector<std::unique_ptr<Trace>> ReadAll(TraceBuffer& buffer) {
    TraceReaderInfo cursor;
    cursor.AttachBuffer = true;
    std::vector<std::unique_ptr<Trace>> traces;
    bool overflow = false;
    if (buffer.ConnectReader(cursor, 0) == TraceStream::Ok)
        buffer.Read(cursor, traces, overflow, 0);
    return traces;
}

struct EngineDeleter {
    void operator()(TraceEngine* engine) const { trace_engine_destroy(engine); }
};
using Engine = std::unique_ptr<TraceEngine, EngineDeleter>;

Engine Create(const char* buffer, const char* module, unsigned moduleCount = 0, int expected = 0) {
    TraceEngine* engine = nullptr;
    EXPECT_EQ(trace_engine_create(buffer, module, moduleCount, 0, true, &engine, nullptr), expected)
        << buffer << "." << module;
    return Engine(engine);
}

}  // namespace

TEST(CApiEngine, CreationFailuresAndTheirWarning) {
    trace_config_set_max_buffers(3);  // before the registry exists: its capacity
    TraceEngine* untouched = reinterpret_cast<TraceEngine*>(0x1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(trace_engine_create("Buf", "", 0, 0, true, &untouched, nullptr), 8);
    EXPECT_EQ(trace_engine_create(nullptr, "Mod", 0, 0, false, &untouched, nullptr), 8);
    EXPECT_EQ(trace_engine_create("Buf", "Mod", 0, 0, true, nullptr, nullptr), 8);
    const std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_EQ(untouched, reinterpret_cast<TraceEngine*>(0x1));
    // Two warnings; the call without printWarning stays silent.
    EXPECT_NE(printed.find("WARNING: Could not create the trace engine 'Buf', '' for '"), std::string::npos);
    EXPECT_NE(printed.find("WARNING: Could not create the trace engine 'Buf', 'Mod' for '"),
              std::string::npos);
    EXPECT_NE(printed.find("'! Error code 8: Invalid arguments."), std::string::npos);
    EXPECT_EQ(printed.find("'<NULL>', 'Mod'"), std::string::npos);

    // The 21st module of a buffer made for 20; a name already present still shares its slot.
    std::vector<Engine> engines;
    unsigned* firstWord = nullptr;
    TraceEngine* first = nullptr;
    ASSERT_EQ(trace_engine_create("Small", "M0", 20, 0, false, &first, &firstWord), 0);
    engines.emplace_back(first);
    for (int i = 1; i < 20; ++i)
        engines.push_back(Create("Small", ("M" + std::to_string(i)).c_str(), 20));
    TraceEngine* extra = nullptr;
    EXPECT_EQ(trace_engine_create("Small", "M20", 20, 0, false, &extra, nullptr), 7);
    EXPECT_EQ(extra, nullptr);
    unsigned* sharedWord = nullptr;
    TraceEngine* again = nullptr;
    ASSERT_EQ(trace_engine_create("Small", "M0", 20, 0, false, &again, &sharedWord), 0);
    Engine owned(again);
    EXPECT_EQ(sharedWord, firstWord);
    EXPECT_EQ(trace_engine_get_module_id(again), trace_engine_get_module_id(first));
    trace_engine_set_severity(first, 6);
    EXPECT_EQ(trace_engine_get_severity(again), 6u);
    EXPECT_EQ(*sharedWord & 7u, 6u);

    // A full registry is named, with its size, after code 2.
    int fullAt = -1;
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3 && fullAt < 0; ++i) {
        TraceEngine* more = nullptr;
        const int result =
            trace_engine_create(("More" + std::to_string(i)).c_str(), "M", 0, 0, true, &more, nullptr);
        if (result == 0)
            engines.emplace_back(more);
        else if (result == 2)
            fullAt = i;
    }
    const std::string full = testing::internal::GetCapturedStderr();
    EXPECT_GE(fullAt, 0);
    EXPECT_NE(full.find("Error code 2: Cannot create buffer."), std::string::npos) << full;
    EXPECT_NE(full.find("WARNING: The trace registry is full: all 3 buffers are in use (TRACE_MAX_BUFFERS=3"),
              std::string::npos)
        << full;

    for (unsigned code = 0; code <= 9; ++code)
        EXPECT_NE(std::string(trace_engine_error_text(code)), "") << code;
    EXPECT_STREQ(trace_engine_error_text(7), "Maximum number of modules reached");
    EXPECT_STREQ(trace_engine_error_text(9), "Unknown error code");
}

TEST(CApiEngine, TruncatedNamesGiveCode6AndAWorkingEngine) {
    const std::string longName(40, 'b');
    testing::internal::CaptureStderr();
    TraceEngine* engine = nullptr;
    ASSERT_EQ(trace_engine_create(longName.c_str(), "Mod", 0, 0, true, &engine, nullptr), 6);
    Engine owned(engine);
    EXPECT_EQ(BufferOf(engine)->GetSubSystemName(), longName.substr(0, 32));
    // A name cut in the module slot is reported the same way.
    const std::string longModule(33, 'm');
    TraceEngine* second = nullptr;
    ASSERT_EQ(trace_engine_create("Buf", longModule.c_str(), 0, 0, true, &second, nullptr), 6);
    Engine ownedSecond(second);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(trace_engine_write(second, nullptr, 0, 4, "still works", 0, 0, nullptr), 0);
    EXPECT_EQ(ReadAll(*BufferOf(second)).size(), 1u);
}

TEST(CApiEngine, NullEngineGivesNeutralValues) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(trace_engine_register_flag(nullptr, "F", true), 0);
    EXPECT_EQ(trace_engine_register_flag_checked(nullptr, nullptr, true), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "WARNING: Could not register the trace flag '<NULL>', trace engine not initialized!"),
              std::string::npos);
    EXPECT_FALSE(trace_engine_set_flag(nullptr, 4, true));
    EXPECT_FALSE(trace_engine_get_flag(nullptr, 4));
    trace_engine_set_severity(nullptr, 3);
    EXPECT_EQ(trace_engine_get_severity(nullptr), 0u);
    trace_engine_set_location(nullptr, true);
    EXPECT_FALSE(trace_engine_get_location(nullptr));
    EXPECT_EQ(trace_engine_get_buffer_id(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(trace_engine_get_module_id(nullptr), 0xFFFFFFFFu);
    EXPECT_EQ(trace_engine_write(nullptr, "f.c", 1, 4, "x", 0, 0, nullptr), 4);
    trace_engine_destroy(nullptr);
}

TEST(CApiEngine, FlagsAndSeverityInTheFilterWord) {
    unsigned* word = nullptr;
    TraceEngine* engine = nullptr;
    ASSERT_EQ(trace_engine_create("Buf", "Mod", 0, 3, false, &engine, &word), 0);
    Engine owned(engine);
    EXPECT_EQ(*word, 3u);
    const unsigned char io = trace_engine_register_flag(engine, "IO", true);
    const unsigned char net = trace_engine_register_flag(engine, "Net", false);
    EXPECT_EQ(io, 4);
    EXPECT_EQ(net, 5);
    EXPECT_EQ(trace_engine_register_flag(engine, "IO", false), io);
    EXPECT_EQ(trace_engine_register_flag(engine, "", true), 0);
    EXPECT_FALSE(trace_engine_get_flag(engine, net));
    EXPECT_TRUE(trace_engine_set_flag(engine, net, true));
    EXPECT_EQ(*word, 3u | 1u << io | 1u << net);
    // Unregistered bits are refused; a bit narrows to a byte (260 is bit 4); severity bits never
    // read as flags.
    EXPECT_FALSE(trace_engine_set_flag(engine, 6, true));
    EXPECT_TRUE(trace_engine_set_flag(engine, io, false));
    EXPECT_TRUE(trace_engine_set_flag(engine, io + 256, true));
    EXPECT_EQ(*word, 3u | 1u << io | 1u << net);
    EXPECT_FALSE(trace_engine_get_flag(engine, 1));
    EXPECT_TRUE(trace_engine_get_flag(engine, static_cast<unsigned char>(io + 32)));

    trace_engine_set_severity(engine, 6);
    EXPECT_EQ(*word, 6u | 1u << io | 1u << net);
    // No range check: 0x40 + 7 lands on flag bit 6 as well.
    trace_engine_set_severity(engine, 0x47);
    EXPECT_EQ(trace_engine_get_severity(engine), 7u);
    EXPECT_EQ(*word, 0x47u | 1u << io | 1u << net);

    // A creation severity is the module's filter word as given, flag bits included.
    unsigned* rawWord = nullptr;
    TraceEngine* raw = nullptr;
    ASSERT_EQ(trace_engine_create("Buf", "Raw", 0, 0x14, false, &raw, &rawWord), 0);
    Engine ownedRaw(raw);
    EXPECT_EQ(*rawWord, 0x14u);

    testing::internal::CaptureStderr();
    EXPECT_EQ(trace_engine_register_flag_checked(engine, "", true), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "WARNING: Could not register the trace flag '' in trace engine 'Buf' 'Mod'!"),
              std::string::npos);
}

TEST(CApiEngine, WrittenTracesReadBackFromTheBuffer) {
    TraceEngine* engine = nullptr;
    ASSERT_EQ(trace_engine_create("Buf", "Mod", 0, 0, false, &engine, nullptr), 0);
    Engine owned(engine);
    trace_engine_set_location(engine, true);
    ::TraceParameter params[2];
    const int a = -7;
    trace_param_init(&params[0], TRACE_PARAM_INT32, &a);
    trace_param_init(&params[1], TRACE_PARAM_STRING, "two");
    EXPECT_EQ(trace_engine_write(engine, "a.c", 12, (1u << 4) | 5u, "value %1 of %2", 0, 2, params), 0);
    trace_engine_set_location(engine, false);
    EXPECT_EQ(trace_engine_write(engine, "b.c", 34, 2, "no location", 0, 0, nullptr), 0);
    EXPECT_EQ(trace_engine_write(engine, "c.c", 56, 4, nullptr, 0x1122334455667788ull, 1, params), 0);
    trace_param_clear(params, 2);

    const auto traces = ReadAll(*BufferOf(engine));
    ASSERT_EQ(traces.size(), 3u);
    const Trace& text = *traces[0];
    EXPECT_EQ(text.GetModuleID(), static_cast<int>(trace_engine_get_module_id(engine)));
    EXPECT_EQ(text.GetBufferID(), static_cast<int>(trace_engine_get_buffer_id(engine)));
    EXPECT_EQ(text.GetSeverityMask(), (1u << 4) | 5u);
    EXPECT_EQ(text.GetFormattedMessage(), "value -7 of two");
    EXPECT_EQ(text.GetFileName(), "a.c");
    EXPECT_EQ(text.GetLineNumber(), 12u);
    EXPECT_EQ(text.GetThreadID(), trace_current_thread_id());
    EXPECT_EQ(traces[1]->GetFileName(), "");
    EXPECT_EQ(traces[2]->GetBinaryTraceID(), 0x1122334455667788ull);
}

TEST(CApiEngine, TimestampText) {
    char* sequence = trace_timer_format(12345, 1);
    EXPECT_STREQ(sequence, "12345");
    trace_free(sequence);
}

// The library's own engines and the console printer's trace through them.
TEST(CApiEngine, OwnEnginesAndPrintMsg) {
    TraceRegistry::GetInstance();
    TraceEngine* own = TraceRegistry::GetEngine();
    ASSERT_NE(own, nullptr);
    TraceBuffer& core = *BufferOf(own);
    EXPECT_STREQ(core.GetSubSystemName(), "Core");
    EXPECT_EQ(core.GetSizeOfModuleArray(), 90u);
    std::string name;
    ASSERT_TRUE(core.GetModuleName(static_cast<int32_t>(trace_engine_get_module_id(own)), name));
    EXPECT_EQ(name, "General");

    trace_engine_set_severity(own, 3);
    Internal::PrintMsg(Severity::Warning, TraceMessage("kept %1").Add(1), false);
    Internal::PrintMsg(Severity::Info, TraceMessage("dropped"), false);
    bool found = false;
    for (const auto& trace : ReadAll(core)) {
        EXPECT_NE(trace->GetMessageString(), "dropped");
        if (trace->GetFormattedMessage() == "kept 1") {
            found = true;
            EXPECT_EQ(trace->GetSeverityMask(), 3u);
        }
    }
    EXPECT_TRUE(found);

    // The ring shortens what it writes, never the caller's message.
    const std::string longText(4502, 'x');
    TraceMessage message("long %1");
    message.Add(longText);
    Internal::PrintMsg(Severity::Warning, message, false);
    EXPECT_EQ(message.Format(), "long " + longText);

    // The updater thread registers its start flag in its own module of the same buffer (the module
    // comes first, the flag a moment later).
    TraceModuleInfo thread;
    EXPECT_TRUE(Tracing::Test::WaitFor(
        [&] {
            return core.GetModuleInfo("Thread", thread) &&
                   thread.FindFlag(std::string("ThreadStart")) != nullptr;
        },
        5000));
}

// The child and the parent hand over through marker files: portable, and no inherited handles.
std::filesystem::path Marker(const std::string& name) {
    return std::filesystem::temp_directory_path() / (Tracing::Test::ShmPrefix() + name);
}

PAXLTRACE_CHILD_ROLE(KeepEngine) {
    TraceEngine* engine = nullptr;
    if (trace_engine_create("Other", "Mod", 0, 2, false, &engine, nullptr) != 0)
        return 1;
    trace_engine_register_flag(engine, "F", false);
    // Tell the parent, then wait for it to try to change this buffer.
    std::ofstream(Marker("ready")) << "ready\n";
    if (!Tracing::Test::WaitFor([] { return std::filesystem::exists(Marker("go")); }, 30000))
        return 2;
    const bool untouched = trace_engine_get_severity(engine) == 2 && !trace_engine_get_flag(engine, 4);
    trace_engine_destroy(engine);
    return untouched ? 0 : 3;
}

// The header sets numbers up inline; the records must equal the library's, byte for byte.
TEST(CApiEngine, InlineParameterSetUpMatchesTheLibrary) {
    const unsigned char value[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (unsigned type = TRACE_PARAM_INT32; type <= TRACE_PARAM_BOOL; ++type) {
        for (const void* given : {static_cast<const void*>(value), static_cast<const void*>(nullptr)}) {
            ::TraceParameter inlined, exported;
            std::memset(&inlined, 0xCC, sizeof inlined);
            std::memset(&exported, 0xCC, sizeof exported);
            EXPECT_EQ(trace_param_init(&inlined, type, given), &inlined);
            EXPECT_EQ((trace_param_init)(&exported, type, given), &exported);
            EXPECT_EQ(std::memcmp(&inlined, &exported, sizeof inlined), 0) << "type " << type;
        }
    }
    EXPECT_EQ(trace_param_init(nullptr, TRACE_PARAM_INT32, value), nullptr);
}

TEST(CApiByName, SeverityAndFlagsOfThisProcessOnly) {
    Engine a = Create("Buf", "A");
    Engine b = Create("Buf", "B");
    Engine c = Create("Other", "Mod");
    const unsigned char flag = trace_engine_register_flag(c.get(), "F", false);
    trace_engine_set_severity(a.get(), 4);
    trace_engine_set_severity(b.get(), 4);
    trace_engine_set_severity(c.get(), 4);
    // The names are looked up in the consumer list once it has any buffer: wait until the updater
    // has attached all of ours, so that the lookups below do not depend on its timing.
    ASSERT_TRUE(Tracing::Test::WaitFor(
        [] {
            TraceRegistry& registry = TraceRegistry::GetInstance();
            return registry.GetConsumerBuffer(Platform::CurrentProcessId(), "", "Buf") != nullptr &&
                   registry.GetConsumerBuffer(Platform::CurrentProcessId(), "", "Other") != nullptr;
        },
        5000));

    EXPECT_EQ(trace_set_severity(6, nullptr, "A"), 0);
    EXPECT_EQ(trace_engine_get_severity(a.get()), 4u);
    EXPECT_EQ(trace_set_severity(6, "Buf", "A"), 1);
    EXPECT_EQ(trace_set_severity(6, "Buf", "A"), 0) << "no change";
    EXPECT_EQ(trace_engine_get_severity(a.get()), 6u);
    EXPECT_EQ(trace_engine_get_severity(b.get()), 4u);
    EXPECT_EQ(trace_set_severity(2, "Buf", nullptr), 1);
    EXPECT_EQ(trace_engine_get_severity(b.get()), 2u);
    EXPECT_EQ(trace_engine_get_severity(c.get()), 4u);
    EXPECT_EQ(trace_set_severity(5, nullptr, nullptr), 1);
    EXPECT_EQ(trace_engine_get_severity(c.get()), 5u);

    EXPECT_TRUE(trace_set_flag("Other", "Mod", "F", true));
    EXPECT_TRUE(trace_engine_get_flag(c.get(), flag));
    EXPECT_FALSE(trace_set_flag("Other", "Mod", "G", true));
    EXPECT_FALSE(trace_set_flag("Other", "Nope", "F", true));
    EXPECT_FALSE(trace_set_flag("buf", "A", "F", true));
    EXPECT_FALSE(trace_set_flag(nullptr, "Mod", "F", true));
}

TEST(CApiByName, BuffersOfOtherProcessesAreLeftAlone) {
    const pid_t child = Tracing::Test::SpawnChild("KeepEngine");
    ASSERT_TRUE(Tracing::Test::WaitFor([] { return std::filesystem::exists(Marker("ready")); }, 30000));

    Engine own = Create("Other", "Mod");
    trace_engine_register_flag(own.get(), "F", false);
    // Once buffers are attached for reading, the consumer list is the one searched: wait until it
    // holds both processes' "Other".
    ASSERT_TRUE(Tracing::Test::WaitFor(
        [&] {
            TraceRegistry& registry = TraceRegistry::GetInstance();
            return registry.GetConsumerBuffer(Platform::CurrentProcessId(), "", "Other") != nullptr &&
                   registry.GetConsumerBuffer(child, "", "Other") != nullptr;
        },
        5000));
    EXPECT_EQ(trace_set_severity(7, nullptr, nullptr), 1);
    EXPECT_EQ(trace_set_severity(6, "Other", "Mod"), 1);
    EXPECT_TRUE(trace_set_flag("Other", "Mod", "F", true));
    EXPECT_EQ(trace_engine_get_severity(own.get()), 6u);

    std::ofstream(Marker("go")) << "go\n";
    EXPECT_EQ(Tracing::Test::WaitChild(child), 0);
    EXPECT_TRUE(Tracing::Test::RemoveFile(Marker("ready").string()));
    EXPECT_TRUE(Tracing::Test::RemoveFile(Marker("go").string()));
}
