#include "Trace/Ipc/TraceProcessData.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "TestSupport.h"
#include "platform/Thread.h"

using Tracing::TraceProcessData;
using namespace Tracing::Test;

PAXLTRACE_CHILD_ROLE(IdleChild) {
    for (;;)
        Tracing::Platform::SleepMs(1000);
}

TEST(TraceProcessData, IdentifiesProcessesByIdAndCreationTimeUntilTheyAreReaped) {
    TraceProcessData self;
    ASSERT_TRUE(self.Fill(getpid()));
    EXPECT_EQ(self, TraceProcessData::GetCurrent());
    EXPECT_NE(self.GetCreationTime(), 0u);
    EXPECT_TRUE(self.IsAlive());
    // Same ID, another creation time: a new process under a recycled ID.
    EXPECT_FALSE(TraceProcessData(getpid(), self.GetCreationTime() + 1).IsAlive());
    EXPECT_FALSE(TraceProcessData().IsAlive());

    const pid_t child = SpawnChild("IdleChild");
    ASSERT_GT(child, 0);
    TraceProcessData record;
    ASSERT_TRUE(record.Fill(child));
    EXPECT_EQ(record.GetPID(), child);
    EXPECT_TRUE(record.IsAlive() && TraceProcessData::IsProcessAlive(child));

    // Killed but not reaped: its process object remains, yet it counts as dead.
    ASSERT_EQ(kill(child, SIGKILL), 0);
    ASSERT_TRUE(WaitFor([&] { return !TraceProcessData::IsProcessAlive(child); }, 5000));
    const TraceProcessData before = record;
    EXPECT_FALSE(record.Fill(child));
    EXPECT_EQ(record, before) << "a failed Fill keeps the record";
    EXPECT_FALSE(record.IsAlive());

    EXPECT_EQ(WaitChild(child), 128 + SIGKILL);
    EXPECT_FALSE(record.IsAlive() || TraceProcessData::IsProcessAlive(child));
}
