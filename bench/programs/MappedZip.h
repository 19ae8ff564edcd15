// MappedZip.h: the least that it takes to find what an archive holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace VelBench {

struct MappedEntry
{
    std::string_view name;
    std::string_view data; // as it stands in the archive
    std::size_t size = 0;
    std::uint32_t crc32 = 0;
    bool isDeflated = false;
};

/// An archive mapped into memory. Nothing is checked: it is one of ours, without Zip64, comments and local extra
/// fields.
class CMappedZip
{
public:
    /// Ends the program when the file cannot be mapped.
    explicit CMappedZip(const std::string& path);
    ~CMappedZip();
    CMappedZip(const CMappedZip&) = delete;
    CMappedZip& operator=(const CMappedZip&) = delete;

    /// All entries, in the directory's order; they point into the mapping.
    std::vector<MappedEntry> Entries() const;

private:
    const unsigned char* m_bytes = nullptr;
    std::size_t m_size = 0;
};

} // namespace VelBench
