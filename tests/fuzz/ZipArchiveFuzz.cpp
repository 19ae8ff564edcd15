// Foreign bytes as a ZIP archive: the directory, then every entry. Beyond crashes and sanitizer reports, what the
// reader promises is checked: an entry that is read has its declared length and checksum, and its data lies where it
// may.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "archive/ZipFormat.h"
#include "support/ZipBuilder.h"

namespace {

void Require(bool promise)
{
    if (!promise)
        std::abort();
}

void CheckEntry(const VelTest::CMemorySource& source, const VelCore::ZipEntry& entry)
{
    const std::uint64_t kLargest = 1 << 20;

    Require(!entry.name.empty() && entry.name.find('\0') == std::string::npos);
    Require(entry.dataLimit <= source.Size());
    VelCore::PrintableName(entry.name);

    std::string reason;
    std::uint64_t dataOffset = 0;
    const bool located = VelCore::LocateData(source, entry, dataOffset, reason);
    Require(located ? dataOffset > entry.localHeaderOffset && dataOffset <= entry.dataLimit &&
                          entry.compressedSize <= entry.dataLimit - dataOffset
                    : !reason.empty());

    if (entry.size > kLargest)
        return;
    std::string content = "left over";
    reason.clear();
    if (VelCore::ReadZipEntry(source, entry, content, reason))
        Require(located && content.size() == entry.size && VelTest::Crc32(content) == entry.crc32);
    else
        Require(content.empty() && !reason.empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const VelTest::CMemorySource source(reinterpret_cast<const char*>(data), size);
    std::vector<VelCore::ZipEntry> entries;
    std::string reason;
    if (!VelCore::ReadZipDirectory(source, entries, reason)) {
        Require(entries.empty() && !reason.empty());
        return 0;
    }
    for (const VelCore::ZipEntry& entry : entries)
        CheckEntry(source, entry);
    return 0;
}
