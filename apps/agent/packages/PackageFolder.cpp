// What an operator has put beside the executable.
//
// Renaming and removing go straight to the system: the framework's functions lose the reason of a failure, or try a
// copy.
//
// Tested by: component/PackageFolderTest.cpp, blackbox/test_packages.py.

#include "packages/PackageFolder.h"

#include <cstdio>
#include <string>

#include <unistd.h>

#include <wx/dir.h>
#include <wx/filefn.h>
#include <wx/filename.h>

#include <VelCore/Utf8.h>

wxArrayString ListFiles(const wxFileName& folder, const wxString& pattern)
{
    wxArrayString files;
    const wxString path = folder.GetPath();
    if (wxDir::Exists(path)) // of a missing folder the framework would complain
        wxDir::GetAllFiles(path, &files, pattern, wxDIR_FILES);
    files.Sort();
    return files;
}

void RemoveCoreFiles(const wxFileName& folder)
{
    for (const wxString& file : ListFiles(folder, L"Agent-Core*"))
        wxRemoveFile(file); // logs its own failure
}

bool RenameToDone(const wxString& path)
{
    const std::string name = VelCore::ToUtf8(path);
    return std::rename(name.c_str(), (name + ".done").c_str()) == 0;
}

bool RemoveName(const wxString& path)
{
    return unlink(VelCore::ToUtf8(path).c_str()) == 0;
}
