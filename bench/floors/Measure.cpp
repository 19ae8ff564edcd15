#include "floors/Measure.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <sys/resource.h>

namespace VelBench {

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
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%.9f %ld\n", seconds, usage.ru_maxrss);
}

} // namespace VelBench
