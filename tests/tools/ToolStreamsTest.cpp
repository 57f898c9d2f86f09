// The tool's pieces for many records: batched output, the batch-wise file reader, loss counting.
#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "Trace/Records/Trace.h"
#include "tools/BatchedOutput.h"
#include "tools/DeliveryStats.h"
#include "tools/TraceFileReader.h"

namespace Tracing::Tool {
namespace {

std::unique_ptr<Trace> Record(unsigned id, const std::string& message) {
    std::istringstream in(std::to_string(id) + ";host;System;App;Sub;Mod;Info;;\"2024.05.06 07:08:09.123\";" +
                          "\"1 (0x2)\";\"" + message + "\";file.cpp;7\n");
    std::vector<std::unique_ptr<Trace>> traces;
    Trace::ReadCsvFromStream(in, traces, 0, Trace::CSV_SEPARATOR);
    return std::move(traces.at(0));
}

TEST(BatchedOutput, RecordFlushesWaitForTheCommit) {
    std::ostringstream target;
    BatchedOutput out(target, 4096);
    Record(1, "one")->WriteCsvToStream(out, Trace::CSV_SEPARATOR);
    EXPECT_TRUE(target.str().empty());
    ASSERT_TRUE(out.Commit());
    const std::string oneLine = target.str();
    EXPECT_EQ(oneLine.rfind("1;host;", 0), 0u);
    // More than the buffer holds goes out without a commit, whole lines in order.
    for (unsigned id = 2; id < 200; ++id)
        Record(id, std::string(40, 'x'))->WriteToStream(out, Trace::LOG_SEPARATOR);
    EXPECT_GT(target.str().size(), oneLine.size());
    out.Commit();
    const std::string all = target.str();
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 199);
}

struct ReaderCase {
    TraceFileReader::Format format;
    std::size_t batchLines;
};

class TraceFileReaderTest : public ::testing::TestWithParam<ReaderCase> {};

// Batches of any size give the records that one read of the whole file gives, even where a
// message runs over several lines across a batch boundary; lines that are no records are counted.
TEST_P(TraceFileReaderTest, BatchesReadAsTheWholeFile) {
    const bool csv = GetParam().format == TraceFileReader::Format::Csv;
    const char separator = csv ? Trace::CSV_SEPARATOR : Trace::LOG_SEPARATOR;
    const std::vector<std::string> messages = {"plain", "two\nlines",         "a;b|c \"quoted\"",
                                               "",      "three\nmore\nlines", "last"};
    std::ostringstream file;
    file << "garbage before the header\n";
    if (csv)
        Trace::GetTraceCsvHeader(file, separator);
    else
        Trace::GetTraceHeader(file, separator);
    file << "\x01\x02 noise\n";
    const std::size_t noise = 2;
    std::ostringstream records;
    for (std::size_t i = 0; i < messages.size(); ++i) {
        auto trace = Record(static_cast<unsigned>(i + 1), "x");
        trace->SetFormattedMessage(messages[i]);
        if (csv)
            trace->WriteCsvToStream(records, separator);
        else
            trace->WriteToStream(records, separator);
    }
    file << records.str();

    std::vector<std::unique_ptr<Trace>> whole;
    std::istringstream wholeIn(records.str());
    if (csv)
        Trace::ReadCsvFromStream(wholeIn, whole, 0, separator);
    else
        Trace::ReadFromStream(wholeIn, whole, 0, separator);
    ASSERT_EQ(whole.size(), messages.size());

    std::istringstream in(file.str());
    TraceFileReader reader(in, GetParam().format, separator);
    std::vector<std::unique_ptr<Trace>> batched;
    for (int calls = 0; reader.ReadBatch(batched, GetParam().batchLines); ++calls)
        ASSERT_LT(calls, 100);
    ASSERT_EQ(batched.size(), whole.size());
    for (std::size_t i = 0; i < whole.size(); ++i) {
        EXPECT_EQ(batched[i]->GetID(), whole[i]->GetID());
        EXPECT_EQ(batched[i]->GetFormattedMessage(), whole[i]->GetFormattedMessage()) << i;
    }
    EXPECT_EQ(reader.GetSkippedLines(), noise);
}

INSTANTIATE_TEST_SUITE_P(FormatsAndBatches, TraceFileReaderTest,
                         ::testing::Values(ReaderCase{TraceFileReader::Format::Csv, 1},
                                           ReaderCase{TraceFileReader::Format::Csv, 4},
                                           ReaderCase{TraceFileReader::Format::Log, 1},
                                           ReaderCase{TraceFileReader::Format::Log, 2},
                                           ReaderCase{TraceFileReader::Format::Log, 1000}));

TEST(TraceFileReader, RandomBytesAreNoTraces) {
    std::mt19937 random(15);
    std::string bytes(256 * 1024, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random());
    for (auto format : {TraceFileReader::Format::Csv, TraceFileReader::Format::Log}) {
        std::istringstream in(bytes);
        TraceFileReader reader(in, format, format == TraceFileReader::Format::Csv ? ';' : '|');
        std::vector<std::unique_ptr<Trace>> traces;
        while (reader.ReadBatch(traces, 100)) {
        }
        EXPECT_EQ(traces.size(), 0u);
        EXPECT_GT(reader.GetSkippedLines(), 100u);
    }
}

// A loss is the ID gap around the reader's report; reports without a gap after them stay open.
TEST(DeliveryStats, LossesAreTheGapsAroundOverflowReports) {
    struct Step {
        int buffer;
        unsigned id;  // 0: an overflow report of the buffer
    };
    const Step steps[] = {{1, 10}, {1, 11}, {1, 0}, {1, 0}, {1, 20}, {2, 5}, {2, 0}, {1, 21}, {2, 6}, {1, 0}};
    DeliveryStats stats;
    std::vector<uint64_t> completed;
    for (const Step& step : steps) {
        // Reports are records of no module.
        Trace record;
        ASSERT_TRUE(record.Create(step.id, step.buffer, step.id == 0 ? -1 : 0, 1, 1, 1, 4, 2, 0, 0, "m",
                                  nullptr, nullptr));
        DeliveryStats::Loss loss;
        if (stats.Observe(record, loss))
            completed.push_back(loss.Lost);
    }
    EXPECT_EQ(completed, (std::vector<uint64_t>{8, 0}));
    EXPECT_EQ(stats.GetDelivered(), 6u);
    EXPECT_EQ(stats.GetLost(), 8u);
    EXPECT_EQ(stats.GetLargestGap(), 8u);
    EXPECT_EQ(stats.GetOverflows(), 4u);
    int open = 0;
    stats.FlushPending([&](const DeliveryStats::Loss& loss) {
        EXPECT_EQ(loss.BufferID, 1);
        ++open;
    });
    EXPECT_EQ(open, 1);
}

}  // namespace
}  // namespace Tracing::Tool
