// ZipBuilder.h: archives in memory for tests, right ones and ones that lie.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "archive/ZipFormat.h"

namespace VelTest {

/// One entry to be written. What is not set is written as it should be; what is set is written as given, true or not.
struct ZipItem
{
    std::string name;
    std::string content;

    std::uint16_t method = 8;           // what is really done with the content: 0 or 8
    std::uint16_t flags = 0;            // in both headers
    std::uint16_t madeBy = 3 << 8 | 30; // Unix
    std::uint32_t externalAttributes = 0;
    bool dataDescriptor = false; // sets bit 3; local checksum and sizes are 0, a descriptor follows the data
    bool zip64 = false;          // sizes and offset stand in Zip64 extra fields

    std::string localExtra = {}; // further extra fields, complete with their headers
    std::string directoryExtra = {};
    std::string comment = {};

    std::optional<std::string> data = {}; // the compressed bytes

    std::optional<std::uint32_t> localSignature = {};
    std::optional<std::string> localName = {};
    std::optional<std::uint16_t> localFlags = {};
    std::optional<std::uint16_t> localMethod = {};
    std::optional<std::uint32_t> localCrc = {};
    std::optional<std::uint64_t> localCompressedSize = {};
    std::optional<std::uint64_t> localSize = {};
    std::optional<std::string> localZip64Extra = {}; // in place of the right field, complete with its header

    std::optional<std::uint32_t> directorySignature = {};
    std::optional<std::uint16_t> directoryMethod = {};
    std::optional<std::uint32_t> directoryCrc = {};
    std::optional<std::uint64_t> directoryCompressedSize = {};
    std::optional<std::uint64_t> directorySize = {};
    std::optional<std::uint64_t> directoryOffset = {}; // of the local header
    std::optional<std::uint16_t> directoryVolume = {};
    std::optional<std::string> directoryZip64Extra = {};
};

/// Writes the items in order, then the directory and the end record.
class CZipBuilder
{
public:
    std::vector<ZipItem> items;

    std::string prefix;             // in front of the archive; the offsets do not count it
    std::string gap;                // between the directory and the end record
    std::string comment;            // of the archive
    std::string suffix;             // behind the end record, not counted as comment
    bool zip64 = false;             // a Zip64 end record and locator
    std::uint64_t zip64Padding = 0; // bytes in the Zip64 end record's extensible part

    std::optional<std::uint16_t> volume;
    std::optional<std::uint64_t> countHere;
    std::optional<std::uint64_t> count;
    std::optional<std::uint64_t> directorySize;
    std::optional<std::uint64_t> directoryOffset;
    std::optional<std::uint16_t> commentLength;
    std::optional<std::uint32_t> zip64EndSignature;

    CZipBuilder() = default;
    explicit CZipBuilder(std::vector<ZipItem> list) : items(std::move(list)) {}

    std::string Build() const;
};

/// A raw deflate stream of `content`.
std::string Deflate(const std::string& content);

std::uint32_t Crc32(const std::string& content);

/// Bytes in memory as a source; they must outlive it.
class CMemorySource : public VelCore::ByteSource
{
public:
    explicit CMemorySource(const std::string& bytes) : CMemorySource(bytes.data(), bytes.size()) {}
    explicit CMemorySource(std::string&&) = delete; // would dangle
    CMemorySource(const char* bytes, std::size_t size) : m_bytes(bytes), m_size(size) {}

    bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::string& reason) const override
    {
        ++m_reads;
        if (offset > m_size || length > m_size - offset) {
            reason = "read beyond the end";
            return false;
        }
        if (length > 0)
            std::memcpy(buffer, m_bytes + offset, length);
        return true;
    }

    std::uint64_t Size() const override { return m_size; }

    /// The number of calls of ReadAt so far.
    int Reads() const { return m_reads; }

private:
    const char* m_bytes;
    std::size_t m_size;
    mutable int m_reads = 0; // not synchronised: for tests with one thread
};

} // namespace VelTest
