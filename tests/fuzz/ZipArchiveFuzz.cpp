// Foreign bytes as a ZIP archive: the directory, then every entry, as a whole and piece by piece. Beyond crashes and
// sanitizer reports, what the readers promise is checked: an entry that is read has its declared length and checksum,
// its data lies where it may, and the two ways of reading it agree.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "archive/EntryStream.h"
#include "archive/ZipFormat.h"
#include "support/ZipBuilder.h"

namespace {

void Require(bool promise)
{
    if (!promise)
        std::abort();
}

// Reads piece by piece; whether it came to a good end. What was handed out before a bad one counts too.
bool ReadStream(const VelTest::CMemorySource& source, const VelCore::ZipEntry& entry, std::string& content)
{
    VelCore::CEntryStream stream(source, entry);
    std::string_view piece;
    std::string reason;
    do {
        const bool isGiven = stream.Next(piece, reason);
        Require(isGiven == reason.empty());
        if (!isGiven)
            return false;
        content += piece;
        Require(content.size() <= entry.size);
    } while (!piece.empty());
    return true;
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
    const bool isWhole = VelCore::ReadZipEntry(source, entry, content, reason);
    if (isWhole)
        Require(located && content.size() == entry.size && VelTest::Crc32(content) == entry.crc32);
    else
        Require(content.empty() && !reason.empty());

    // Two decoders may differ on which damaged streams they notice before the checksum does, but not on content.
    std::string streamed;
    const bool isStreamed = ReadStream(source, entry, streamed);
    if (isStreamed)
        Require(located && streamed.size() == entry.size && VelTest::Crc32(streamed) == entry.crc32);
    if (isWhole && isStreamed)
        Require(content == streamed);
    if (!entry.IsDeflated())
        Require(isWhole == isStreamed);
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
