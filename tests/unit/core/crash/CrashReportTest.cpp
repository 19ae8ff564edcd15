#include "crash/CrashReport.h"

#include <string>

#include <gtest/gtest.h>

using VelCore::CrashSite;

namespace {

std::string Described(int signal, int code, std::uintptr_t address)
{
    siginfo_t information = {};
    information.si_code = code;
    information.si_addr = reinterpret_cast<void*>(address);
    const CrashSite site = {4711, 4712, signal, &information, nullptr};
    std::string memory(256, '#');
    VelCore::CTextBuffer text(memory.data(), memory.size());
    VelCore::AddCrash(site, text);
    return std::string(text.Text());
}

TEST(CrashReport, FailedAccessHasAnAddress)
{
    EXPECT_EQ("Crashed by signal 11 (Segmentation fault) at address 0x10 in thread 4712",
              Described(SIGSEGV, SEGV_MAPERR, 0x10));
    EXPECT_EQ("Crashed by signal 11 (Segmentation fault) at address 0x0 in thread 4712",
              Described(SIGSEGV, SEGV_MAPERR, 0));
}

TEST(CrashReport, SignalThatWasSentHasNone)
{
    EXPECT_EQ("Crashed by signal 11 (Segmentation fault) in thread 4712", Described(SIGSEGV, SI_USER, 0x10));
    EXPECT_EQ("Crashed by signal 6 (Aborted) in thread 4712", Described(SIGABRT, SI_TKILL, 0x10));
    EXPECT_EQ("Crashed by signal 5 (Trace/breakpoint trap) in thread 4712", Described(SIGTRAP, TRAP_BRKPT, 0x10));
}

TEST(CrashReport, EverySignalThatIsHandledHasAName)
{
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
        EXPECT_NE("unknown signal", VelCore::CrashSignalName(signal));
    EXPECT_EQ("unknown signal", VelCore::CrashSignalName(SIGTERM));
}

} // namespace
