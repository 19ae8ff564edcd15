// Records that are in the file when the call returns, next to the least that this can cost: one write() of a finished
// line to a file that is open for appending.
//
// Several threads write to the same file in every case. All lines are about as long. The agent's trace records and
// spdlog's, flushed one by one, get a finished text; the agent's warnings also pass through the framework's log.
//
// Usage: Records FOLDER THREADS ROUNDS LINES   (prints "ROW CONTENDER SAMPLE", nanoseconds per record)

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <wx/log.h>

#include <VelCore/Trace.h>

#include "drivers/Driver.h"

namespace {

const double kNanosecondsPerSecond = 1e9;
const double kWarmUpSeconds = 1.2;
const wxString kModule(L"Bench");

struct Run
{
    int threads;
    int lines;
};

void Measure(const Run& run, const char* row, const char* contender, const std::function<void()>& write)
{
    const double seconds = Driver::OnThreads(run.threads, [&](int thread) {
        for (int line = thread; line < run.lines; line += run.threads)
            write();
    });
    std::printf("%s %s %.1f\n", row, contender, seconds * kNanosecondsPerSecond / run.lines);
}

void MeasureFloor(const Run& run, const std::string& path)
{
    const std::string line = "2026-11-20 12:34:56 [4711] Trace: Bench: WriteRecords (Records.cpp:42): a record of this "
                             "run, as long as usual\n";
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_TRUNC | O_CLOEXEC, 0600);
    for (const char* row : {"record", "warning"}) {
        Measure(run, row, "floor", [&] {
            if (write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
                std::abort();
        });
    }
    close(file);
}

void MeasureAgent(const Run& run)
{
    const wxString text(L"a record of this run, as long as usual");
    Measure(run, "record", "agent", [&text] {
        if (VelCore::LogTraceIsEnabled(kModule))
            VelCore::LogTrace(kModule, __FILE__, __LINE__, "WriteRecords", text);
    });
    Measure(run, "warning", "agent", [&text] { wxLogWarning(L"%s", text); });
}

void MeasureSpdlog(const Run& run, const std::string& path)
{
    spdlog::logger logger("Bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path, true));
    logger.set_pattern("%Y-%m-%d %H:%M:%S [4711] Trace: %n: %! (%s:%#): %v"); // it would ask the system for its id
    logger.flush_on(spdlog::level::trace);
    const std::string text = "a record of this run, as long as usual";
    Measure(run, "record", "spdlog", [&] {
        logger.log(spdlog::source_loc{__FILE__, __LINE__, "WriteRecords"}, spdlog::level::info, text);
    });
}

// A process that is alone with its log, and busy, takes fewer looks at the file. This is about the time after that.
void WarmUp()
{
    const Driver::Clock::time_point start = Driver::Clock::now();
    while (Driver::SecondsSince(start) < kWarmUpSeconds)
        VelCore::LogTrace(kModule, __FILE__, __LINE__, "WarmUp", L"a record");
}

} // namespace

int main(int argc, char** argv)
{
    Driver::ExpectArguments(argc, 4, "usage: Records FOLDER THREADS ROUNDS LINES");
    const std::string folder = argv[1];
    const Driver::CCore core(folder);
    const Run run = {Driver::PositiveCount(argv[2], "THREADS"), Driver::PositiveCount(argv[4], "LINES")};
    const int rounds = Driver::PositiveCount(argv[3], "ROUNDS");
    core.Dom().Set("app.trace", "Appl,Cmd,Bench");

    WarmUp();
    for (int round = 0; round < rounds; ++round) {
        MeasureFloor(run, folder + "/floor.log");
        MeasureAgent(run);
        MeasureSpdlog(run, folder + "/spdlog.log");
    }
    return 0;
}
