#include "crash/ProcessSnapshot.h"

#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <gtest/gtest.h>

using VelCore::CrashSite;
using VelCore::ProcessSnapshot;
using VelCore::SnapshotMapping;
using VelCore::SnapshotThread;

namespace {

ProcessSnapshot g_snapshot; // of forks only
volatile int g_witness = 0;

__attribute__((noinline)) std::uint64_t HereAbouts()
{
    return reinterpret_cast<std::uintptr_t>(__builtin_return_address(0));
}

// Takes a snapshot of this process in a fork, as a crash of the calling thread would, and gives the verdict of `check`.
bool CheckInFork(const std::function<bool(const ProcessSnapshot&)>& check)
{
    static ucontext_t context;
    getcontext(&context);
    siginfo_t information = {};
    information.si_code = 1;
    information.si_addr = reinterpret_cast<void*>(0x10);
    const CrashSite site = {getpid(), VelCore::CurrentThread(), SIGSEGV, &information, &context};
    VelCore::AllowInspection();
    const pid_t child = VelCore::ForkInHandler();
    if (child == 0) {
        g_witness = 1; // in the fork alone
        _exit(VelCore::TakeSnapshot(site, g_snapshot) && check(g_snapshot) ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status == 0;
}

const SnapshotMapping* MappingOf(const ProcessSnapshot& snapshot, std::uint64_t address)
{
    for (const SnapshotMapping& mapping : snapshot.mappings) {
        if (mapping.Holds(address))
            return &mapping;
    }
    return nullptr;
}

TEST(ProcessSnapshot, CrashedThreadComesFirstWithTheRegistersOfTheHandler)
{
    const std::uint64_t here = HereAbouts();
    EXPECT_TRUE(CheckInFork([here](const ProcessSnapshot& snapshot) {
        const SnapshotThread& first = snapshot.threads[0];
        const SnapshotMapping* code = MappingOf(snapshot, here);
        return snapshot.process == getppid() && first.id == snapshot.crashedThread && snapshot.signal == SIGSEGV &&
               snapshot.faultAddress == 0x10 && code && code->Holds(first.context.rip) && code->isExecutable &&
               MappingOf(snapshot, first.context.rsp);
    }));
}

TEST(ProcessSnapshot, OtherThreadsAreStoppedWhereTheyAre)
{
    std::promise<void> go;
    std::promise<void> running;
    std::thread other([&] {
        pthread_setname_np(pthread_self(), "the other");
        running.set_value();
        go.get_future().wait();
    });
    running.get_future().wait();

    EXPECT_TRUE(CheckInFork([](const ProcessSnapshot& snapshot) {
        for (const SnapshotThread& thread : snapshot.threads) {
            if (std::strcmp(thread.name, "the other") == 0)
                return snapshot.threadsNotStopped == 0 && MappingOf(snapshot, thread.context.rsp) &&
                       thread.threadData != snapshot.threads[0].threadData;
        }
        return false;
    }));

    go.set_value();
    other.join(); // the thread goes on when the looker-on is gone
}

TEST(ProcessSnapshot, MemoryIsThatOfTheProcessNotOfTheFork)
{
    g_witness = 7;
    EXPECT_TRUE(CheckInFork([](const ProcessSnapshot&) {
        int value = 0;
        const auto address = reinterpret_cast<std::uintptr_t>(&g_witness);
        return VelCore::SnapshotMemory().Read(address, &value, sizeof value) == sizeof value && value == 7;
    }));
}

TEST(ProcessSnapshot, MemoryThatIsNotThereGivesNothing)
{
    EXPECT_TRUE(CheckInFork([](const ProcessSnapshot&) {
        char byte = 0;
        return VelCore::SnapshotMemory().Read(0x10, &byte, 1) == 0 &&
               VelCore::SnapshotMemory().Read(~0ULL, &byte, 1) == 0;
    }));
}

TEST(ProcessSnapshot, ModulesHoldTheProgram)
{
    const std::uint64_t here = HereAbouts();
    EXPECT_TRUE(CheckInFork([here](const ProcessSnapshot& snapshot) {
        for (const auto& module : snapshot.modules) {
            if (here >= module.start && here < module.start + module.size)
                return module.path.find("core_tests") != std::string_view::npos && module.buildId.size == 20;
        }
        return false;
    }));
}

TEST(ProcessSnapshot, TextsOfTheSystemAreThere)
{
    EXPECT_TRUE(CheckInFork([](const ProcessSnapshot& snapshot) {
        return snapshot.mapsText.find("core_tests") != std::string_view::npos &&
               snapshot.statusText.find("Name:") == 0 && !snapshot.auxv.empty() &&
               snapshot.commandLine.find("core_tests") != std::string_view::npos && snapshot.processorCount > 0 &&
               snapshot.systemText.find("Linux") == 0;
    }));
}

TEST(ErrorText, NamesTheError)
{
    EXPECT_STREQ("No space left on device", VelCore::ErrorText(ENOSPC));
    EXPECT_STREQ("unknown error", VelCore::ErrorText(99999));
}

} // namespace
