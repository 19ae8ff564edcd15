#include <VelCore/Runnable.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Capture.h"
#include "support/RootDomain.h"

using VelCore::CExitListener;
using VelCore::CRunnable;
using namespace std::chrono_literals;

namespace {

const unsigned int kLong = 60000; // ms; a wait that only something else ends

class CTestRunnable : public CRunnable
{
public:
    explicit CTestRunnable(std::function<int(CRunnable&)> body, bool exitRequested = false, bool awakened = false)
        : CRunnable(exitRequested, -1, awakened), m_body(std::move(body))
    {
    }
    const char* GetThreadName() const override { return "CTestRunnableWithALongName"; }

protected:
    int OnRun() override { return m_body(*this); }

private:
    std::function<int(CRunnable&)> m_body;
};

std::chrono::steady_clock::duration TimeOf(const std::function<void()>& action)
{
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::steady_clock::now() - start;
}

TEST(Runnable, JoinGivesTheStatusOfTheWork)
{
    CTestRunnable runnable([](CRunnable&) { return 7; });
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_EQ(7, runnable.join());
    EXPECT_EQ(7, runnable.join());
}

TEST(Runnable, JoinWithoutAStartGivesTheInitialStatus)
{
    CTestRunnable runnable([](CRunnable&) { return 7; });
    EXPECT_EQ(-1, runnable.join());
}

TEST(Runnable, SeveralThreadsMayJoin)
{
    CTestRunnable runnable([](CRunnable& self) { return self.TestDestroy(kLong, nullptr) ? 7 : 8; });
    ASSERT_TRUE(runnable.start(50, true, 0));
    auto first = std::async(std::launch::async, [&] { return runnable.join(); });
    auto second = std::async(std::launch::async, [&] { return runnable.join(); });
    runnable.requestExit();
    EXPECT_EQ(7, first.get());
    EXPECT_EQ(7, second.get());
}

TEST(Runnable, RunsOnceEvenIfStartedTwice)
{
    const VelTest::CLogCapture log;
    std::atomic<int> runs{0};
    CTestRunnable runnable([&](CRunnable& self) {
        ++runs;
        self.TestDestroy(kLong, nullptr);
        return 3;
    });
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_FALSE(runnable.start(50, true, 0));
    runnable.requestExit();
    EXPECT_EQ(3, runnable.join());
    EXPECT_FALSE(runnable.start(50, true, 0));
    EXPECT_EQ(3, runnable.join());
    EXPECT_EQ(1, runs);
}

TEST(Runnable, OtherPrioritiesRunAsWell)
{
    const VelTest::CLogCapture log;
    for (const unsigned int priority : {0u, 25u, 75u, 100u}) {
        CTestRunnable runnable([](CRunnable&) { return 7; });
        ASSERT_TRUE(runnable.start(priority, true, 0)) << priority;
        EXPECT_EQ(7, runnable.join()) << priority;
    }
}

TEST(Runnable, ExitIsNotRequestedUntilItIs)
{
    CTestRunnable runnable([](CRunnable&) { return 0; });
    EXPECT_FALSE(runnable.TestDestroy());
    EXPECT_FALSE(runnable.TestDestroy(0, nullptr));
    runnable.requestExit();
    EXPECT_TRUE(runnable.TestDestroy());
    EXPECT_TRUE(runnable.TestDestroy(0, nullptr));
    runnable.requestExit();
    EXPECT_TRUE(runnable.TestDestroy());
}

TEST(Runnable, ExitMayBeRequestedFromTheBeginning)
{
    CTestRunnable runnable([](CRunnable& self) { return self.TestDestroy() ? 1 : 0; }, true);
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_EQ(1, runnable.join());
}

TEST(Runnable, AWaitThatNothingEndsTakesItsTime)
{
    CTestRunnable runnable([](CRunnable&) { return 0; });
    bool interrupted = true;
    bool requested = true;
    const auto taken = TimeOf([&] { requested = runnable.TestDestroy(30, &interrupted); });
    EXPECT_FALSE(requested);
    EXPECT_FALSE(interrupted);
    EXPECT_LE(30ms, taken);
}

TEST(Runnable, ARequestEndsAWait)
{
    std::promise<void> running;
    bool interrupted = true;
    CTestRunnable runnable([&](CRunnable& self) {
        running.set_value();
        return self.TestDestroy(kLong, &interrupted) ? 1 : 0;
    });
    ASSERT_TRUE(runnable.start(50, true, 0));
    running.get_future().wait();
    const auto taken = TimeOf([&] {
        runnable.requestExit();
        EXPECT_EQ(1, runnable.join());
    });
    EXPECT_FALSE(interrupted);
    EXPECT_GT(10s, taken);
}

TEST(Runnable, AwakenEndsAWait)
{
    std::promise<void> running;
    bool interrupted = false;
    CTestRunnable runnable([&](CRunnable& self) {
        running.set_value();
        return self.TestDestroy(kLong, &interrupted) ? 1 : 0;
    });
    ASSERT_TRUE(runnable.start(50, true, 0));
    running.get_future().wait();
    const auto taken = TimeOf([&] {
        runnable.Awaken();
        EXPECT_EQ(0, runnable.join());
    });
    EXPECT_TRUE(interrupted);
    EXPECT_GT(10s, taken);
}

TEST(Runnable, AwakenBeforeAWaitEndsTheNextOneAndNoMore)
{
    CTestRunnable runnable([](CRunnable&) { return 0; });
    bool interrupted = false;
    runnable.Awaken();
    runnable.Awaken();
    EXPECT_GT(10s, TimeOf([&] { EXPECT_FALSE(runnable.TestDestroy(kLong, &interrupted)); }));
    EXPECT_TRUE(interrupted);
    EXPECT_FALSE(runnable.TestDestroy(1, &interrupted));
    EXPECT_FALSE(interrupted);
}

TEST(Runnable, TheFirstWaitMayBeAwakenedFromTheBeginning)
{
    CTestRunnable runnable([](CRunnable&) { return 0; }, false, true);
    bool interrupted = false;
    EXPECT_FALSE(runnable.TestDestroy(kLong, &interrupted));
    EXPECT_TRUE(interrupted);
    EXPECT_FALSE(runnable.TestDestroy(1, nullptr));
}

TEST(Runnable, ARequestedExitDoesNotWait)
{
    CTestRunnable runnable([](CRunnable&) { return 0; }, true);
    bool interrupted = true;
    EXPECT_GT(10s, TimeOf([&] { EXPECT_TRUE(runnable.TestDestroy(kLong, &interrupted)); }));
    EXPECT_FALSE(interrupted);
}

TEST(Runnable, InterruptEndsABlockingCall)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    std::promise<void> done;
    CTestRunnable runnable([&](CRunnable&) {
        char byte = 0;
        errno = 0;
        const ssize_t got = read(ends[0], &byte, 1);
        const int status = got == -1 && errno == EINTR ? 0 : 1;
        done.set_value();
        return status;
    });
    ASSERT_TRUE(runnable.start(50, true, 0));
    auto finished = done.get_future();
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    do // the first ones may come before the call
        runnable.interrupt();
    while (finished.wait_for(1ms) != std::future_status::ready && std::chrono::steady_clock::now() < deadline);
    close(ends[1]); // ends the call if nothing else did
    EXPECT_EQ(0, runnable.join());
    close(ends[0]);
}

TEST(Runnable, InterruptOfAThreadThatDoesNotRunDoesNothing)
{
    CTestRunnable runnable([](CRunnable&) { return 7; });
    runnable.interrupt();
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_EQ(7, runnable.join());
    runnable.interrupt();
    EXPECT_EQ(7, runnable.join());
}

void Handle(int) {}

TEST(Runnable, AHandlerThatTheProcessGaveIsKept)
{
    struct sigaction ours
    {
    };
    struct sigaction before
    {
    };
    ours.sa_handler = Handle;
    sigaction(CRunnable::SigThreadDelete, &ours, &before);
    CTestRunnable runnable([](CRunnable&) { return 0; });
    ASSERT_TRUE(runnable.start(50, true, 0));
    runnable.join();
    struct sigaction after
    {
    };
    sigaction(CRunnable::SigThreadDelete, &before, &after);
    EXPECT_EQ(&Handle, after.sa_handler);
}

sigset_t MaskOfThread(bool inheritSignals)
{
    sigset_t mask;
    sigemptyset(&mask);
    CTestRunnable runnable([&mask](CRunnable&) { return pthread_sigmask(SIG_BLOCK, nullptr, &mask); });
    EXPECT_TRUE(runnable.start(50, inheritSignals, 0));
    EXPECT_EQ(0, runnable.join());
    return mask;
}

TEST(Runnable, TheCallersSignalMaskIsInherited)
{
    sigset_t some;
    sigset_t before;
    sigemptyset(&some);
    sigaddset(&some, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &some, &before);
    const sigset_t mask = MaskOfThread(true);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(1, sigismember(&mask, SIGUSR2));
    for (const int signal : {SIGUSR1, SIGTERM, SIGINT, SIGCHLD, CRunnable::SigThreadDelete})
        EXPECT_EQ(0, sigismember(&mask, signal)) << signal;
}

TEST(Runnable, AThreadCanBeInterruptedWhateverTheCallerHasBlocked)
{
    sigset_t every;
    sigset_t before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    const sigset_t mask = MaskOfThread(true);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(0, sigismember(&mask, CRunnable::SigThreadDelete));
    EXPECT_EQ(1, sigismember(&mask, SIGUSR1));
}

TEST(Runnable, ItRunsFromItsFirstActionOn)
{
    for (int round = 0; round < 200; ++round) {
        CTestRunnable runnable([](CRunnable& self) { return self.IsRunning() ? 0 : 1; });
        ASSERT_TRUE(runnable.start(50, true, 0));
        ASSERT_EQ(0, runnable.join());
    }
}

TEST(Runnable, WithoutInheritanceEveryOtherSignalIsBlocked)
{
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    const sigset_t mask = MaskOfThread(false);
    for (const int signal : {SIGUSR1, SIGUSR2, SIGTERM, SIGINT, SIGCHLD, SIGALRM})
        EXPECT_EQ(1, sigismember(&mask, signal)) << signal;
    for (const int signal : {SIGSEGV, SIGABRT, CRunnable::SigThreadDelete})
        EXPECT_EQ(0, sigismember(&mask, signal)) << signal;

    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    for (const int signal : {SIGUSR1, SIGTERM, SIGINT, SIGCHLD})
        EXPECT_EQ(sigismember(&before, signal), sigismember(&after, signal)) << "the caller's mask changed";
}

std::size_t StackOfThread(unsigned int asked)
{
    std::size_t size = 0;
    CTestRunnable runnable([&size](CRunnable&) {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        return 0;
    });
    EXPECT_TRUE(runnable.start(50, true, asked));
    runnable.join();
    return size;
}

TEST(Runnable, StackIsEightMebibytesUnlessToldOtherwise)
{
    const std::size_t mebibyte = 1024 * 1024;
    EXPECT_LE(8 * mebibyte, StackOfThread(0));
    EXPECT_GT(9 * mebibyte, StackOfThread(0));
    EXPECT_LE(16 * mebibyte, StackOfThread(16 * 1024 * 1024));
    EXPECT_LE(mebibyte, StackOfThread(1024 * 1024));
    EXPECT_GT(2 * mebibyte, StackOfThread(1024 * 1024));
}

TEST(Runnable, ItsNameIsThatOfTheThread)
{
    char name[64] = "";
    CTestRunnable runnable([&name](CRunnable&) { return pthread_getname_np(pthread_self(), name, sizeof name); });
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_EQ(0, runnable.join());
    EXPECT_EQ(std::string("CTestRunnableWithALongName").substr(0, 15), name);
}

TEST(Runnable, AnExceptionKeepsTheInitialStatus)
{
    const VelTest::CDescriptorCapture error(STDERR_FILENO);
    CTestRunnable runnable([](CRunnable&) -> int { throw std::runtime_error("x"); });
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_EQ(-1, runnable.join());
    runnable.interrupt(); // it no longer runs, so nothing is sent to a thread that is gone
}

TEST(Runnable, TheDomainIsHandedOn)
{
    const auto dom = VelTest::NewDomain();
    CTestRunnable runnable([&dom](CRunnable& self) { return self.GetDom() == dom.get() ? 0 : 1; });
    EXPECT_EQ(nullptr, runnable.GetDom());
    runnable.SetDom(dom.get());
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_EQ(0, runnable.join());
}

TEST(Runnable, RunsFromItsStartToTheEndOfItsWork)
{
    CTestRunnable runnable(
        [](CRunnable& self) { return self.TestDestroy(kLong, nullptr) && self.IsRunning() ? 7 : 8; });
    EXPECT_FALSE(runnable.IsRunning());
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_TRUE(runnable.IsRunning());
    runnable.requestExit();
    EXPECT_EQ(7, runnable.join());
    EXPECT_FALSE(runnable.IsRunning());
}

TEST(Runnable, TheCurrentOneIsTheOneWhoseThreadAsks)
{
    EXPECT_EQ(nullptr, CRunnable::Current());
    CTestRunnable runnable([](CRunnable& self) { return CRunnable::Current() == &self ? 7 : 8; });
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_EQ(7, runnable.join());
    std::thread([] { EXPECT_EQ(nullptr, CRunnable::Current()); }).join();
}

TEST(Runnable, ItsEndIsAwaitedUntilTheDeadline)
{
    using Clock = std::chrono::steady_clock;
    CTestRunnable runnable([](CRunnable& self) { return self.TestDestroy(kLong, nullptr) ? 7 : 8; });
    EXPECT_TRUE(runnable.AwaitEnd(Clock::time_point::max())) << "before the start there is nothing to wait for";
    ASSERT_TRUE(runnable.start(50, true, 0));
    EXPECT_FALSE(runnable.AwaitEnd(Clock::now()));
    const auto taken = TimeOf([&] { EXPECT_FALSE(runnable.AwaitEnd(Clock::now() + 30ms)); });
    EXPECT_LE(30ms, taken);
    runnable.requestExit();
    EXPECT_TRUE(runnable.AwaitEnd(Clock::time_point::max()));
    EXPECT_EQ(7, runnable.join());
    EXPECT_TRUE(runnable.AwaitEnd(Clock::now()));
}

TEST(Runnable, WhoeverAwaitsTheEndInterruptsAgainAndAgain)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    CTestRunnable runnable([&](CRunnable& self) {
        char byte = 0;
        while (!self.TestDestroy() || read(ends[0], &byte, 1) != -1 || errno != EINTR)
            ;
        return 7;
    });
    ASSERT_TRUE(runnable.start(50, true, 0));
    auto ended =
        std::async(std::launch::async, [&] { return runnable.AwaitEnd(std::chrono::steady_clock::time_point::max()); });
    runnable.requestExit(); // interrupts nothing by itself
    EXPECT_EQ(std::future_status::ready, ended.wait_for(10s));
    close(ends[1]);
    EXPECT_EQ(7, runnable.join());
    close(ends[0]);
}

TEST(ExitListener, IsCalledOnceWhenExitIsRequested)
{
    CTestRunnable runnable([](CRunnable&) { return 0; });
    int calls = 0;
    const CExitListener listener(&runnable, [&calls] { ++calls; });
    EXPECT_EQ(0, calls);
    runnable.requestExit();
    runnable.requestExit();
    EXPECT_EQ(1, calls);
}

TEST(ExitListener, IsCalledAtOnceWhenExitHasBeenRequested)
{
    CTestRunnable runnable([](CRunnable&) { return 0; }, true);
    int calls = 0;
    const CExitListener listener(&runnable, [&calls] { ++calls; });
    EXPECT_EQ(1, calls);
}

TEST(ExitListener, IsNotCalledAfterItsEndOrWithoutARunnable)
{
    CTestRunnable runnable([](CRunnable&) { return 0; });
    int calls = 0;
    const auto count = [&calls] { ++calls; };
    const CExitListener nobodys(nullptr, count);
    {
        const CExitListener listener(&runnable, count);
    }
    runnable.requestExit();
    EXPECT_EQ(0, calls);
}

} // namespace
