// ScriptThread.h: the thread that runs the Lua application.
#pragma once

#include <VelCore/Runnable.h>

/// Runs the application module and hands its status on: by ending the process itself, or by ending the main thread's
/// event loop.
class CScriptThread : public VelCore::CRunnable
{
public:
    CScriptThread();
    ~CScriptThread() override;

    const char* GetThreadName() const override { return "CScriptThread"; }

protected:
    int OnRun() override;
};
