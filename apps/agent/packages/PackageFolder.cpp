// What an operator has put beside the executable.
//
// Renaming and removing go straight to the system: the framework's functions lose the reason of a failure, or try a
// copy.
//
// Tested by: component/PackageFolderTest.cpp, blackbox/test_packages.py.

#include "packages/PackageFolder.h"

#include <cstdio>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include <wx/dir.h>
#include <wx/filefn.h>
#include <wx/filename.h>

#include <VelCore/Utf8.h>

namespace {

// Whether both are names of the same file, as hard links are.
bool AreOneFile(const std::string& one, const std::string& other)
{
    struct stat first = {};
    struct stat second = {};
    return lstat(one.c_str(), &first) == 0 && lstat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

} // namespace

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
    const std::string done = name + ".done";
    if (AreOneFile(name, done))
        return unlink(name.c_str()) == 0; // renaming one to the other does nothing, and says that it did
    return std::rename(name.c_str(), done.c_str()) == 0;
}

bool RemoveName(const wxString& path)
{
    return unlink(VelCore::ToUtf8(path).c_str()) == 0;
}
