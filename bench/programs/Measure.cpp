#include "programs/Measure.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>

namespace VelBench {

namespace {

// getrusage would answer with the peak of the process that started this one, when that is higher.
long PeakKibibytes()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    long peak = 0;
    while (status >> word && word != "VmHWM:") {
    }
    if (!(status >> peak))
        Die("the system does not tell the peak of memory");
    return peak;
}

} // namespace

void Die(const std::string& text)
{
    std::fprintf(stderr, "%s\n", text.c_str());
    std::exit(1);
}

double ProcessorSeconds()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

void Measure(const std::function<void()>& work)
{
    const double start = ProcessorSeconds();
    work();
    const double seconds = ProcessorSeconds() - start;
    std::printf("%.9f %ld\n", seconds, PeakKibibytes());
}

} // namespace VelBench
