// The same removal with what the framework offers for it: its walk through the archive, and wxRemoveFile.
//
// Usage: RemoveWalk ARCHIVE FOLDER

#include <memory>

#include <wx/filefn.h>
#include <wx/init.h>
#include <wx/wfstream.h>
#include <wx/zipstrm.h>

#include <VelCore/Utf8.h>

#include "programs/Measure.h"

using namespace VelBench;

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: RemoveWalk ARCHIVE FOLDER");
    const wxInitializer framework;
    const wxString folder = VelCore::FromUtf8(argv[2]) + L'/';
    Measure([&] {
        wxFFileInputStream file(VelCore::FromUtf8(argv[1]), L"rb");
        wxZipInputStream archive(file);
        while (const std::unique_ptr<wxZipEntry> entry{archive.GetNextEntry()}) {
            if (!wxRemoveFile(folder + entry->GetName(wxPATH_UNIX)))
                Die("not removed");
        }
    });
    return 0;
}
