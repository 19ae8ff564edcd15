// An archive becomes files: first everything about it is vetted, then entry by entry is offered and unpacked.
//
// Tested by: unit/core/archive/UnzipTest.cpp.

#include <VelCore/Unzip.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <wx/datetime.h>
#include <wx/filename.h>
#include <wx/log.h>
#include <wx/zipstrm.h>

#include <VelCore/Utf8.h>

#include "archive/EntryKind.h"
#include "archive/EntryPath.h"
#include "archive/EntryStream.h"
#include "archive/LinkCheck.h"
#include "archive/NewFile.h"
#include "archive/UnpackFolder.h"
#include "archive/ZipArchive.h"

namespace VelCore {

namespace {

// An entry of up to this size is inflated as a whole, which is faster; a larger one piece by piece.
const std::uint64_t kWhole = 0x100000; // bytes

bool Report(const std::string& archive, const std::string& reason)
{
    wxLogError(L"Archive '%s' cannot be unpacked: %s", FromUtf8(archive), FromUtf8(reason));
    return false;
}

std::string InEntry(const ZipEntry& entry, const std::string& reason)
{
    return "entry '" + PrintableName(entry.name) + "': " + reason;
}

bool Refuse(const CZipArchive& archive, const ZipEntry& entry, const std::string& reason)
{
    wxLogError(L"Archive '%s' is refused: %s", FromUtf8(archive.Path()), FromUtf8(InEntry(entry, reason)));
    return false;
}

// The path of a folder without a separator at its end.
std::string FolderPath(const wxFileName& folder)
{
    std::string path = ToUtf8(folder.GetFullPath());
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path.empty() ? "." : path;
}

std::string TargetPath(const std::string& destination, const EntryPath& path)
{
    const std::string below = path.Whole();
    if (below.empty())
        return destination;
    return (destination == "/" ? destination : destination + '/') + below;
}

// The entry as the framework describes entries. Its own reader would have hidden what a name begins with, and links.
wxZipEntry FrameworkEntry(const ZipEntry& entry)
{
    wxZipEntry described(wxString(), wxDateTime(), static_cast<wxFileOffset>(entry.size));
    described.SetName(FromUtf8(entry.name), wxPATH_UNIX);
    described.SetMethod(entry.method);
    described.SetSystemMadeBy(wxZIP_SYSTEM_UNIX);
    described.SetIsDir(KindOf(entry) == EntryKind::Folder);
    described.SetMode(static_cast<int>(PermissionsOf(entry)));
    return described;
}

/// One archive on its way into one folder.
class CUnpacking
{
public:
    CUnpacking(std::shared_ptr<const CZipArchive> archive, const std::string& destination)
        : m_archive(std::move(archive)), m_destination(destination), m_folder(destination)
    {
    }

    // Names first, then the disk.
    bool Vet();

    bool Walk(bool (*callback)(void*, const wxZipEntry*, const wxString*), void* context);

    // Also after a failure: what was unpacked before it stays.
    bool Finish();

private:
    bool Unpack(const ZipEntry& entry, const EntryPath& path);
    bool UnpackFolder(const ZipEntry& entry, const EntryPath& path, std::string& reason);
    bool UnpackFile(const ZipEntry& entry, const EntryPath& path, std::string& reason);
    bool WriteFile(const ZipEntry& entry, const EntryPath& path, std::string& reason);
    bool WritePieces(const ZipEntry& entry, CNewFile& file, std::string& reason) const;

    const std::shared_ptr<const CZipArchive> m_archive;
    const std::string m_destination;
    CUnpackFolder m_folder;
    std::vector<EntryPath> m_paths; // of the archive's entries
    std::string m_content;          // of a small entry; kept for its memory
};

bool CUnpacking::Vet()
{
    const std::vector<ZipEntry>& entries = m_archive->Entries();
    std::string reason;
    m_paths.reserve(entries.size());
    for (const ZipEntry& entry : entries) {
        if (!ParseEntryPath(entry.name, m_paths.emplace_back(), reason))
            return Refuse(*m_archive, entry, reason);
        if (TargetPath(m_destination, m_paths.back()).size() >= PATH_MAX)
            return Refuse(*m_archive, entry, "the name is too long below '" + m_destination + "'");
    }

    CLinkCheck links;
    if (!links.Open(m_destination, reason))
        return Report(m_archive->Path(), reason);
    for (std::size_t index = 0; index < entries.size(); ++index) {
        if (!links.IsClear(m_paths[index], KindOf(entries[index]), reason))
            return Refuse(*m_archive, entries[index], reason);
    }
    return true;
}

bool CUnpacking::Walk(bool (*callback)(void*, const wxZipEntry*, const wxString*), void* context)
{
    const std::vector<ZipEntry>& entries = m_archive->Entries();
    for (std::size_t index = 0; index < entries.size(); ++index) {
        const wxZipEntry described = FrameworkEntry(entries[index]);
        const wxString target = FromUtf8(TargetPath(m_destination, m_paths[index]));
        if (callback(context, &described, &target) && !Unpack(entries[index], m_paths[index]))
            return false;
    }
    return true;
}

bool CUnpacking::Finish()
{
    std::string reason;
    return m_folder.Finish(reason) || Report(m_archive->Path(), reason);
}

bool CUnpacking::Unpack(const ZipEntry& entry, const EntryPath& path)
{
    std::string reason;
    bool unpacked = true;
    switch (KindOf(entry)) {
    case EntryKind::Special:
        wxLogWarning(L"Archive '%s': %s", FromUtf8(m_archive->Path()),
                     FromUtf8(InEntry(entry, "is a link or another special file, which is not created")));
        break;
    case EntryKind::Folder:
        unpacked = UnpackFolder(entry, path, reason);
        break;
    case EntryKind::File:
        unpacked = UnpackFile(entry, path, reason);
        break;
    }
    return unpacked || Report(m_archive->Path(), InEntry(entry, reason));
}

bool CUnpacking::UnpackFolder(const ZipEntry& entry, const EntryPath& path, std::string& reason)
{
    if (entry.size != 0) {
        reason = "is a folder, but has content";
        return false;
    }
    std::uint64_t dataOffset = 0; // of no interest; the local header has to agree with the directory here too
    return LocateData(m_archive->Source(), entry, dataOffset, reason) &&
           m_folder.MakeFolder(path, PermissionsOf(entry), reason);
}

// The content of a small entry comes first: when it is damaged, nothing has to be undone.
bool CUnpacking::UnpackFile(const ZipEntry& entry, const EntryPath& path, std::string& reason)
{
    if (entry.size <= kWhole && !m_archive->Read(entry, m_content, reason))
        return false;
    if (WriteFile(entry, path, reason))
        return true;
    m_folder.TakeBack();
    return false;
}

bool CUnpacking::WriteFile(const ZipEntry& entry, const EntryPath& path, std::string& reason)
{
    auto file = m_folder.StartFile(path, reason);
    if (!file)
        return false;
    const bool isWritten = entry.size <= kWhole ? file->Write(m_content, reason) : WritePieces(entry, *file, reason);
    return isWritten && file->PutInPlace(path.name, PermissionsOf(entry), reason);
}

bool CUnpacking::WritePieces(const ZipEntry& entry, CNewFile& file, std::string& reason) const
{
    CEntryStream stream(m_archive->Source(), entry);
    std::string_view piece;
    do {
        if (!stream.Next(piece, reason) || !file.Write(piece, reason))
            return false;
    } while (!piece.empty());
    return true;
}

} // namespace

bool Unzip(const wxFileName& archive, const wxFileName& destination,
           bool (*callback)(void* context, const wxZipEntry* entry, const wxString* target), void* context)
{
    // Before anything is written: what was left may be what fills the disk. It goes whatever becomes of this archive.
    RemoveUnfinished(destination);

    const std::string path = ToUtf8(archive.GetFullPath());
    std::string reason;
    auto opened = CZipArchive::Open(path, reason);
    if (!opened)
        return Report(path, reason);

    CUnpacking unpacking(std::move(opened), FolderPath(destination));
    if (!unpacking.Vet())
        return false;
    const bool walked = unpacking.Walk(callback, context);
    return unpacking.Finish() && walked;
}

void RemoveUnfinished(const wxFileName& destination)
{
    CUnpackFolder(FolderPath(destination)).RemoveLeftovers();
}

} // namespace VelCore
