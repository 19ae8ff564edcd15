// The script thread's life.
//
// Tested by: blackbox/test_exit_status.py, blackbox/test_lua_host.py, blackbox/test_run_modes.py.

#include "luahost/ScriptThread.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <new>

#include <wx/evtloop.h>
#include <wx/log.h>

#include <VelCore/EndProcess.h>
#include <VelCore/RunnableRegistry.h>

#include "AgentApp.h"
#include "shell/ExceptionText.h"
#include "supervision/MainThreadStop.h"

namespace {

const std::chrono::seconds kRunnablePatience{10};

// The exception that is being handled: a record for the operator, then the report of the application.
void ReportException(CAgentApp& app)
{
    try {
        wxLogError(L"The application has failed: %s", DescribeCurrentException());
        app.OnUnhandledException();
    } catch (const std::bad_alloc&) {
        return; // without memory for a line of text, the status has to do
    }
}

// What escapes here would end the thread but leave the process waiting for its status.
int RunScriptGuarded(CAgentApp& app)
{
    try {
        return app.OnRunScript();
    } catch (...) {
        ReportException(app);
        return -1;
    }
}

// The request is queued, so it also reaches an event loop that does not exist yet.
//
// Queueing ends with waking the loop up, when the main thread may already have carried the request out. The loop is
// destroyed as soon as it has ended, so it must not end before this thread is through with it.
void EndEventLoop(CAgentApp& app, int status)
{
    const auto queued = std::make_shared<std::promise<void>>();
    app.QueueEvent(new wxIdleEvent);
    app.CallAfter([&app, status, queued] {
        queued->get_future().wait();
        app.GetMainLoop()->ScheduleExit(status);
    });
    queued->set_value();
}

} // namespace

CScriptThread::CScriptThread() : CRunnable(false, -1, false) {}

CScriptThread::~CScriptThread() = default;

int CScriptThread::OnRun()
{
    CAgentApp& app = wxGetApp();
    const int status = RunScriptGuarded(app);

    // Static destructors would take away what a thread that goes on still uses.
    if (!VelCore::CRunnableRegistry::Get().StopAll(kRunnablePatience))
        VelCore::EndProcess(status);

    if (!app.IsBackground() && !app.IsMainAgent()) {
        CMainThreadStop::Get().StopEventLoop(app);
        CAgentApp::TerminationCleanup();
        std::exit(status);
    }
    // A stream that nobody reads from blocks its flush. Here the event loop still runs and notices when the watchdog is
    // lost; `exit`, which would flush next, runs without it.
    std::fflush(nullptr);
    EndEventLoop(app, status);
    return status;
}
