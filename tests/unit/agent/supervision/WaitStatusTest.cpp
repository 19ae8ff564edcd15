#include "supervision/WaitStatus.h"

#include <csignal>
#include <cstring>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

const int kCore = 0x80;

int Exited(int code)
{
    return code << 8;
}

struct Case
{
    int status;
    wxLogLevel level;
    const char* text;
    AfterWorker next;
    int exitCode;
};

TEST(WaitStatus, EveryEndHasItsReportAndItsConsequence)
{
    const Case cases[] = {
        {Exited(0), wxLOG_Info, "Child process exited with status 0 (exit 0)", AfterWorker::End, 0},
        {Exited(1), wxLOG_Info, "Child process exited with status 256 (exit 1)", AfterWorker::End, 1},
        {Exited(2), wxLOG_Info, "Child process exited with status 512 (exit 2)", AfterWorker::End, 2},
        {Exited(3), wxLOG_Info, "Child process exited with status 768 (exit 3)", AfterWorker::StopDriver, 3},
        {Exited(4), wxLOG_Info, "Child process exited with status 1024 (exit 4)", AfterWorker::End, 4},
        {Exited(15), wxLOG_Info, "Child process exited with status 3840 (exit 15)", AfterWorker::End, 15},
        {Exited(255), wxLOG_Info, "Child process exited with status 65280 (exit 255)", AfterWorker::End, 255},
        {SIGHUP, wxLOG_Info, "Child process exited with status 1 (signal 1: Hangup)", AfterWorker::Restart, 0},
        {3, wxLOG_Info, "Child process exited with status 3 (signal 3: Quit)", AfterWorker::Restart, 0},
        {SIGKILL, wxLOG_Info, "Child process exited with status 9 (signal 9: Killed)", AfterWorker::Restart, 0},
        {SIGTERM, wxLOG_Info, "Child process exited with status 15 (signal 15: Terminated)", AfterWorker::End, 0},
        {SIGTERM | kCore, wxLOG_Info, "Child process exited with status 143 (signal 15: Terminated)", AfterWorker::End,
         0},
        {SIGILL | kCore, wxLOG_Error, "Child process crashed with status 132 (signal 4: Illegal instruction)",
         AfterWorker::Restart, 0},
        {SIGTRAP, wxLOG_Error, "Child process crashed with status 5 (signal 5: Trace/breakpoint trap)",
         AfterWorker::Restart, 0},
        {SIGABRT, wxLOG_Error, "Child process crashed with status 6 (signal 6: Aborted)", AfterWorker::Restart, 0},
        {SIGSEGV, wxLOG_Error, "Child process crashed with status 11 (signal 11: Segmentation fault)",
         AfterWorker::Restart, 0},
        {SIGSEGV | kCore, wxLOG_Error, "Child process crashed with status 139 (signal 11: Segmentation fault)",
         AfterWorker::Restart, 0},
        // Stopped by SIGSTOP, and by SIGTERM: not an end, and not a termination either.
        {0x137f, wxLOG_Info, "Child process exited with status 4991", AfterWorker::Restart, 0x13},
        {0x0f7f, wxLOG_Info, "Child process exited with status 3967", AfterWorker::Restart, 0x0f},
        {0xffff, wxLOG_Info, "Child process exited with status 65535", AfterWorker::Restart, 0xff},
    };
    for (const Case& row : cases) {
        const WaitReport report = DescribeWaitStatus(row.status);
        EXPECT_EQ(row.level, report.level) << row.status;
        EXPECT_EQ(wxString(row.text), report.text) << row.status;
        EXPECT_EQ(row.next, DecideAfterWorker(row.status)) << row.status;
        EXPECT_EQ(row.exitCode, ExitCodeOf(row.status)) << row.status;
    }
}

TEST(WaitStatus, BusErrorsAndArithmeticErrorsAreNoCrashes)
{
    for (const int signal : {SIGBUS, SIGFPE}) {
        const wxString text = wxString::Format(L"Child process exited with status %d (signal %d: %s)", signal, signal,
                                               wxString(strsignal(signal)));
        EXPECT_EQ(wxLOG_Info, DescribeWaitStatus(signal).level);
        EXPECT_EQ(text, DescribeWaitStatus(signal).text);
        EXPECT_EQ(AfterWorker::Restart, DecideAfterWorker(signal));
    }
}

TEST(WaitStatus, EverySignalButSigtermLeadsToARestart)
{
    for (int signal = 1; signal < 0x7f; ++signal) {
        for (const int status : {signal, signal | kCore}) {
            const AfterWorker expected = signal == SIGTERM ? AfterWorker::End : AfterWorker::Restart;
            EXPECT_EQ(expected, DecideAfterWorker(status)) << status;
        }
    }
}

TEST(WaitStatus, EveryCodeButThreeEndsTheAgentWithIt)
{
    for (int code = 0; code < 256; ++code) {
        EXPECT_EQ(code == 3 ? AfterWorker::StopDriver : AfterWorker::End, DecideAfterWorker(Exited(code))) << code;
        EXPECT_EQ(code, ExitCodeOf(Exited(code)));
    }
}

TEST(WaitStatus, TheLayoutIsTheSystems)
{
    for (const int code : {0, 3, 255}) {
        const pid_t child = fork();
        if (child == 0)
            _exit(code);
        int status = -1;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        EXPECT_EQ(Exited(code), status);
    }
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGTERM, SIG_DFL);
        raise(SIGTERM);
        _exit(1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(SIGTERM, status);
}

} // namespace
