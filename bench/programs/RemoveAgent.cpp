// Removal as the agent does it: its whole step for the markers in a folder, with the event at the end.
//
// Usage: RemoveAgent FOLDER WORK
//   FOLDER  holds a marker and the files that it lists
//   WORK    where events and the log are written

#include <memory>

#include <wx/init.h>

#include <VelCore/Dom.h>

#include "AgentApp.h"
#include "programs/Measure.h"

using namespace VelBench;

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: RemoveAgent FOLDER WORK");
    const wxInitializer framework;
    wxAppConsole* const initial = wxAppConsole::GetInstance();
    auto app = std::make_unique<CAgentApp>();
    app->SetAppName(L"bench");
    VelCore::CDom& dom = *VelCore::CDom::Root();
    dom.Set("app.name", "bench");
    dom.Set("app.path.bin", argv[1]);
    dom.Set("app.path.work", argv[2]);
    Measure([&] { app->UninstallOldPlugins(); });
    app.reset();
    wxAppConsole::SetInstance(initial);
    return 0;
}
