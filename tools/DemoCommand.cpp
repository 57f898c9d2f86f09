// demo: a few producer processes write traces while this process tails them.
//
// The producers are this executable again ("demo-producer NAME"), writing through the C interface
// as any application would.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <random>
#include <thread>

#include "Trace/Buffer/TraceBuffer.h"
#include "Trace/Registry/TraceRegistry.h"
#include "paxltrace.h"
#include "tools/Commands.h"
#include "tools/ToolOs.h"

namespace Tracing::Tool {

namespace {

struct ProducerModule {
    const char* Name;
    TraceEngine* Engine = nullptr;
    unsigned* Filter = nullptr;
    unsigned char FlagBits[2] = {0, 0};
    unsigned LastFilter = 0;
};

bool Enabled(const ProducerModule& module, unsigned severity, unsigned char flagBit = 0) {
    const unsigned filter = *module.Filter;
    if (flagBit != 0) {
        return (filter & (1u << flagBit) & ~0xFu) != 0;
    }
    return (filter & 7u) >= severity;
}

void Write(const ProducerModule& module, unsigned severityWord, const char* text, unsigned line,
           std::initializer_list<std::pair<unsigned, const void*>> parameters) {
    TraceParameter records[9];
    unsigned char count = 0;
    for (const auto& [type, value] : parameters) {
        trace_param_init(&records[count++], type, value);
    }
    trace_engine_write(module.Engine, __FILE__, line, severityWord, text, 0, count, records);
    trace_param_clear(records, count);
}

int RunProducer(const std::string& name, double duration) {
    InstallStopHandler();
    ProducerModule modules[] = {{"Network"}, {"Storage"}, {"Scheduler"}};
    const char* flagNames[3][2] = {{"IO", "Retry"}, {"Cache", "Sync"}, {"Timing", nullptr}};
    for (int i = 0; i < 3; ++i) {
        int result = trace_engine_create(name.c_str(), modules[i].Name, 0, 0, true, &modules[i].Engine,
                                         &modules[i].Filter);
        if ((result != TRACE_ENGINE_OK && result != TRACE_ENGINE_TEXT_TOO_LONG) ||
            modules[i].Filter == nullptr) {
            std::fprintf(stderr, "demo-producer %s: %s\n", name.c_str(), trace_engine_error_text(result));
            return ExitFailure;
        }
        for (int f = 0; f < 2 && flagNames[i][f] != nullptr; ++f) {
            modules[i].FlagBits[f] = trace_engine_register_flag(modules[i].Engine, flagNames[i][f], f == 0);
        }
        modules[i].LastFilter = *modules[i].Filter;
    }
    std::printf("producer %s ready\n", name.c_str());
    std::fflush(stdout);

    std::mt19937 random(static_cast<unsigned>(name.size()) * 7919u);
    const char* paths[] = {"/orders/42", "/billing/run", "/health", "/users/7/profile"};
    const auto start = std::chrono::steady_clock::now();
    for (int round = 1; !StopRequested(); ++round) {
        if (duration > 0 &&
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() >= duration) {
            break;
        }
        for (ProducerModule& module : modules) {
            // Filters are changed from outside (set-severity, set-flag, profiles): show what arrives.
            if (*module.Filter != module.LastFilter) {
                module.LastFilter = *module.Filter;
                std::printf("producer %s module %s filter 0x%08x severity %s\n", name.c_str(), module.Name,
                            module.LastFilter, trace_severity_to_string(module.LastFilter & 7u));
                std::fflush(stdout);
            }
        }
        ProducerModule& network = modules[0];
        ProducerModule& storage = modules[1];
        ProducerModule& scheduler = modules[2];
        const int latency = static_cast<int>(random() % 250);
        const char* path = paths[random() % 4];
        if (Enabled(network, Severity::Info)) {
            Write(network, Severity::Info, "Request %1 served in %2 ms", __LINE__,
                  {{TRACE_PARAM_STRING, path}, {TRACE_PARAM_INT32, &latency}});
        }
        if (latency > 200 && Enabled(network, Severity::Warning)) {
            Write(network, Severity::Warning, "Slow request %1 (%2 ms)", __LINE__,
                  {{TRACE_PARAM_STRING, path}, {TRACE_PARAM_INT32, &latency}});
        }
        if (Enabled(network, Severity::Verbose, network.FlagBits[0])) {
            const unsigned bytes = 512u + static_cast<unsigned>(random() % 4096);
            Write(network, (1u << network.FlagBits[0]) | Severity::Verbose, "Sent %1 bytes", __LINE__,
                  {{TRACE_PARAM_UINT32, &bytes}});
        }
        if (round % 7 == 0 && Enabled(network, Severity::Error, 0)) {
            const bool retry = round % 14 == 0;
            Write(network, Severity::Error, "Connection to %1 lost, retry %2", __LINE__,
                  {{TRACE_PARAM_STRING, "db.internal:5432"}, {TRACE_PARAM_BOOL, &retry}});
        }
        const double ratio = 0.5 + 0.5 * std::sin(round / 10.0);
        if (Enabled(storage, Severity::Debug)) {
            Write(storage, Severity::Debug, "Cache hit ratio %1", __LINE__, {{TRACE_PARAM_DOUBLE, &ratio}});
        }
        if (Enabled(storage, Severity::Verbose, storage.FlagBits[0])) {
            const long long key = 100000 + round;
            Write(storage, (1u << storage.FlagBits[0]) | Severity::Verbose, "Cache miss for key %1", __LINE__,
                  {{TRACE_PARAM_INT64, &key}});
        }
        if (round % 5 == 0 && Enabled(storage, Severity::Info)) {
            const unsigned long long written = 4096ull * static_cast<unsigned long long>(round);
            Write(storage, Severity::Info, "Flushed %1 bytes to disk", __LINE__,
                  {{TRACE_PARAM_UINT64, &written}});
        }
        if (round % 3 == 0 && Enabled(scheduler, Severity::Info)) {
            const float load = static_cast<float>(random() % 100) / 100.0f;
            Write(scheduler, Severity::Info, "Tick %1, load %2", __LINE__,
                  {{TRACE_PARAM_INT32, &round}, {TRACE_PARAM_FLOAT, &load}});
        }
        SleepUnlessStopped(100);
    }
    for (ProducerModule& module : modules) {
        trace_engine_destroy(module.Engine);
    }
    return ExitOk;
}

struct DemoOptions {
    double Duration = 10;
    bool Csv = false;
};

int RunDemo(const DemoOptions& options) {
    InstallStopHandler();
    const char* names[] = {"Orders", "Billing", "Gateway"};
    std::vector<long> producers;
    for (const char* name : names) {
        // The producers outlive the tail by a little; they are stopped explicitly.
        long pid = StartSelf({"demo-producer", name, "--duration", std::to_string(options.Duration + 30)});
        if (pid < 0) {
            std::cerr << "paxltrace: cannot start a producer\n";
        } else {
            producers.push_back(pid);
        }
    }
    std::cerr << "demo: " << producers.size() << " producers writing; tailing for " << options.Duration
              << " s (Ctrl-C ends)" << std::endl;
    TailOptions tail;
    tail.Csv = options.Csv;
    tail.Duration = options.Duration;
    tail.Midway = [] {
        // Show a filter change reaching a running producer.
        std::string error;
        TraceBuffer* buffer = FindConsumerBuffer("Billing", 0, error);
        int32_t module = buffer != nullptr ? buffer->GetModuleID("Storage") : -1;
        if (module >= 0 && buffer->SetSeverity(module, Severity::Debug)) {
            std::cerr << "demo: raised module Storage of buffer Billing to Debug" << std::endl;
        }
    };
    int result = RunTail(tail);
    for (long pid : producers) {
        StopChild(pid);
    }
    for (long pid : producers) {
        WaitChild(pid);
    }
    return result;
}

}  // namespace

void AddDemoCommands(CLI::App& app, Action& action) {
    auto demo = std::make_shared<DemoOptions>();
    CLI::App* command =
        app.add_subcommand("demo", "Start a few producer processes and tail their traces live");
    command->add_option("--duration,-d", demo->Duration, "Seconds to run (default 10)")
        ->check(CLI::PositiveNumber);
    command->add_flag("--csv", demo->Csv, "Show CSV instead of log lines");
    command->callback([&action, demo] { action = [demo] { return RunDemo(*demo); }; });

    auto name = std::make_shared<std::string>();
    auto duration = std::make_shared<double>(0);
    CLI::App* producer = app.add_subcommand("demo-producer", "A demo producer (started by demo)");
    producer->group("");  // hidden
    producer->add_option("name", *name, "Buffer name")->required();
    producer->add_option("--duration", *duration, "Seconds to run (default: until stopped)");
    producer->callback(
        [&action, name, duration] { action = [name, duration] { return RunProducer(*name, *duration); }; });
}

}  // namespace Tracing::Tool
