// Unpacking as the agent does it: every entry is wanted.
//
// Usage: UnpackAgent ARCHIVE FOLDER

#include <wx/filename.h>
#include <wx/init.h>

#include <VelCore/Unzip.h>
#include <VelCore/Utf8.h>

#include "programs/Measure.h"

using namespace VelBench;

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: UnpackAgent ARCHIVE FOLDER");
    const wxInitializer framework;
    const wxFileName archive(VelCore::FromUtf8(argv[1]));
    const wxFileName folder = wxFileName::DirName(VelCore::FromUtf8(argv[2]));
    const auto wanted = [](void*, const wxZipEntry*, const wxString*) { return true; };
    Measure([&] {
        if (!VelCore::Unzip(archive, folder, wanted, nullptr))
            Die("not unpacked");
    });
    return 0;
}
