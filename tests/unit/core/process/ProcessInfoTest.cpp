#include "process/ProcessInfo.h"

#include <cstdlib>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/Clock.h>

namespace {

const std::int64_t kGrainMs = 20;

TEST(ProcessInfo, TellsWhenAProcessStarted)
{
    const std::int64_t before = VelCore::TimeNowMillis();
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    const std::int64_t after = VelCore::TimeNowMillis();
    const auto start = VelCore::ProcessStartMillis(child);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    ASSERT_TRUE(start.has_value());
    EXPECT_LE(before - kGrainMs, *start);
    EXPECT_GE(after + kGrainMs, *start);
}

TEST(ProcessInfo, TellsWhatAProcessRuns)
{
    char* self = realpath("/proc/self/exe", nullptr);
    EXPECT_EQ(self, VelCore::ProcessExecutable(getpid()).value_or("nothing"));
    std::free(self);
}

TEST(ProcessInfo, KnowsNothingOfProcessesThatAreNotThere)
{
    EXPECT_FALSE(VelCore::ProcessStartMillis(2147483647).has_value());
    EXPECT_FALSE(VelCore::ProcessExecutable(2147483647).has_value());
    EXPECT_FALSE(VelCore::ProcessExecutable(-1).has_value());
}

} // namespace
