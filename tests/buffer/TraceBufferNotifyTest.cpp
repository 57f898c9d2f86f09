#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Buffer/TraceBufferUpdateSuspender.h"
#include "Trace/Buffer/TraceModuleData.h"
#include "Trace/Reading/TraceUpdateManager.h"

using namespace Tracing;

namespace {

// Records every call; the updater thread and the test thread both touch it.
class Recorder : public ITraceBufferDataChangedListener, public INewTracesListener {
public:
    void OnSystemNameChanged(TraceBuffer&, const std::string& old, const std::string& name) override {
        Add("system " + old + ">" + name);
    }
    void OnApplicationNameChanged(TraceBuffer&, const std::string& old, const std::string& name) override {
        Add("application " + old + ">" + name);
    }
    void OnModulesCreated(TraceBuffer&, const std::set<int>& ids) override { Add("created ", ids); }
    void OnModuleFiltersChanged(TraceBuffer&, const std::set<int>& ids) override { Add("filters ", ids); }
    void OnFlagsRegistered(TraceBuffer&, int id, unsigned flags) override {
        Add("flags " + std::to_string(id) + ":" + std::to_string(flags));
    }
    void OnNewTraces(TraceBuffer&) override { Add("traces"); }

    std::vector<std::string> Calls() {
        std::lock_guard lock(m_mutex);
        return m_calls;
    }
    void Clear() {
        std::lock_guard lock(m_mutex);
        m_calls.clear();
    }

private:
    void Add(std::string call, const std::set<int>& ids = {}) {
        for (int id : ids)
            call += std::to_string(id) + ",";
        std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
    }

    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

using Calls = std::vector<std::string>;

// Two complete cycles: the first may have started before the change.
void Poll() {
    ASSERT_TRUE(TraceUpdateManager::GetInstance().WaitForAllUpdates());
    ASSERT_TRUE(TraceUpdateManager::GetInstance().WaitForAllUpdates());
}

void WriteTraces(TraceBuffer& buffer, int32_t moduleID, int count) {
    for (int i = 0; i < count; ++i)
        buffer.GetTraceStream()->Write(0, moduleID, 1, 0, Severity::Info, nullptr, 0, "trace %1", 0, nullptr);
}

struct Producer {
    TraceBuffer buffer;
    int32_t first = -1;
    int32_t second = -1;

    explicit Producer(int32_t bufferID) {
        EXPECT_EQ(
            buffer.Create(bufferID, getpid(), TimestampMode::NotSet, "", "", "System", "App", "Notify", 4, 0),
            TraceBuffer::Success);
        first = buffer.RegisterModule("first", Severity::Info)->GetModuleID();
        second = buffer.RegisterModule("second", Severity::Info)->GetModuleID();
    }
};

}  // namespace

PAXLTRACE_CHILD_ROLE(ChangeFromOutside) {
    TraceBuffer buffer;
    if (buffer.Attach(std::stoi(args.at(0)), std::stoll(args.at(1)), "", "Notify") != TraceBuffer::Success)
        return 2;
    if (buffer.RegisterModule("third", Severity::Info) == nullptr)
        return 3;
    buffer.SetSystemName("Sys2");
    buffer.SetApplicationName("App2");
    const int32_t second = std::stoi(args.at(2));
    return buffer.SetSeverity(second, Severity::Debug) && buffer.RegisterFlag(second, "IO", false) == 4 ? 0
                                                                                                        : 4;
}

TEST(TraceBufferNotify, ChangesOfAnotherProcessAreReportedOnce) {
    Producer producer(70);
    Recorder recorder;
    producer.buffer.RegisterDataChangedListener(&recorder, false);

    {
        // Our own registration finds the child's module first; it must still be reported.
        TraceBufferUpdateSuspender suspender(producer.buffer);
        const pid_t child = Tracing::Test::SpawnChild(
            "ChangeFromOutside", {"70", std::to_string(getpid()), std::to_string(producer.second)});
        ASSERT_EQ(Tracing::Test::WaitChild(child), 0);
        ASSERT_NE(producer.buffer.RegisterModule("fourth", Severity::Info), nullptr);
    }
    Poll();
    const int32_t third = producer.buffer.GetModuleID("third");
    const std::string second = std::to_string(producer.second);
    EXPECT_EQ(recorder.Calls(),
              (Calls{"system System>Sys2", "application App>App2", "created " + std::to_string(third) + ",",
                     "filters " + second + ",", "flags " + second + ":16"}));
    producer.buffer.UnregisterDataChangedListener(&recorder);
}

// A slot changed behind the buffer's back (no counter move) shows whether a full update ran.
TEST(TraceBufferNotify, OwnChangesAndSuspensionRunNoFullUpdate) {
    Producer producer(71);
    Recorder recorder;
    producer.buffer.RegisterDataChangedListener(&recorder, false);
    producer.buffer.RegisterNewTracesListener(&recorder);
    TraceModuleData* hidden = producer.buffer.GetBufferData()->GetModule(0);
    ASSERT_EQ(hidden->GetModuleID(), producer.first);
    hidden->SetSeverity(Severity::Debug);

    EXPECT_TRUE(producer.buffer.SetSeverity(producer.second, Severity::Error));
    EXPECT_NE(producer.buffer.RegisterFlag(producer.second, "IO", true), 0);
    producer.buffer.SetApplicationName("Renamed");
    Poll();
    // The rename is told at once; a full update would tell of the hidden slot too.
    EXPECT_EQ(recorder.Calls(), Calls{"application App>Renamed"}) << "own changes ran a full update";
    recorder.Clear();

    {
        TraceBufferUpdateSuspender suspender(producer.buffer);
        producer.buffer.IncChangeCounter();  // as another process would
        WriteTraces(producer.buffer, producer.first, 3);
        Poll();
        EXPECT_EQ(recorder.Calls(), Calls{}) << "reported while suspended";
    }
    Poll();
    EXPECT_EQ(recorder.Calls(), (Calls{"filters " + std::to_string(producer.first) + ",", "traces"}));

    // A resume forces the comparison even when no counter moved.
    recorder.Clear();
    hidden->SetSeverity(Severity::Info);
    producer.buffer.SuspendUpdate();
    producer.buffer.ResumeUpdate();
    Poll();
    EXPECT_EQ(recorder.Calls(), Calls{"filters " + std::to_string(producer.first) + ","})
        << "resume without moved counters";
    producer.buffer.UnregisterNewTracesListener(&recorder);
    producer.buffer.UnregisterDataChangedListener(&recorder);
}

namespace {

class SelfRemover : public INewTracesListener {
public:
    int calls = 0;
    void OnNewTraces(TraceBuffer& buffer) override {
        ++calls;
        buffer.UnregisterNewTracesListener(this);
    }
};

}  // namespace

TEST(TraceBufferNotify, ManyTracesAreOneNotificationPerPollAndListenersMayLeaveFromACallback) {
    Producer producer(72);
    Recorder recorder;
    Recorder initial;
    producer.buffer.RegisterNewTracesListener(&recorder);
    producer.buffer.RegisterNewTracesListener(&recorder);  // no duplicate
    producer.buffer.RegisterDataChangedListener(&initial, true);
    producer.buffer.RegisterDataChangedListener(&recorder, false);
    EXPECT_EQ(initial.Calls(), Calls{"created " + std::to_string(producer.first) + "," +
                                     std::to_string(producer.second) + ","});
    EXPECT_EQ(recorder.Calls(), Calls{});

    SelfRemover remover;
    producer.buffer.RegisterNewTracesListener(&remover);
    {
        TraceBufferUpdateSuspender suspender(producer.buffer);
        WriteTraces(producer.buffer, producer.first, 500);
    }
    Poll();  // a deadlock in the self-removal would make the wait fail
    EXPECT_EQ(recorder.Calls(), Calls{"traces"});
    WriteTraces(producer.buffer, producer.first, 1);
    Poll();
    EXPECT_EQ(recorder.Calls(), (Calls{"traces", "traces"}));
    EXPECT_EQ(remover.calls, 1);
    producer.buffer.UnregisterNewTracesListener(&recorder);
    producer.buffer.UnregisterDataChangedListener(&initial);
    producer.buffer.UnregisterDataChangedListener(&recorder);
}
