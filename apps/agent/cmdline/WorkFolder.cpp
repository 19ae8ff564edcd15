// The work folder.
//
// Tested by: component/WorkFolderTest.cpp, blackbox/test_cmdline.py.

#include "cmdline/WorkFolder.h"

#include <vector>

#include <sys/stat.h>

#include <wx/filename.h>

#include <VelCore/SecureFile.h>

namespace {

// Agents that share a folder may start at the same moment: one that another has just made is no failure, which the
// framework's own call takes it for. That call comes last, for its record of what cannot be made.
bool MakeLevel(const wxString& level)
{
    return mkdir(level.fn_str(), 0600) == 0 || wxFileName::DirExists(level) ||
           wxFileName::Mkdir(level, 0600, wxPATH_MKDIR_FULL);
}

} // namespace

void CreateWorkFolder(const wxString& folder)
{
    // 0600 keeps everybody out until the rights are settled. A folder without the search bit cannot be entered, not
    // even by its owner unless that is root, so each level is secured before the next one is made in it.
    std::vector<wxString> missing;
    for (wxFileName level = wxFileName::DirName(folder); !level.DirExists(); level.RemoveLastDir()) {
        missing.push_back(level.GetPath());
        if (level.GetDirCount() <= 1)
            break;
    }
    for (auto level = missing.rbegin(); level != missing.rend(); ++level) {
        if (!MakeLevel(*level))
            return;
        VelCore::SecureFileOrDirectory(*level, false);
    }
}
