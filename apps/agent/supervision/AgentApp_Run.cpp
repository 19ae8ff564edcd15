// CAgentApp: the order of a run, and the worker.
//
// Tested by: blackbox/test_run_modes.py, blackbox/test_exit_status.py, blackbox/test_watchdog.py.

#include "AgentApp.h"

#include <cstdlib>

#include <wx/log.h>

#include "luahost/ScriptThread.h"
#include "shell/StandardStreams.h"
#include "supervision/MainThreadStop.h"
#include "supervision/Signals.h"
#include "supervision/WatchdogLoss.h"

int CAgentApp::OnRun()
{
    RestoreChildSignal();
    int exitCode = 0;
    if (!EnterFipsMode(exitCode))
        return exitCode;

    if (!m_background) {
        wxLog::SetLogLevel(wxLOG_Max);
        BlockOnlySigterm();
        RunWorker();
    }

    if (!BecomeDaemon(exitCode))
        return exitCode;
    Role role = Role::Watchdog;
    try {
        role = SuperviseWorker(exitCode);
    } catch (...) {
        RemovePidFile();
        throw;
    }
    if (role == Role::Worker)
        RunWorker();

    RemovePidFile(); // only the watchdog comes this far
    return exitCode;
}

void CAgentApp::RunWorker()
{
    BlockSigterm();
    NotePhase(L"worker");

    CScriptThread script;
    script.SetDom(m_dom);
    if (!script.start(wxPRIORITY_DEFAULT, true, 0)) {
        WriteStandardError(L"Unable to start the script thread\n");
        std::exit(EXIT_FAILURE);
    }

    CWatchdogLoss loss;
    loss.Watch(m_watchdogLine);
    const int status = wxAppConsole::OnRun();
    CMainThreadStop::Get().MarkStanding(); // from here on this thread only waits for the other one

    script.requestExit();
    script.join();
    TerminationCleanup();
    std::exit(status);
}
