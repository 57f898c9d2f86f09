// Timestamp texts: formatting, parsing and their round trip.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "Trace/Time/TraceTimer.h"

using namespace Tracing;

namespace {

// Each test runs in its own process, so the zone can be set before anything reads it.
void UseTimeZone(const char* zone) {
#ifdef _WIN32
    _putenv_s("TZ", zone);
    _tzset();
#else
    setenv("TZ", zone, 1);
    tzset();
#endif
}

constexpr uint64_t Units = 10000000;  // per second
// 2024-03-05 06:07:08.123456 UTC, plus 7 in the 100 ns digit that no text shows.
constexpr uint64_t Sample = 1709618828ULL * Units + 1234567;

std::string Format(uint64_t timestamp, TimestampMode::Type mode) {
    std::string text;
    TraceTimer::Format(timestamp, text, mode);
    return text;
}

std::string FormatTime(uint64_t timestamp, TimestampMode::Type mode) {
    std::string text;
    TraceTimer::FormatTime(timestamp, text, mode);
    return text;
}

}  // namespace

TEST(TraceTimerText, FormatsPerMode) {
    UseTimeZone("UTC");
    EXPECT_EQ(Format(Sample, TimestampMode::FAST), "2024.03.05 06:07:08.123");
    EXPECT_EQ(Format(Sample, TimestampMode::PRECISE), "2024.03.05 06:07:08.123456");
    EXPECT_EQ(Format(Sample, TimestampMode::OPTIMAL), "2024.03.05 06:07:08.123456");
    EXPECT_EQ(Format(Sample, TimestampMode::NotSet), "2024.03.05 06:07:08.123456");
    EXPECT_EQ(Format(Sample, TimestampMode::SEQ_ID), std::to_string(Sample));
    EXPECT_EQ(FormatTime(Sample, TimestampMode::FAST), "06:07:08.123");
    EXPECT_EQ(FormatTime(Sample, TimestampMode::PRECISE), "06:07:08.123456");
    EXPECT_EQ(FormatTime(42, TimestampMode::SEQ_ID), "42");

    // The optimal resolution applies to dates only.
    TraceTimer::SetTimestampOptimalFormat(TimestampMode::FAST);
    EXPECT_EQ(Format(Sample, TimestampMode::OPTIMAL), "2024.03.05 06:07:08.123");
    EXPECT_EQ(FormatTime(Sample, TimestampMode::OPTIMAL), "06:07:08.123456");
    TraceTimer::SetTimestampOptimalFormat(TimestampMode::OPTIMAL);
    EXPECT_EQ(Format(Sample, TimestampMode::OPTIMAL), "2024.03.05 06:07:08.123")
        << "OPTIMAL itself is ignored";
    TraceTimer::SetTimestampOptimalFormat(TimestampMode::PRECISE);
    EXPECT_EQ(Format(Sample, TimestampMode::OPTIMAL), "2024.03.05 06:07:08.123456");

    // Differences do not wrap at a day.
    for (const auto& [difference, text] :
         {std::pair<uint64_t, std::string>{36000000000ULL * 25, "25:00:00.000"},
          {36000000000ULL + 2 * 600000000ULL + 3 * Units + 4 * 10000 + 5 * 10, "01:02:03.004005"},
          {59 * 600000000ULL + 59 * Units + 999 * 10000, "00:59:59.999"},
          {9, "00:00:00.000"}}) {  // below a microsecond
        std::string out;
        TraceTimer::FormatDiff(difference, out);
        EXPECT_EQ(out, text);
    }
}

TEST(TraceTimerText, ParseTellsTheModeFromTheFraction) {
    UseTimeZone("UTC");
    TimestampMode::Type mode = TimestampMode::OPTIMAL;
    const uint64_t second = 1709618828ULL * Units;

    EXPECT_EQ(TraceTimer::Parse("2024.03.05 06:07:08.12", mode), second + 1200000);
    EXPECT_EQ(mode, TimestampMode::FAST);
    EXPECT_EQ(TraceTimer::Parse("2024.03.05 06:07:08.123", mode), second + 1230000);
    EXPECT_EQ(mode, TimestampMode::FAST);
    EXPECT_EQ(TraceTimer::Parse("2024.03.05 06:07:08.1234", mode), second + 1234000);
    EXPECT_EQ(mode, TimestampMode::PRECISE);
    EXPECT_EQ(TraceTimer::Parse("2024.03.05 06:07:08.1234567", mode), second + 1234567);
    EXPECT_EQ(mode, TimestampMode::PRECISE);
    EXPECT_EQ(TraceTimer::Parse("12345", mode), 12345u);
    EXPECT_EQ(mode, TimestampMode::SEQ_ID);

    for (const char* bad : {"2024.03.05 06:07:08.12345678", "2024.03.05 06:07:08.123 ",
                            "2024.03.05 06:07:08.123x", "2024.03.05 06:07:08", "2024.03.05 06:07:08.",
                            "12345 ", "12345abc", "", "1969.12.31 00:00:00.000"}) {
        mode = TimestampMode::FAST;
        EXPECT_EQ(TraceTimer::Parse(bad, mode), 0u) << bad;
        EXPECT_EQ(mode, TimestampMode::NotSet) << bad;
    }
    mode = TimestampMode::FAST;
    EXPECT_EQ(TraceTimer::Parse(nullptr, mode), 0u);
    EXPECT_EQ(mode, TimestampMode::NotSet);
    EXPECT_EQ(TraceTimer::Parse(std::string("12345\0"
                                            "6",
                                            7),
                                mode),
              0u)
        << "the whole text must be read";
    EXPECT_EQ(mode, TimestampMode::NotSet);
}

TEST(TraceTimerText, ParseReadsLocalTime) {
    // Central Europe: UTC+1 in winter, UTC+2 in summer.
#ifdef _WIN32
    GTEST_SKIP() << "the C runtime's TZ has no rules for the change of summer time";
#endif
    UseTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
    TimestampMode::Type mode;
    EXPECT_EQ(TraceTimer::Parse("2024.07.01 12:00:00.000", mode), 1719828000ULL * Units);
    EXPECT_EQ(TraceTimer::Parse("2024.01.01 12:00:00.000", mode), 1704106800ULL * Units);
    EXPECT_EQ(Format(1719828000ULL * Units, TimestampMode::FAST), "2024.07.01 12:00:00.000");
    EXPECT_EQ(Format(1704106800ULL * Units, TimestampMode::FAST), "2024.01.01 12:00:00.000");
}

TEST(TraceTimerText, FormattedAndOddTextsReadBackTheSame) {
    UseTimeZone("UTC");
    // 1970 to about 2200 in odd steps, so that every field and leap rule gets its turn.
    for (uint64_t timestamp = 0; timestamp < 7258118400ULL * Units;
         timestamp += 7258118400ULL * Units / 1999 + 1234567) {
        TimestampMode::Type mode = TimestampMode::NotSet;
        ASSERT_EQ(TraceTimer::Parse(Format(timestamp, TimestampMode::PRECISE), mode), timestamp / 10 * 10)
            << Format(timestamp, TimestampMode::PRECISE);
        ASSERT_EQ(mode, TimestampMode::PRECISE);
        ASSERT_EQ(TraceTimer::Parse(Format(timestamp, TimestampMode::FAST), mode), timestamp / 10000 * 10000);
        ASSERT_EQ(mode, TimestampMode::FAST);
    }

    // Odd texts: whatever was accepted as a date prints as a date that reads back the same.
    for (const std::string tail : {"", "99.999", "08.-1", "08.+1", "8.1", "08.1.2", "08:1", "-1:00.000",
                                   "60.000", "59.9999999", "08. 12", "99999999999999999999.1"})
        for (const std::string& text : {tail, "2024.03.05 06:07:" + tail, "2024.02.30 25:61:" + tail,
                                        "99999999999999999999999" + tail, "-" + tail}) {
            TimestampMode::Type mode = TimestampMode::OPTIMAL;
            const uint64_t value = TraceTimer::Parse(text, mode);
            if (mode == TimestampMode::FAST || mode == TimestampMode::PRECISE) {
                TimestampMode::Type again = TimestampMode::NotSet;
                ASSERT_EQ(TraceTimer::Parse(Format(value, TimestampMode::PRECISE), again), value / 10 * 10)
                    << text;
            } else if (mode == TimestampMode::NotSet) {
                ASSERT_EQ(value, 0u) << text;
            } else {
                ASSERT_EQ(mode, TimestampMode::SEQ_ID) << text;
            }
        }
}
