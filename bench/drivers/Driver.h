// Driver.h: what the drivers share, which put figures of the core library next to those of other libraries.
//
// A driver prints one plain line per figure, its name and its number, for a program to read.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <wx/init.h>

#include <VelCore/Dom.h>

namespace Driver {

using Clock = std::chrono::steady_clock;

/// The framework, its log in `folder`, and a root domain with its work folder there.
class CCore
{
public:
    /// Errors: ends the process with status 1 and a line when `folder` cannot be used.
    explicit CCore(const std::string& folder);

    VelCore::CDom& Dom() const { return *m_dom; }

private:
    wxInitializer m_framework;
    std::unique_ptr<VelCore::CDom> m_dom;
};

/// The number above 0 in `text`; ends the process with status 2 and a line that names `what` when there is none.
double PositiveNumber(const char* text, const char* what);

/// The same for a whole number that an int holds.
int PositiveCount(const char* text, const char* what);

/// Ends the process with status 2 and the usage line when the driver was not called with so many arguments.
void ExpectArguments(int argc, int wanted, const char* usage);

/// Runs `work` on `threads` threads that log as the agent's threads do, and waits for them. `work` gets the number of
/// its thread, from 0 on. Returns the seconds that it took.
double OnThreads(int threads, const std::function<void(int thread)>& work);

double SecondsSince(Clock::time_point start);

/// One figure.
void Print(const std::string& name, double value);

} // namespace Driver
