// What an operator has put beside the executable.
//
// Renaming goes straight to the system, see docs/decisions/0009-packages-are-renamed-by-the-system.md.
//
// Tested by: component/PackageFolderTest.cpp, blackbox/test_packages.py.

#include "packages/PackageFolder.h"

#include <cstdio>
#include <string>

#include <sys/stat.h>

#include <wx/dir.h>
#include <wx/filefn.h>
#include <wx/filename.h>
#include <wx/log.h>

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
        return RemoveName(path); // renaming one to the other does nothing, and says that it did
    return std::rename(name.c_str(), done.c_str()) == 0;
}

bool RemoveName(const wxString& path)
{
    // Its own record would take the place of the reason, which belongs into the caller's.
    const wxLogNull quiet;
    return wxRemoveFile(path);
}
