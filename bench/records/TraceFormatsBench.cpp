// Lines per second of the log and CSV writers for a typical record (names filled, a formatted
// message of about 40 characters, a file name), against one snprintf of a comparable line and the
// same stream write. Into a string stream, into a file stream (the records' flush after every line
// is a system call each), and into a file as the paxltrace tool writes: through its batched output,
// committed once per delivered batch. Targets for the tool: >= 3 M log lines/s, >= 2 M CSV lines/s.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Trace/Records/Trace.h"
#if PAXLTRACE_BENCH_TOOL
#include "tools/BatchedOutput.h"
#endif

namespace {

using Tracing::Trace;

std::unique_ptr<Trace> TypicalRecord() {
    std::istringstream in(
        "123456;build-host-01;ProductionSystem;OrderService;Persistence;Database;Info;0x30;"
        "2024.05.06 07:08:09.123456;4711 (0x1a2b);\"Committed transaction 42 after 3 retries\";"
        "OrderRepository.cpp;321\n");
    std::vector<std::unique_ptr<Trace>> traces;
    Trace::ReadCsvFromStream(in, traces, 0, Trace::CSV_SEPARATOR);
    return std::move(traces.at(0));
}

// The comparable line in one snprintf: same columns and widths.
void SnprintfLine(char* line, std::size_t size, int& length) {
    length = std::snprintf(line, size,
                           "%10u|%-20s|%-20s|%-20s|%-20s|%-20s|%-17s|%-10s|%-29s|%-14s|%s|%-25s|%-6u\n",
                           123456u, "build-host-01", "ProductionSystem", "OrderService", "Persistence",
                           "Database", "Info", "0x30", "2024.05.06 07:08:09.123456", "4711 (0x1a2b)",
                           "Committed transaction 42 after 3 retries", "OrderRepository.cpp", 321u);
}

// A string stream emptied every so often, so that memory stays flat.
template <typename WriteLine>
void IntoStringStream(benchmark::State& state, WriteLine&& writeLine) {
    std::ostringstream out;
    std::size_t lines = 0;
    for (auto _ : state) {
        writeLine(out);
        if (++lines % 4096 == 0)
            out.str(std::string());
    }
    state.SetItemsProcessed(state.iterations());
}

template <typename WriteLine>
void IntoFile(benchmark::State& state, WriteLine&& writeLine) {
    const auto path = std::filesystem::temp_directory_path() / "paxltrace_formats_bench.log";
    std::vector<char> buffer(1 << 20);
    {
        std::ofstream out;
        out.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        out.open(path, std::ios::binary | std::ios::trunc);
        for (auto _ : state)
            writeLine(out);
    }
    std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations());
}

#if PAXLTRACE_BENCH_TOOL
// As the tool: a plain file stream behind the batched output, one commit per reader batch.
template <typename WriteLine>
void IntoFileBatched(benchmark::State& state, WriteLine&& writeLine) {
    constexpr std::size_t LinesPerBatch = 50000;
    const auto path = std::filesystem::temp_directory_path() / "paxltrace_formats_bench_batched.log";
    {
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        Tracing::Tool::BatchedOutput out(file);
        std::size_t lines = 0;
        for (auto _ : state) {
            writeLine(out);
            if (++lines % LinesPerBatch == 0)
                out.Commit();
        }
        out.Commit();
    }
    std::filesystem::remove(path);
    state.SetItemsProcessed(state.iterations());
}

#endif

void WriteToStream(benchmark::State& state) {
    const auto trace = TypicalRecord();
    IntoStringStream(state, [&](std::ostream& out) { trace->WriteToStream(out, Trace::LOG_SEPARATOR); });
}
BENCHMARK(WriteToStream);

void WriteCsvToStream(benchmark::State& state) {
    const auto trace = TypicalRecord();
    IntoStringStream(state, [&](std::ostream& out) { trace->WriteCsvToStream(out, Trace::CSV_SEPARATOR); });
}
BENCHMARK(WriteCsvToStream);

void SnprintfBaseline(benchmark::State& state) {
    char line[512];
    IntoStringStream(state, [&](std::ostream& out) {
        int length = 0;
        SnprintfLine(line, sizeof(line), length);
        out.write(line, length);
        out.flush();
    });
}
BENCHMARK(SnprintfBaseline);

void WriteToStreamFile(benchmark::State& state) {
    const auto trace = TypicalRecord();
    IntoFile(state, [&](std::ostream& out) { trace->WriteToStream(out, Trace::LOG_SEPARATOR); });
}
BENCHMARK(WriteToStreamFile);

void WriteCsvToStreamFile(benchmark::State& state) {
    const auto trace = TypicalRecord();
    IntoFile(state, [&](std::ostream& out) { trace->WriteCsvToStream(out, Trace::CSV_SEPARATOR); });
}
BENCHMARK(WriteCsvToStreamFile);

#if PAXLTRACE_BENCH_TOOL
void WriteToStreamFileBatched(benchmark::State& state) {
    const auto trace = TypicalRecord();
    IntoFileBatched(state, [&](std::ostream& out) { trace->WriteToStream(out, Trace::LOG_SEPARATOR); });
}
BENCHMARK(WriteToStreamFileBatched);

void WriteCsvToStreamFileBatched(benchmark::State& state) {
    const auto trace = TypicalRecord();
    IntoFileBatched(state, [&](std::ostream& out) { trace->WriteCsvToStream(out, Trace::CSV_SEPARATOR); });
}
BENCHMARK(WriteCsvToStreamFileBatched);
#endif

void SnprintfBaselineFile(benchmark::State& state) {
    char line[512];
    IntoFile(state, [&](std::ostream& out) {
        int length = 0;
        SnprintfLine(line, sizeof(line), length);
        out.write(line, length);
        out.flush();
    });
}
BENCHMARK(SnprintfBaselineFile);

}  // namespace

BENCHMARK_MAIN();
