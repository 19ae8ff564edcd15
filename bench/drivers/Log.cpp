// Log and trace: what a disabled trace check costs, and how many records a second reach the file.
//
// Usage: kx_bench_log DIR LINES   (LINES for each figure, in DIR/log/bench.log)

#include <atomic>

#include <wx/log.h>

#include <VelCore/Trace.h>

#include "Driver.h"

namespace {

const double kNanosecondsPerSecond = 1e9;
const int kChecks = 20000000;

double NanosecondsPerCheck(const wxString& module)
{
    std::atomic<int> enabled{0}; // keeps the compiler from removing the loop
    const Driver::Clock::time_point start = Driver::Clock::now();
    for (int i = 0; i < kChecks; ++i) {
        if (VelCore::LogTraceIsEnabled(module))
            ++enabled;
    }
    return Driver::SecondsSince(start) * kNanosecondsPerSecond / kChecks;
}

template <typename Write>
double LinesPerSecond(int threads, int lines, const Write& write)
{
    const double seconds = Driver::OnThreads(threads, [&](int thread) {
        for (int line = thread; line < lines; line += threads)
            write();
    });
    return lines / seconds;
}

// The texts are finished, so that only what the log does with them counts.
void WriteTrace()
{
    static const wxString module(L"Bench");
    static const wxString text(L"record of this run, as long as usual");
    if (VelCore::LogTraceIsEnabled(module))
        VelCore::LogTrace(module, __FILE__, __LINE__, "WriteTrace", text);
}

void WriteWarning()
{
    wxLogWarning(L"record of this run, as long as usual");
}

} // namespace

int main(int argc, char** argv)
{
    Driver::ExpectArguments(argc, 2, "usage: kx_bench_log DIR LINES");
    const Driver::CCore core(argv[1]);
    const int lines = Driver::PositiveCount(argv[2], "LINES");

    core.Dom().Set("app.trace", "Appl,Cmd,vel.Heartbeat"); // other modules
    Driver::Print("off_trace", NanosecondsPerCheck(L"Bench"));
    core.Dom().Set("app.trace+", "Bench");
    Driver::Print("on_trace", LinesPerSecond(1, lines, WriteTrace));
    Driver::Print("on_trace|2 threads", LinesPerSecond(2, lines, WriteTrace));
    Driver::Print("on_log", LinesPerSecond(1, lines, WriteWarning));
    Driver::Print("on_log|2 threads", LinesPerSecond(2, lines, WriteWarning));
    return 0;
}
