#include "CrashReport.h"

#include <gtest/gtest.h>

namespace {

const std::uint64_t kCode = 0x400000;

CrashDump Dump()
{
    CrashDump dump;
    dump.process = 4711;
    dump.crashedThread = 4712;
    dump.time = 1700000000;
    dump.signal = 11;
    dump.signalCode = 1;
    dump.address = 0x10;
    dump.system = "System 1";
    dump.threads = {{4711, "main", {}}, {4712, "script", {}}};
    dump.modules = {{kCode, 0x1000, "/usr/bin/app", "\x01\xab"}, {0x7000, 0x1000, "[vdso]", ""}};
    dump.notes = {{"app.name", "hello"}, {"app.version", "1.2"}, {"phase", "main"}};
    dump.luaTraceback = "stack traceback:\n\tx.lua:1: in main chunk";
    return dump;
}

// The report when every thread has this stack.
std::string Report(const CrashDump& dump, const StackTrace& trace = {}, bool isHere = true)
{
    return CrashReport(
        dump, {[&trace](const DumpedThread&) { return trace; }, [isHere](const DumpedModule&) { return isHere; }});
}

bool Has(const std::string& report, const std::string& line)
{
    return ("\n" + report).find("\n" + line + "\n") != std::string::npos;
}

StackTrace TraceOf(std::size_t frames)
{
    StackTrace trace;
    for (std::size_t number = 0; number < frames; ++number)
        trace.frames.push_back({kCode + number, {}, {}});
    return trace;
}

TEST(CrashReport, BeginsWithWhatCrashedAndWhy)
{
    EXPECT_EQ(0u, Report(Dump()).find("Application  hello 1.2, phase main\n"
                                      "Crashed      2023-11-14 22:13:20 UTC, process 4711, thread 4712\n"
                                      "Signal       11 (Segmentation fault), code 1, at address 0x10\n"
                                      "System       System 1\n"
                                      "Dump         normal\n"));
}

TEST(CrashReport, WhatIsNotKnownIsAQuestionMark)
{
    CrashDump dump = Dump();
    dump.notes.clear();
    EXPECT_TRUE(Has(Report(dump), "Application  ? ?, phase ?"));
}

TEST(CrashReport, CrashedThreadComesFirst)
{
    const std::string report = Report(Dump());
    EXPECT_LT(report.find("Thread 4712 \"script\", crashed\n"), report.find("Thread 4711 \"main\"\n"));
}

TEST(CrashReport, FrameNamesModuleFunctionAndSource)
{
    StackTrace trace;
    trace.frames = {{kCode + 0x10, "f(int)", "f.cpp:12"}, {kCode + 0x20, "", ""}, {0x10, "", ""}};
    const std::string report = Report(Dump(), trace);
    EXPECT_TRUE(Has(report, "  #0  0x0000000000400010  app + 0x10  f(int)  (f.cpp:12)")) << report;
    EXPECT_TRUE(Has(report, "  #1  0x0000000000400020  app + 0x20"));
    EXPECT_TRUE(Has(report, "  #2  0x0000000000000010  in no module"));
}

TEST(CrashReport, GuessIsCalledAGuess)
{
    StackTrace trace = TraceOf(3);
    trace.isGuess = true;
    const std::string report = Report(Dump(), trace);
    const std::size_t said = report.find("Return addresses that are on the stack, also of calls long gone:\n");
    EXPECT_LT(report.find("#0"), said);
    EXPECT_LT(said, report.find("#1"));
}

TEST(CrashReport, StackThatIsCutShortIsCalledSo)
{
    StackTrace trace = TraceOf(2);
    EXPECT_EQ(std::string::npos, Report(Dump(), trace).find("cannot be told"));
    trace.isCutShort = true;
    EXPECT_NE(std::string::npos, Report(Dump(), trace).find("cannot be told: its module is not on this machine"));
}

TEST(CrashReport, DeepStackShowsBothEnds)
{
    EXPECT_EQ(std::string::npos, Report(Dump(), TraceOf(80)).find(" calls ..."));

    const std::string report = Report(Dump(), TraceOf(1000));
    EXPECT_NE(std::string::npos, report.find("  #59  "));
    EXPECT_TRUE(Has(report, "  ... 920 calls ..."));
    EXPECT_EQ(std::string::npos, report.find("  #60  "));
    EXPECT_NE(std::string::npos, report.find("  #980  "));
    EXPECT_NE(std::string::npos, report.find("  #999  "));
}

TEST(CrashReport, LuaCallsAreLines)
{
    EXPECT_NE(std::string::npos,
              Report(Dump()).find("Lua of the crashed thread\n  stack traceback:\n    x.lua:1: in main chunk\n"));
    CrashDump dump = Dump();
    dump.luaTraceback = {};
    EXPECT_EQ(std::string::npos, Report(dump).find("Lua of"));
}

TEST(CrashReport, ModulesThatAreMissingAreMarked)
{
    const std::string line = "  0x0000000000400000  /usr/bin/app  build 01ab";
    EXPECT_TRUE(Has(Report(Dump()), line));
    const std::string report = Report(Dump(), {}, false);
    EXPECT_TRUE(Has(report, line + "  (not on this machine)"));
    EXPECT_TRUE(Has(report, "  0x0000000000007000  [vdso]")); // is no file
}

TEST(CrashReport, NothingInADumpForgesALine)
{
    CrashDump dump = Dump();
    const char* const odd = "x\nSignal 0\x1b[2J";
    dump.system = dump.threads[0].name = dump.threads[1].name = dump.modules[0].path = odd;
    dump.notes = {{odd, odd}, {"phase", odd}};
    dump.luaTraceback = "\tx\x1b[2J";
    StackTrace trace;
    trace.frames = {{kCode, odd, odd}};

    const std::string report = Report(dump, trace);

    EXPECT_EQ(std::string::npos, report.find('\x1b'));
    EXPECT_EQ(std::string::npos, report.find("\nSignal 0"));
}

} // namespace
