// What the drivers share.

#include "Driver.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <wx/log.h>

#include <VelCore/Log2Disk.h>
#include <VelCore/Runnable.h>

namespace Driver {
namespace {

const int kUsageError = 2;

class CWorker : public VelCore::CRunnable
{
public:
    explicit CWorker(std::function<void()> work) : CRunnable(false, 0, false), m_work(std::move(work)) {}

protected:
    int OnRun() override
    {
        m_work();
        return 0;
    }

private:
    std::function<void()> m_work;
};

[[noreturn]] void Fail(int status, const std::string& text)
{
    std::fprintf(stderr, "%s\n", text.c_str());
    std::exit(status);
}

} // namespace

CCore::CCore(const std::string& folder)
{
    // Log and events take an absolute path, as the agent's work folder is one.
    char absolute[PATH_MAX];
    if (!realpath(folder.c_str(), absolute))
        Fail(EXIT_FAILURE, "cannot use the folder '" + folder + "'");
    m_dom.reset(VelCore::CDom::New(nullptr, nullptr, nullptr, false));
    m_dom->Set("app.path.work", absolute);
    m_dom->Set("app.name", "bench");
    wxLog::SetTimestamp(L"%Y-%m-%d %H:%M:%S");
    delete wxLog::SetActiveTarget(new VelCore::CLog2Disk);
}

double PositiveNumber(const char* text, const char* what)
{
    char* end = nullptr;
    const double number = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(number) || number <= 0)
        Fail(kUsageError, std::string(what) + " is no positive number: '" + text + "'");
    return number;
}

int PositiveCount(const char* text, const char* what)
{
    const double number = PositiveNumber(text, what);
    if (number != std::floor(number) || number > INT_MAX)
        Fail(kUsageError, std::string(what) + " is no whole number below 2^31: '" + text + "'");
    return static_cast<int>(number);
}

void ExpectArguments(int argc, int wanted, const char* usage)
{
    if (argc != wanted + 1)
        Fail(kUsageError, usage);
}

double OnThreads(int threads, const std::function<void(int thread)>& work)
{
    std::vector<std::unique_ptr<CWorker>> workers;
    for (int thread = 0; thread < threads; ++thread)
        workers.push_back(std::make_unique<CWorker>([&work, thread] { work(thread); }));
    const Clock::time_point start = Clock::now();
    for (const auto& worker : workers) {
        if (!worker->start(wxPRIORITY_DEFAULT, true, 0))
            Fail(EXIT_FAILURE, "cannot start a thread");
    }
    for (const auto& worker : workers)
        worker->join();
    return SecondsSince(start);
}

double SecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void Print(const std::string& name, double value)
{
    std::printf("%s %.1f\n", name.c_str(), value);
    std::fflush(stdout);
}

} // namespace Driver
