#include <VelCore/EndProcess.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

using VelCore::EndProcess;

namespace {

// A stream with a buffer of its own over standard error, where the check can see what was flushed.
std::FILE* BufferedStandardError()
{
    std::FILE* const stream = fdopen(dup(STDERR_FILENO), "w");
    std::setvbuf(stream, nullptr, _IOFBF, 4096);
    return stream;
}

TEST(EndProcess, EndsWithTheStatusAndFlushesEveryStream)
{
    EXPECT_EXIT(
        {
            std::fputs("kept", BufferedStandardError());
            EndProcess(7);
        },
        testing::ExitedWithCode(7), "kept");
}

TEST(EndProcess, DoesNotRunExitHandlers)
{
    EXPECT_EXIT(
        {
            std::atexit([] { _exit(1); });
            EndProcess(7);
        },
        testing::ExitedWithCode(7), "");
}

TEST(EndProcess, DoesNotWaitForAThreadThatWaitsForInput)
{
    EXPECT_EXIT(
        {
            int ends[2];
            if (pipe2(ends, O_CLOEXEC) != 0)
                _exit(1);
            std::FILE* const input = fdopen(ends[0], "r");
            std::atomic<bool> reading{false};
            std::thread([&] {
                flockfile(input);
                reading = true;
                std::fgetc(input); // nobody writes
            }).detach();
            while (!reading)
                std::this_thread::yield();
            std::puts("");
            EndProcess(7);
        },
        testing::ExitedWithCode(7), "");
}

void EndFromSeveralThreads()
{
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&ready] {
            ++ready;
            while (ready < 4)
                std::this_thread::yield();
            EndProcess(7);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

TEST(EndProcess, SeveralThreadsMayCallItAtOnce)
{
    for (int round = 0; round < 50; ++round)
        ASSERT_EXIT(EndFromSeveralThreads(), testing::ExitedWithCode(7), "") << round;
}

} // namespace
