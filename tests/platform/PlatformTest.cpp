#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#ifdef _WIN32
#include <windows.h>
#endif

#include <cerrno>
#include <thread>

#include "TestSupport.h"
#include "platform/Clock.h"
#include "platform/EventLog.h"
#include "platform/ExecutablePath.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "platform/TextConversion.h"
#include "platform/Thread.h"

using namespace Tracing::Platform;

PAXLTRACE_CHILD_ROLE(SleepForever) {
    for (;;)
        SleepMs(1000);
}

TEST(PlatformProcess, LivenessFollowsAChildThroughItsLife) {
    uint64_t myCreation = 0;
    ASSERT_EQ(QueryProcess(CurrentProcessId(), myCreation), ProcessState::Running);
    EXPECT_NE(myCreation, 0u);

    const pid_t child = Tracing::Test::SpawnChild("SleepForever");
    ASSERT_GT(child, 0);
    uint64_t childCreation = 0;
    ASSERT_EQ(QueryProcess(child, childCreation), ProcessState::Running);
    uint64_t again = 0;
    QueryProcess(child, again);
    EXPECT_EQ(childCreation, again) << "creation time must be stable for the life of a process";

    ASSERT_EQ(::kill(child, SIGKILL), 0);
    // Killed but not yet reaped: the process object still exists, and it has ended.
    ASSERT_TRUE(Tracing::Test::WaitFor(
        [&] {
            uint64_t t;
            return QueryProcess(child, t) == ProcessState::Exited;
        },
        5000));
    EXPECT_EQ(Tracing::Test::WaitChild(child), 128 + SIGKILL);
    uint64_t t = 0;
#ifdef _WIN32
    // The system may keep the ended process's object a while after its last handle closed.
    const ProcessState reaped = QueryProcess(child, t);
    EXPECT_TRUE(reaped == ProcessState::NotFound || reaped == ProcessState::Exited);
#else
    EXPECT_EQ(QueryProcess(child, t), ProcessState::NotFound);
#endif
    EXPECT_EQ(QueryProcess(0, t), ProcessState::NotFound);
    EXPECT_EQ(QueryProcess(-5, t), ProcessState::NotFound);
#ifndef _WIN32
    // pid 1 exists in every namespace; as another user it is AccessDenied or readable, never dead.
    const ProcessState init = QueryProcess(1, t);
    EXPECT_TRUE(init == ProcessState::Running || init == ProcessState::AccessDenied);
#endif
    EXPECT_FALSE(IsServiceProcess());
}

TEST(PlatformThread, ThreadIdsAreCachedPerThreadAndDistinct) {
    const uint32_t mine = CurrentThreadId();
    EXPECT_EQ(mine, CurrentThreadId());
#ifdef _WIN32
    EXPECT_EQ(mine, static_cast<uint32_t>(::GetCurrentThreadId()));
#else
    EXPECT_EQ(mine, static_cast<uint32_t>(getpid())) << "the main thread's ID is the process ID";
#endif
    uint32_t other = 0;
    std::thread([&] { other = CurrentThreadId(); }).join();
    EXPECT_NE(other, 0u);
    EXPECT_NE(other, mine);
}

TEST(PlatformClock, ClocksAgreeAndAdvance) {
    const uint64_t precise = PreciseWallClock();
    const uint64_t coarse = WallClock();
    // Both count 100 ns units since 1970; the coarse clock lags by at most a few ticks.
    EXPECT_GT(precise, 16000000000000000ull);
    EXPECT_LT(precise > coarse ? precise - coarse : coarse - precise, 100000ull);  // 10 ms
    const uint32_t tick = TickMs();
    const int64_t counter = PerformanceCounter();
    SleepMs(20);
    EXPECT_GE(static_cast<uint32_t>(TickMs() - tick), 15u);
    EXPECT_GE(PerformanceCounter() - counter, 20 * PerformanceFrequency() / 1000);
}

TEST(PlatformError, TextsOfKnownAndUnknownCodes) {
#ifdef _WIN32
    // The system's own text, without the line end it comes with.
    const std::string text = ErrorText(ERROR_FILE_NOT_FOUND);
    EXPECT_FALSE(text.empty());
    EXPECT_GT(static_cast<unsigned char>(text.back()), 32u) << text;
    EXPECT_EQ(ErrorText(987654), "");
    ::SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(LastError(), ERROR_ACCESS_DENIED);
#else
    EXPECT_EQ(ErrorText(ENOENT), "No such file or directory");
    EXPECT_EQ(ErrorText(987654), "");
    errno = EACCES;
    EXPECT_EQ(LastError(), EACCES);
#endif
}

TEST(PlatformText, ConversionsRoundTripAndReplaceMalformedInput) {
    const std::string utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";  // a é € 😀 z
    const std::u16string utf16 = Utf8ToUtf16(utf8.data(), utf8.size());
    ASSERT_EQ(utf16.size(), 6u) << "the emoji takes a surrogate pair";
    EXPECT_EQ(utf16[3], 0xD83D);
    EXPECT_EQ(Utf16ToUtf8(utf16.data(), utf16.size()), utf8);
    const std::wstring wide = Utf8ToWide(utf8.data(), utf8.size());
    ASSERT_EQ(wide.size(), sizeof(wchar_t) == 2 ? 6u : 5u) << "UTF-16 or UTF-32";
    EXPECT_EQ(WideToUtf8(wide.data(), wide.size()), utf8);

    const char16_t lone[] = {u'x', 0xD800, u'y'};
    EXPECT_EQ(Utf16ToUtf8(lone, 3), "x\xEF\xBF\xBDy");
    const std::string bad = "\xC3(\xF0\x9F";
    EXPECT_EQ(Utf8ToUtf16(bad.data(), bad.size()), std::u16string(u"\uFFFD(\uFFFD"));
    const std::string overlong = "\xC0\xAF";  // '/' encoded in two bytes
    EXPECT_EQ(Utf8ToUtf16(overlong.data(), overlong.size())[0], 0xFFFD);
}

TEST(PlatformEventLog, SinkCapturesTheThreeStrings) {
    std::vector<EventLogEntry> entries;
    auto previous = SetEventLogSink([&](const EventLogEntry& e) { entries.push_back(e); });
    WriteEventLog(EventType::Warning, "TraceStream", "User: u, ProcessID: 1", "message");
    WriteEventLog(EventType::Error, nullptr, nullptr, nullptr);
    SetEventLogSink(std::move(previous));
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].type, EventType::Warning);
    EXPECT_EQ(entries[0].source + "|" + entries[0].userLine + "|" + entries[0].message,
              "TraceStream|User: u, ProcessID: 1|message");
    EXPECT_EQ(entries[1].source + entries[1].userLine + entries[1].message, "");
}

TEST(PlatformPath, ExecutablePathNamesThisTest) {
    const std::string path = ExecutableFilePath();
    EXPECT_NE(path.find("test_platform"), std::string::npos) << path;
#ifdef _WIN32
    EXPECT_EQ(path.substr(1, 2), std::string(":") + PathSeparator) << "a full path with its drive";
#else
    EXPECT_EQ(path.front(), PathSeparator);
#endif
}
