// CAgentApp: the watchdog of background mode.
//
// One loop: judge the restart, wait out the delay, fork a worker, wait for its end, decide. The judgement and the
// decision are pure (RestartPolicy, WaitStatus); this file only talks to the kernel and the log.
//
// SIGTERM is blocked but for the calls in which the loop waits, so the handler never meets the process in the
// middle of something, and no stop is lost between a look at it and a fork.
//
// Tested by: unit/agent/supervision/{RestartPolicy,WaitStatus}Test.cpp, blackbox/test_watchdog.py.

#include "AgentApp.h"

#include <cerrno>
#include <ctime>

#include <sys/wait.h>
#include <unistd.h>

#include <wx/log.h>

#include <VelCore/Execute.h>

#include "supervision/RestartPolicy.h"
#include "supervision/Signals.h"
#include "supervision/WaitStatus.h"
#include "supervision/WatchdogLine.h"

namespace {

const int kGiveUp = -1;

const char* const kDriverScript = "/opt/kx_agent/SunOS.init";

// Returns false when the limit is reached. A delay ends early with a stop.
bool AwaitPermission(CRestartPolicy& policy)
{
    const std::int64_t now = std::time(nullptr);
    const CRestartPolicy::Verdict verdict = policy.Judge(now);
    if (!verdict.allowed) {
        wxLogError(L"Too many restarts in too short of a time, exiting (%d restarts in less than %d seconds)",
                   verdict.recentStarts, int{CRestartPolicy::s_WindowSeconds});
        return false;
    }
    if (verdict.delayMs > 0) {
        wxLogVerbose(L"Delaying %dms before restart %d", verdict.delayMs, verdict.recentStarts);
        SleepUntilStop(verdict.delayMs);
    }
    policy.RecordStart(now);
    return true;
}

// Waits for the worker's end. Returns false, with a record, when that is not possible.
bool AwaitWorker(pid_t worker, int& status)
{
    for (;;) {
        int error = 0;
        const pid_t ended = WaitWithSigterm(worker, status, error);
        if (ended == worker)
            return true;
        if (ended != -1)
            continue;
        if (error != EINTR) {
            wxLogSysError(error, L"Error waiting for child process");
            return false;
        }
        wxLogWarning(L"Waiting for child process interrupted - Try again");
    }
}

void Report(int status)
{
    const WaitReport report = DescribeWaitStatus(status);
    if (report.level == wxLOG_Info)
        wxLogVerbose(L"%s", report.text);
    else
        wxLogGeneric(report.level, L"%s", report.text);
}

void StopDriver()
{
    if (access(kDriverScript, X_OK) != 0)
        return;
    wxString output;
    wxString error;
    unsigned long code = 0;
    // A script that hangs must not keep a stop away.
    UnblockSigterm();
    const bool isStopped = VelCore::Execute(kDriverScript, L"stopmod", output, code, error);
    BlockSigterm();
    if (isStopped)
        wxLogMessage(L"Driver stopped using %s", kDriverScript);
    else
        wxLogError(L"Error stopping driver: %s", error);
}

} // namespace

CAgentApp::Role CAgentApp::SuperviseWorker(int& exitCode)
{
    exitCode = kGiveUp;
    NotePhase(L"watchdog");
    CRestartPolicy policy;
    int status = 0; // of the last worker
    for (;;) {
        const bool isPermitted = AwaitPermission(policy);
        if (StopRequested())
            break;
        if (!isPermitted)
            return Role::Watchdog;

        CWatchdogLine line;
        const pid_t worker = fork();
        if (worker == 0) {
            m_watchdogLine = line.TakeWorkersEnd();
            return Role::Worker;
        }
        if (worker < 0) {
            wxLogSysError(errno, L"Unable to fork child");
            return Role::Watchdog;
        }
        line.CloseWorkersEnd();
        ArmWatchdogSignals(m_pidFile);
        if (!AwaitWorker(worker, status))
            return Role::Watchdog;

        Report(status);
        const AfterWorker next = DecideAfterWorker(status);
        if (next == AfterWorker::StopDriver)
            StopDriver();
        if (next == AfterWorker::End || StopRequested())
            break;
    }
    exitCode = ExitCodeOf(status);
    return Role::Watchdog;
}
