// The entry point: standard descriptors, the command line as text, and the framework.

#include <wx/app.h>
#include <wx/init.h>

#include <VelCore/FileNames.h>

#include "AgentApp.h"
#include "shell/CommandWords.h"
#include "shell/StandardStreams.h"

wxAppConsole* wxCreateApp()
{
    wxAppConsoleBase::CheckBuildOptions(WX_BUILD_OPTIONS_SIGNATURE, "your program");
    return new CAgentApp;
}

static const wxAppInitializer g_registerFactory(wxCreateApp);

int main(int argc, char** argv)
{
    OpenStandardDescriptors();
    VelCore::UseUtf8FileNames();
    CCommandWords words(argc, argv);
    return wxEntry(words.Count(), words.Words());
}
