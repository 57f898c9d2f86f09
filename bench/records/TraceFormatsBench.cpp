// Lines per second of the log and CSV writers for a typical record (names filled, a formatted
// message of about 40 characters, a file name), against one snprintf of a comparable line and the
// same stream write. Into a string stream and into a file stream with a large buffer.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Trace/Records/Trace.h"

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
