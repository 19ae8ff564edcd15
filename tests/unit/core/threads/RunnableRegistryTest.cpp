#include <VelCore/RunnableRegistry.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <VelCore/Runnable.h>

#include "support/Capture.h"

using VelCore::CRunnable;
using VelCore::CRunnableRegistry;
using namespace std::chrono_literals;

namespace {

class CTestRunnable : public CRunnable
{
public:
    explicit CTestRunnable(std::function<int(CRunnable&)> body) : CRunnable(false, -1, false), m_body(std::move(body))
    {
    }
    const char* GetThreadName() const override { return "scanner"; }

protected:
    int OnRun() override { return m_body(*this); }

private:
    std::function<int(CRunnable&)> m_body;
};

std::shared_ptr<CRunnable> Make(std::function<int(CRunnable&)> body)
{
    return std::make_shared<CTestRunnable>(std::move(body));
}

int UntilExit(CRunnable& self)
{
    while (!self.TestDestroy(60000, nullptr))
        ;
    return 7;
}

TEST(RunnableRegistry, ThereIsOneForTheProcess)
{
    EXPECT_EQ(&CRunnableRegistry::Get(), &CRunnableRegistry::Get());
}

TEST(RunnableRegistry, WithoutRunnablesThereIsNothingToStop)
{
    CRunnableRegistry registry;
    EXPECT_TRUE(registry.StopAll(0ms));
}

TEST(RunnableRegistry, StopAllEndsAndJoinsWhatRuns)
{
    CRunnableRegistry registry;
    std::vector<std::shared_ptr<CRunnable>> started;
    for (int i = 0; i < 20; ++i) {
        started.push_back(Make(UntilExit));
        ASSERT_TRUE(registry.Start(started.back()));
    }
    EXPECT_TRUE(registry.StopAll(10s));
    for (const auto& runnable : started) {
        EXPECT_FALSE(runnable->IsRunning());
        EXPECT_EQ(7, runnable->join());
        EXPECT_EQ(1, runnable.use_count()) << "the registry has given it up";
    }
}

TEST(RunnableRegistry, KeepsARunnableThatNobodyElseKnows)
{
    CRunnableRegistry registry;
    std::atomic<bool> ended{false};
    ASSERT_TRUE(registry.Start(Make([&ended](CRunnable& self) {
        const int status = UntilExit(self);
        ended = true;
        return status;
    })));
    EXPECT_TRUE(registry.StopAll(10s));
    EXPECT_TRUE(ended);
}

TEST(RunnableRegistry, AStartGivesUpWhatHasEnded)
{
    CRunnableRegistry registry;
    auto first = Make([](CRunnable&) { return 7; });
    ASSERT_TRUE(registry.Start(first));
    ASSERT_TRUE(first->AwaitEnd(std::chrono::steady_clock::now() + 10s));
    EXPECT_EQ(2, first.use_count());
    ASSERT_TRUE(registry.Start(Make([](CRunnable&) { return 7; })));
    EXPECT_EQ(1, first.use_count());
    EXPECT_TRUE(registry.StopAll(10s));
}

TEST(RunnableRegistry, ARunnableMayStartOthersAlsoWhileAllAreStopped)
{
    CRunnableRegistry registry;
    std::atomic<int> started{0};
    std::function<int(CRunnable&)> breed = [&](CRunnable& self) {
        UntilExit(self);
        if (++started < 5)
            registry.Start(Make(breed));
        return 0;
    };
    ASSERT_TRUE(registry.Start(Make(breed)));
    EXPECT_TRUE(registry.StopAll(10s));
    EXPECT_EQ(5, started);
}

TEST(RunnableRegistry, AStartBehindTheStopFindsExitRequested)
{
    CRunnableRegistry registry;
    EXPECT_TRUE(registry.StopAll(10s));
    auto late = Make([](CRunnable& self) { return self.TestDestroy() ? 7 : 8; });
    ASSERT_TRUE(registry.Start(late));
    EXPECT_EQ(7, late->join());
    EXPECT_TRUE(registry.StopAll(10s));
}

TEST(RunnableRegistry, BlockingCallsOfAllAreInterrupted)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    CRunnableRegistry registry;
    const auto readUntilInterrupted = [&](CRunnable& self) {
        char byte = 0;
        while (!self.TestDestroy())
            EXPECT_TRUE(read(ends[0], &byte, 1) == -1 && errno == EINTR);
        return 7;
    };
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(registry.Start(Make(readUntilInterrupted)));
    EXPECT_TRUE(registry.StopAll(10s));
    close(ends[0]);
    close(ends[1]);
}

TEST(RunnableRegistry, OneThatDoesNotEndIsNamed)
{
    const VelTest::CLogCapture log;
    CRunnableRegistry registry;
    std::atomic<bool> released{false};
    ASSERT_TRUE(registry.Start(Make([&](CRunnable&) {
        while (!released)
            std::this_thread::sleep_for(1ms);
        return 0;
    })));
    ASSERT_TRUE(registry.Start(Make(UntilExit)));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(registry.StopAll(100ms));
    EXPECT_LE(100ms, std::chrono::steady_clock::now() - start);
    EXPECT_EQ((std::vector<std::string>{"Runnable 'scanner' has not ended within 100 ms"}), log.Texts(wxLOG_Error));
    released = true;
    EXPECT_TRUE(registry.StopAll(10s));
}

TEST(RunnableRegistry, AStartThatIsNotPossibleIsARecord)
{
    const VelTest::CLogCapture log;
    CRunnableRegistry registry;
    auto runnable = Make([](CRunnable&) { return 7; });
    ASSERT_TRUE(registry.Start(runnable));
    EXPECT_EQ(7, runnable->join());
    EXPECT_FALSE(registry.Start(runnable)) << "a thread runs once";
    EXPECT_EQ("Runnable 'scanner' could not be started", log.Texts(wxLOG_Error).back());
    EXPECT_TRUE(registry.StopAll(10s));
}

} // namespace
