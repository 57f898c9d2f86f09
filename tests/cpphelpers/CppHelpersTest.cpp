// The C++ producer layer: parameter records built from argument types, the inline filter test that
// skips argument evaluation, and traces read back from the ring.
#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceData.h"
#include "Trace/Records/Trace.h"
#include "Trace/Registry/TraceRegistry.h"
#include "paxltrace.hpp"

namespace {

// The public header cannot see the entry layout, so it repeats this bound.
static_assert(paxl::detail::MaxParameterBytes == Tracing::TraceData::MaxParameterSize);

enum class Color : int16_t { Red = -2 };

struct Built {
    ::TraceParameter params[9];
    paxl::detail::ViewStorage storage;

    template <class... Args>
    explicit Built(const Args&... args) {
        paxl::detail::BuildParameters(params, storage, args...);
    }

    // The records as a consumer formats them.
    std::string Format(const char* format, unsigned char count) const {
        char* text = trace_param_format(format, 0, count, params);
        std::string result = text != nullptr ? text : "<null>";
        trace_free(text);
        return result;
    }
};

// Types and sizes of the first records; none owns a block, so nothing needs clearing.
void ExpectRecords(const ::TraceParameter* params,
                   std::initializer_list<std::pair<unsigned, unsigned>> expected) {
    for (const auto& [type, size] : expected) {
        EXPECT_EQ(params->type, type);
        EXPECT_EQ(params->size, size) << "record of type " << type;
        EXPECT_EQ(params->owned, 0);
        ++params;
    }
}

std::vector<std::unique_ptr<Tracing::Trace>> ReadAll(const paxl::Engine& engine) {
    Tracing::TraceBuffer* buffer =
        Tracing::TraceRegistry::GetInstance().GetProducerBuffer(static_cast<int32_t>(engine.bufferId()));
    std::vector<std::unique_ptr<Tracing::Trace>> traces;
    Tracing::TraceReaderInfo cursor;
    cursor.AttachBuffer = true;
    bool overflow = false;
    if (buffer != nullptr && buffer->ConnectReader(cursor, 0) == Tracing::TraceStream::Ok)
        buffer->Read(cursor, traces, overflow, 0);
    return traces;
}

TEST(CppHelpers, NumbersTakeTheTypeOfTheirWidthAndSign) {
    const Built b(int8_t{-5}, uint16_t{65535}, Color::Red, 4000000000u, int64_t{-1} << 40, ~uint64_t{0}, 2.5f,
                  0.125, true);
    ExpectRecords(b.params, {{TRACE_PARAM_INT32, 4},
                             {TRACE_PARAM_UINT32, 4},
                             {TRACE_PARAM_INT32, 4},
                             {TRACE_PARAM_UINT32, 4},
                             {TRACE_PARAM_INT64, 8},
                             {TRACE_PARAM_UINT64, 8},
                             {TRACE_PARAM_FLOAT, 4},
                             {TRACE_PARAM_DOUBLE, 8},
                             {TRACE_PARAM_BOOL, 1}});
    EXPECT_EQ(b.Format("%1 %2 %3 %4 %5 %6 %7 %8 %9", 9),
              "-5 65535 -2 4000000000 -1099511627776 18446744073709551615 2.5 0.125 true");
}

TEST(CppHelpersText, ShortTextInlineLongTextReferencedAndEveryFormTerminated) {
    const char* longText = "longer than eight bytes";
    const std::string longString = "a std::string beyond the inline bytes";
    const std::string withZero("cut\0hidden", 10);
    const char viewSource[] = "view-of-a-longer-textXYZ";
    const std::string_view longView(viewSource, 21);  // not terminated where it ends
    const char* nullText = nullptr;
    const Built b(std::string_view(viewSource, 4), longText, longString, withZero, longView, nullText, 'c',
                  "");
    constexpr unsigned Ref = TRACE_PARAM_STRING_REF;
    ExpectRecords(b.params,
                  {{Ref, 5}, {Ref, 24}, {Ref, 38}, {Ref, 4}, {Ref, 22}, {Ref, 7}, {Ref, 2}, {Ref, 1}});
    EXPECT_EQ(b.params[1].data.pointer, longText);  // referenced, not copied
    EXPECT_EQ(b.params[2].data.pointer, longString.c_str());
    EXPECT_EQ(b.Format("%1|%2|%3|%4|%5|%6|%7|%8", 8),
              "view|longer than eight bytes|a std::string beyond the inline bytes|cut|view-of-a-longer-text|"
              "<NULL>|c|");

    const std::u16string longWide = u"wide text beyond eight bytes";
    const Built w(u"ab", longWide.c_str(), longWide, std::u16string_view(longWide.data(), 9));
    constexpr unsigned WideRef = TRACE_PARAM_WIDE_STRING_REF;
    ExpectRecords(w.params, {{WideRef, 6}, {WideRef, 58}, {WideRef, 58}, {WideRef, 20}});
    EXPECT_EQ(w.params[1].data.pointer, longWide.c_str());
    EXPECT_EQ(w.Format("%1|%2|%3|%4", 4),
              "ab|wide text beyond eight bytes|wide text beyond eight bytes|wide text");

    // Text no entry can hold is removed up front instead of referenced.
    const std::string huge(5000, 'h');
    const Built edges(huge, std::string_view(huge), std::string_view());
    ExpectRecords(edges.params, {{TRACE_PARAM_TOO_LONG, 0}, {TRACE_PARAM_TOO_LONG, 0}, {Ref, 1}});
}

TEST(CppHelpersFilter, FilteredTracesEvaluateNoArgumentAndFlagsGateFlaggedTraces) {
    paxl::Engine engine("CppFilter", "Gate", 0, paxl::Warning, false);
    ASSERT_TRUE(engine.ok()) << engine.errorText();
    const paxl::Flag io = engine.flag("IO", false);
    ASSERT_TRUE(io.ok());
    int evaluated = 0;
    auto count = [&evaluated] { return ++evaluated; };

    PAXL_TRACE(engine, paxl::Info, "dropped %1", count());
    PAXL_TRACE_FLAG(engine, io, paxl::Fatal, "dropped %1", count());
    PAXL_TRACE_FLAG(engine, paxl::Flag(), paxl::Fatal, "dropped %1", count());
    EXPECT_EQ(evaluated, 0);

    PAXL_TRACE(engine, paxl::Warning, "kept %1", count());
    EXPECT_EQ(evaluated, 1);
    ASSERT_TRUE(engine.setFlag(io, true));
    engine.setSeverity(paxl::Fatal);
    PAXL_TRACE_FLAG(engine, io, paxl::Verbose, "kept %1", count());  // the flag decides, not the severity
    PAXL_TRACE(engine, paxl::Warning, "dropped %1", count());
    EXPECT_EQ(evaluated, 2);

    // A failed or moved-from engine passes nothing and writes nothing.
    paxl::Engine failed("CppFilter", "", 0, 0, false);
    EXPECT_FALSE(failed.ok());
    EXPECT_EQ(failed.error(), TRACE_ENGINE_INVALID_ARGUMENTS);
    EXPECT_STREQ(failed.errorText(), "Invalid arguments");
    paxl::Engine moved = std::move(engine);
    PAXL_TRACE(failed, paxl::Fatal, "dropped %1", count());
    PAXL_TRACE(engine, paxl::Fatal, "dropped %1", count());
    EXPECT_EQ(evaluated, 2);
    EXPECT_TRUE(moved.enabled(io));
}

TEST(CppHelpersRoundTrip, TracesComeBackFromTheRingWithMessageFileAndLine) {
    paxl::Engine engine("CppRoundTrip", "Helpers", 0, paxl::Info, false);
    ASSERT_TRUE(engine.ok()) << engine.errorText();
    engine.setLocation(true);
    const paxl::Flag net = engine.flag("Net");
    const std::string peer = "peer.example.internal:4711";
    const std::u16string wide = u"grüße aus UTF-16";

    const unsigned firstLine = __LINE__ + 1;
    PAXL_TRACE(engine, paxl::Info, "value %1 of %2 from %3 (%4)", -3, uint64_t{7}, peer, wide.c_str());
    PAXL_TRACE(engine, paxl::Verbose, "filtered out");
    PAXL_TRACE_FLAG(engine, net, paxl::Debug, "%1 bytes, ok %2", 512u, true);
    PAXL_TRACE_ID(engine, paxl::Error, 4711ull, std::string_view("id-params"));

    const auto traces = ReadAll(engine);
    ASSERT_EQ(traces.size(), 3u);
    EXPECT_EQ(traces[0]->GetFormattedMessage(),
              "value -3 of 7 from peer.example.internal:4711 (grüße aus UTF-16)");
    EXPECT_EQ(traces[0]->GetFileName(), __FILE__);
    EXPECT_EQ(traces[0]->GetLineNumber(), firstLine);
    EXPECT_EQ(traces[1]->GetFormattedMessage(), "512 bytes, ok true");
    EXPECT_EQ(traces[1]->GetSeverityMask(), net.mask() | paxl::Debug);
    EXPECT_EQ(traces[1]->GetFlags(), "Net");
    EXPECT_EQ(traces[2]->GetBinaryTraceID(), 4711u);
    EXPECT_EQ(traces[2]->GetParameterBufferSize(), 1u + 10u);
}

}  // namespace
