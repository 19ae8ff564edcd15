// ZipWriter.h: archives that can be compared byte by byte.
#pragma once

#include <cstdint>
#include <string>

/// Writes a ZIP archive in memory that depends on the names, modes and contents of its entries only: every entry has
/// the same time, and carries the permission bits of a regular Unix file.
///
/// Shape:     entries in the order in which they are added; deflated where that is shorter, else stored. No Zip64, so
///            at most 65534 entries and 4 GiB.
/// Errors:    false, and one line of English in `reason`, without the entry's name; the archive is as before.
/// Ownership: a plain value.
/// Source:    PKWARE APPNOTE.TXT 6.3.10, sections 4.3 and 4.4.
class CZipWriter
{
public:
    /// name  as it shall stand in the archive; at most 65535 bytes; with "/" at its end for a folder
    /// mode  permission bits
    bool Add(const std::string& name, unsigned mode, const std::string& content, std::string& reason);

    /// The whole archive. Nothing can be added any more.
    std::string Finish();

private:
    std::string m_archive;   // local headers and data
    std::string m_directory; // what will stand behind them
    std::uint16_t m_count = 0;
};
