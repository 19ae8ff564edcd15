// ZipArchive.h: a ZIP archive on disk, opened once and read by many.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "archive/ZipFormat.h"

namespace VelCore {

/// An open archive: its directory in memory, and its content as well when it is small (64 KiB), else its descriptor
/// kept.
///
/// The archive may be replaced or removed on disk; this object goes on with the file that was opened. A larger file
/// that is cut or overwritten in place gives errors for the entries that are hit, never a crash: it is read, not
/// mapped.
///
/// Ownership: shared; the descriptor is closed with the last owner. Programs that are started do not inherit it.
/// Threads:   everything but the end of its life may be called from several threads at once.
class CZipArchive
{
public:
    /// Opens the archive and reads its directory; symbolic links in the path are followed.
    ///
    /// Errors: null, and one line of English in `reason`, without the path. A pipe or a device does not block.
    static std::shared_ptr<const CZipArchive> Open(const std::string& path, std::string& reason);

    ~CZipArchive();
    CZipArchive(const CZipArchive&) = delete;
    CZipArchive& operator=(const CZipArchive&) = delete;

    /// The path as given to Open.
    const std::string& Path() const;

    /// All entries in the directory's order, duplicates included.
    const std::vector<ZipEntry>& Entries() const;

    /// The bytes of the file, for LocateData.
    const ByteSource& Source() const;

    /// Reads the whole content of an entry of this archive and checks it.
    ///
    /// Errors: as ReadZipEntry.
    bool Read(const ZipEntry& entry, std::string& content, std::string& reason) const;

private:
    class FileSource;

    CZipArchive(std::string path, std::unique_ptr<const FileSource> source, std::vector<ZipEntry> entries);

    std::string m_path;
    std::unique_ptr<const FileSource> m_source;
    std::vector<ZipEntry> m_entries;
};

} // namespace VelCore
