// Random bytes and texts through every parser of this folder: no crash, no read out of bounds
// (the ASan build checks the latter), and results that stay within their documented shapes.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "Trace/Records/CsvField.h"
#include "Trace/Records/Trace.h"
#include "Trace/Records/TraceIDTextMap.h"
#include "Trace/Records/TraceMessage.h"

namespace Tracing {
namespace {

constexpr int kRounds = 25000;

std::string RandomText(std::mt19937& rng, std::size_t maxLength) {
    static constexpr char kAlphabet[] = "%%%{{}}::xXpPq0123456789;;\"\"'ab \r\n|";
    std::uniform_int_distribution<std::size_t> length(0, maxLength);
    std::uniform_int_distribution<std::size_t> pick(0, sizeof(kAlphabet) - 2);
    std::string text(length(rng), ' ');
    for (char& c : text)
        c = kAlphabet[pick(rng)];
    return text;
}

// Parameter bytes with a bias towards valid type bytes, so that walks get deep.
std::vector<char> RandomParameterBytes(std::mt19937& rng) {
    std::uniform_int_distribution<int> count(0, 12), type(0, 14), byte(0, 255), len(0, 12);
    std::vector<char> bytes;
    for (int i = count(rng); i > 0; --i) {
        bytes.push_back(static_cast<char>(type(rng)));
        for (int k = len(rng); k > 0; --k)
            bytes.push_back(static_cast<char>(byte(rng) < 200 ? 'a' + byte(rng) % 26 : byte(rng) % 3));
    }
    return bytes;
}

}  // namespace

TEST(RecordsRandomInput, EntriesWithRandomParameterBytes) {
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> coin(0, 3);
    for (int round = 0; round < kRounds; ++round) {
        const std::string message = RandomText(rng, 24);
        const std::vector<char> parameters = RandomParameterBytes(rng);
        // Exact-size heap block: the entry ends where the readable bytes end.
        std::vector<char> entry;
        const bool binary = coin(rng) == 0;
        if (binary) {
            const uint64_t id = coin(rng) + 1;
            entry.insert(entry.end(), reinterpret_cast<const char*>(&id),
                         reinterpret_cast<const char*>(&id) + 8);
        } else {
            entry.insert(entry.end(), message.begin(), message.end());
            entry.push_back('\0');
        }
        entry.insert(entry.end(), parameters.begin(), parameters.end());
        const unsigned slack = static_cast<unsigned>(coin(rng));
        entry.resize(entry.size() + slack, 'L');
        const unsigned messageSize = binary ? 0 : static_cast<unsigned>(message.size() + 1);
        const unsigned locationSize = coin(rng) == 0 ? slack + static_cast<unsigned>(coin(rng)) : 0;
        std::vector<char> exact(entry);

        Trace t;
        const bool ok = t.Create(1, 1, 1, 0, 0, 0, 4, messageSize, static_cast<unsigned>(parameters.size()),
                                 locationSize, exact.data(), nullptr, exact.data() + exact.size());
        if (ok) {
            const std::string& text = t.GetFormattedMessage();
            if (binary && text.rfind("Binary trace ID '", 0) != 0)
                FAIL() << "round " << round << ": " << text;
            t.RefreshBinaryTrace();
            t.ExtractOverrideValuesFromMessage();
        }
        TraceMessage direct;
        Trace::FillTraceMessage(direct, static_cast<unsigned>(parameters.size()),
                                reinterpret_cast<const unsigned char*>(exact.data() + messageSize));
        ASSERT_LE(direct.GetParameterCount(), TraceMessage::MaxParameters);
    }
}

TEST(RecordsRandomInput, PlaceholderAndFailedBinaryTexts) {
    TraceIDTextMap& map = TraceIDTextMap::GetInstance();
    map.Clear();
    TraceIDTextFile file("random");
    file.SetText(5, "%1|%{2}|%3:x|%{4:p}|%9|%%");
    map.AddFile(std::move(file));

    std::mt19937 rng(77);
    std::uniform_int_distribution<int> count(0, 9), kind(0, 5);
    const char16_t wide[] = u"w\u00e9";
    for (int round = 0; round < kRounds; ++round) {
        TraceMessage m;
        for (int i = count(rng); i > 0; --i) {
            switch (kind(rng)) {
                case 0:
                    m.Add(static_cast<int32_t>(rng()));
                    break;
                case 1:
                    m.Add(static_cast<uint64_t>(rng()) << 20);
                    break;
                case 2:
                    m.Add(RandomText(rng, 20));
                    break;
                case 3:
                    m.Add(wide);
                    break;
                case 4:
                    m.Add(static_cast<double>(rng()) / 7);
                    break;
                default:
                    TraceParameter::SetToTooLong(*m.AddRawParameter());
                    break;
            }
        }
        const std::string format = RandomText(rng, 40);
        std::string out;
        TraceParameter::FormatString(out, format.c_str(), 0, m.GetParameterCount(), m.GetParameters());

        // A fallback text, possibly damaged, parsed back with a known ID.
        std::string failed;
        TraceParameter::FormatFailedBinaryTrace(failed, 5, m.GetParameterCount(), m.GetParameters());
        const std::string clean = failed;
        if (!failed.empty() && kind(rng) < 3)
            failed.resize(std::uniform_int_distribution<std::size_t>(0, failed.size())(rng));
        failed += RandomText(rng, 8);
        std::string parsed = "before";
        TraceParameter::ParseFailedBinaryTrace(parsed, failed.c_str());
        TraceParameter::ParseFailedBinaryTrace(parsed,
                                               ("Binary trace ID '5' " + RandomText(rng, 30)).c_str());
        // Undamaged, it gives what the known text gives with the original parameters.
        std::string expected;
        TraceParameter::FormatString(expected, nullptr, 5, m.GetParameterCount(), m.GetParameters());
        TraceParameter::ParseFailedBinaryTrace(parsed, clean.c_str());
        if (m.GetParameterCount() > 0) {
            ASSERT_EQ(parsed, expected) << clean;
        }

        const std::string csv = RandomText(rng, 30);
        const char* cursor = csv.c_str();
        std::string field;
        for (int guard = 0; *cursor != '\0' && guard < 100; ++guard) {
            const char* before = cursor;
            Internal::ReadCsvField(cursor, field, ';');
            if (cursor == before)
                ++cursor;  // stopped at a line end: the caller moves on
        }
    }
    map.Clear();
}

}  // namespace Tracing
