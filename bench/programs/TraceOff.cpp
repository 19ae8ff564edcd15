// A trace check that is switched off, next to the least that a switch can cost, a relaxed atomic load, and to a record
// below the level of a spdlog logger.
//
// Usage: TraceOff ROUNDS CALLS   (prints "ROW CONTENDER SAMPLE", nanoseconds per check)

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>

#include <VelCore/Trace.h>

#include "drivers/Driver.h"

namespace {

const double kNanosecondsPerSecond = 1e9;

std::atomic<bool> g_isOn{false};
std::atomic<int> g_records{0}; // none is ever written; the compiler does not know

template <typename Check>
void Measure(const char* contender, int calls, const Check& check)
{
    const Driver::Clock::time_point start = Driver::Clock::now();
    for (int i = 0; i < calls; ++i)
        check(i);
    std::printf("trace.off %s %.4f\n", contender, Driver::SecondsSince(start) * kNanosecondsPerSecond / calls);
}

} // namespace

int main(int argc, char** argv)
{
    Driver::ExpectArguments(argc, 2, "usage: TraceOff ROUNDS CALLS");
    const int rounds = Driver::PositiveCount(argv[1], "ROUNDS");
    const int calls = Driver::PositiveCount(argv[2], "CALLS");

    const std::unique_ptr<VelCore::CDom> root(VelCore::CDom::New(nullptr, nullptr, nullptr, false));
    root->Set("app.trace", "Appl,Cmd,Srvc,vel.Heartbeat,vel.ListenThread,vel.PluginUtils");
    const wxString module(L"Bench");
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_st>());

    for (int round = 0; round < rounds; ++round) {
        Measure("floor", calls, [](int) {
            if (g_isOn.load(std::memory_order_relaxed))
                ++g_records;
        });
        Measure("agent", calls, [&module](int) {
            if (VelCore::LogTraceIsEnabled(module))
                ++g_records;
        });
        Measure("spdlog", calls, [&logger](int call) { logger.debug("record {} of this run", call); });
    }
    return g_records == 0 ? 0 : 1;
}
