// CAgentApp: the report of an exception that nobody handled.
//
// Tested by: unit/agent/shell/ExceptionTextTest.cpp, component/AgentAppTest.cpp.

#include "AgentApp.h"

#include <VelCore/Trace.h>

#include "shell/ExceptionText.h"

void CAgentApp::OnUnhandledException()
{
    const char* const function = "OnUnhandledException";
    if (VelCore::LogTraceIsEnabled(s_Trace))
        VelCore::LogTrace(s_Trace, __FILE__, __LINE__, function, L"OnUnhandledException()");

    const wxString description = DescribeCurrentException();
    if (VelCore::LogTraceIsEnabled(s_Trace))
        VelCore::LogTrace(
            s_Trace, __FILE__, __LINE__, function,
            wxString::Format(L"OnUnhandledException() - caught unhandled %s, terminating app.", description));
}
