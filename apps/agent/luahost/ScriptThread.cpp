// The script thread's life.
//
// Tested by: blackbox/test_exit_status.py, blackbox/test_run_modes.py.

#include "luahost/ScriptThread.h"

#include <cstdlib>

#include <wx/evtloop.h>

#include "AgentApp.h"
#include "supervision/MainThreadStop.h"

namespace {

// What escapes here would end the thread but leave the process waiting for its status.
int RunScriptGuarded(CAgentApp& app)
{
    try {
        return app.OnRunScript();
    } catch (...) {
        app.OnUnhandledException();
        return -1;
    }
}

// The request is queued, so it also reaches an event loop that does not exist yet.
void EndEventLoop(CAgentApp& app, int status)
{
    app.QueueEvent(new wxIdleEvent);
    app.CallAfter([&app, status] { app.GetMainLoop()->ScheduleExit(status); });
}

} // namespace

CScriptThread::CScriptThread() : CRunnable(false, -1, false) {}

CScriptThread::~CScriptThread() = default;

int CScriptThread::OnRun()
{
    CAgentApp& app = wxGetApp();
    const int status = RunScriptGuarded(app);

    if (!app.IsBackground() && !app.IsMainAgent()) {
        CMainThreadStop::Get().StopEventLoop(app);
        CAgentApp::TerminationCleanup();
        std::exit(status);
    }
    EndEventLoop(app, status);
    return status;
}
