// The work folder.
//
// Tested by: component/WorkFolderTest.cpp, blackbox/test_cmdline.py.

#include "cmdline/WorkFolder.h"

#include <vector>

#include <wx/filename.h>

#include <VelCore/SecureFile.h>

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
        if (!wxFileName::Mkdir(*level, 0600, wxPATH_MKDIR_FULL))
            return;
        VelCore::SecureFileOrDirectory(*level, false);
    }
}
