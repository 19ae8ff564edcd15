// Agent events, each durable before the next: how many a second, and how long one takes.
//
// Usage: kx_bench_events DIR COUNT   (in DIR/agent_events.db)

#include <algorithm>
#include <vector>

#include <VelCore/SqliteDatabase.h>

#include "drivers/Driver.h"
#include "drivers/OrdinaryEvent.h"

namespace {

const double kMicrosecondsPerSecond = 1e6;

// The value that `share` of all are not above; `sorted` is not empty.
double Percentile(const std::vector<double>& sorted, double share)
{
    return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
}

} // namespace

int main(int argc, char** argv)
{
    Driver::ExpectArguments(argc, 2, "usage: kx_bench_events DIR COUNT");
    const Driver::CCore core(argv[1]);
    const int count = Driver::PositiveCount(argv[2], "COUNT");

    VelCore::CSqliteDatabase::InitializeSQLite(&core.Dom());
    const VelCore::CAgentEvent event = Driver::OrdinaryEvent();
    core.Dom().AgentEventWrite(event); // makes the database

    std::vector<double> microseconds;
    const Driver::Clock::time_point start = Driver::Clock::now();
    for (int i = 0; i < count; ++i) {
        const Driver::Clock::time_point begun = Driver::Clock::now();
        core.Dom().AgentEventWrite(event);
        microseconds.push_back(Driver::SecondsSince(begun) * kMicrosecondsPerSecond);
    }
    const double seconds = Driver::SecondsSince(start);
    std::sort(microseconds.begin(), microseconds.end());

    Driver::Print("rate", count / seconds);
    Driver::Print("p50", Percentile(microseconds, 0.50));
    Driver::Print("p99", Percentile(microseconds, 0.99));
    VelCore::CSqliteDatabase::ShutdownSQLite();
    return 0;
}
