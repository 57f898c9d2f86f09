// A producer process for end-to-end runs: writes "value %1 of %2" at a steady rate into the buffer
// "Rate" for a number of seconds, then prints how many traces it wrote. Paced per millisecond, so
// that the rate is steady at the scale of the reader's update cycle.
//   bench_RateProducer <traces per second> <seconds>
// Prints "ready" once the buffer exists; TRACE_STREAM_SIZE sets the ring size as for any producer.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "paxltrace.h"

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <traces per second> <seconds>\n", argv[0]);
        return 2;
    }
    const double rate = std::atof(argv[1]);
    const double seconds = std::atof(argv[2]);
    TraceEngine* engine = nullptr;
    if (trace_engine_create("Rate", "Pace", 0, 7, true, &engine, nullptr) != TRACE_ENGINE_OK)
        return 1;
    trace_engine_set_location(engine, false);
    std::printf("ready\n");
    std::fflush(stdout);
    // Give the consumer's registry update a cycle to see the buffer.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto total = static_cast<unsigned long long>(rate * seconds);
    unsigned long long written = 0;
    int value = 0;
    const int of = static_cast<int>(total);
    TraceParameter params[2];
    for (unsigned ms = 1; written < total; ++ms) {
        const auto due =
            std::min<unsigned long long>(total, static_cast<unsigned long long>(rate * ms / 1000.0));
        for (; written < due; ++written) {
            value = static_cast<int>(written);
            trace_param_init(&params[0], TRACE_PARAM_INT32, &value);
            trace_param_init(&params[1], TRACE_PARAM_INT32, &of);
            trace_engine_write(engine, nullptr, 0, 4, "value %1 of %2", 0, 2, params);
        }
        std::this_thread::sleep_until(start + std::chrono::milliseconds(ms));
    }
    const double took = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("written %llu in %.2f s\n", written, took);
    trace_engine_destroy(engine);
    return 0;
}
