// CAgentApp: the run modes of the application.
//
// Tested by: blackbox/test_run_modes.py.

#include "AgentApp.h"

#include <unistd.h>

#include <wx/mstream.h>

#include <VelCore/LuaInterpreter.h>
#include <VelCore/Utf8.h>

#include "luahost/Snippets.h"
#include "luahost/StandardOutput.h"
#include "shell/StandardStreams.h"
#include "supervision/Signals.h"

namespace {

// Seconds after which the alarm of a test run goes off. It ends nothing: at most it interrupts a blocking call of the
// thread that happens to take it.
const unsigned int kTestAlarm = 600;

} // namespace

int CAgentApp::OnRunScript()
{
    return m_background ? RunService() : RunAppInteractively();
}

int CAgentApp::RunService()
{
    int rc = RunAppInit();
    if (rc == 0)
        rc = RunAppMain();
    if (rc != 0)
        return rc;

    NotePhase(L"service");
    AwaitSigterm();
    rc = RunAppShutdown();
    UnblockSigterm();
    return rc;
}

int CAgentApp::RunAppInteractively()
{
    int rc = RunAppInit();
    if (rc == 0)
        rc = m_unitTestScript.empty() ? RunAppMain() : RunUnitTests();
    return rc == 0 ? RunAppShutdown() : rc;
}

int CAgentApp::RunUnitTests()
{
    if (m_unitTestScript.empty())
        return 0;

    NotePhase(L"tests");
    CStandardOutput out;
    alarm(kTestAlarm);
    const std::string chunk = VelCore::ToUtf8(UnitTestChunk(m_unitTestScript));
    wxMemoryInputStream in(chunk.data(), chunk.size());
    const int rc = RunChunk(in, out, L"tests.velunit");
    out.Sync();
    if (rc != 0)
        WriteStandardError(m_interpreter->GetErrorInfo() + L"\n");
    return rc;
}
