// CAgentApp: the version gate for extensions.
//
// Tested by: unit/agent/packages/{ExtensionGate,VersionFile}Test.cpp, blackbox/test_extensions.py.

#include "AgentApp.h"

#include <wx/filename.h>
#include <wx/log.h>
#include <wx/wfstream.h>

#include <VelCore/SkippedArchives.h>

#include "packages/ExtensionGate.h"

namespace {

std::optional<ExtensionRefusal> JudgeOnDisk(const wxString& extensionFile)
{
    const wxString versionFile = VersionFileOf(extensionFile);
    if (!wxFileExists(versionFile))
        return JudgeExtension(extensionFile, nullptr);
    wxFFileInputStream in(versionFile, L"rb");
    return JudgeExtension(extensionFile, &in);
}

} // namespace

bool CAgentApp::ExtensionVersionIsOK(const wxString& extensionFile)
{
    const auto refusal = JudgeOnDisk(extensionFile);
    if (!refusal)
        return true;
    wxLogWarning(L"%s", refusal->warning);
    VelCore::NoteSkippedArchive(extensionFile, refusal->reason); // for the message of a failed `require`
    return false;
}
