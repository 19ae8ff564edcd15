#include "programs/MappedZip.h"

#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "programs/Measure.h"

namespace VelBench {

namespace {

const std::size_t kLocalSize = 30;
const std::size_t kDirectoryEntrySize = 46;
const std::size_t kEndSize = 22;

template <typename Number>
Number Get(const unsigned char* bytes) // on a little-endian machine
{
    Number number = 0;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

} // namespace

CMappedZip::CMappedZip(const std::string& path)
{
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status = {};
    if (file < 0 || fstat(file, &status) != 0)
        Die("cannot open " + path);
    m_size = static_cast<std::size_t>(status.st_size);
    void* const mapping = mmap(nullptr, m_size, PROT_READ, MAP_PRIVATE, file, 0);
    if (mapping == MAP_FAILED)
        Die("cannot map " + path);
    m_bytes = static_cast<const unsigned char*>(mapping);
    close(file);
}

CMappedZip::~CMappedZip()
{
    munmap(const_cast<unsigned char*>(m_bytes), m_size);
}

std::vector<MappedEntry> CMappedZip::Entries() const
{
    const unsigned char* const end = m_bytes + m_size - kEndSize;
    std::vector<MappedEntry> entries(Get<std::uint16_t>(end + 10));
    const unsigned char* at = m_bytes + Get<std::uint32_t>(end + 16);
    for (MappedEntry& entry : entries) {
        const std::size_t nameLength = Get<std::uint16_t>(at + 28);
        entry.isDeflated = Get<std::uint16_t>(at + 10) != 0;
        entry.crc32 = Get<std::uint32_t>(at + 16);
        entry.size = Get<std::uint32_t>(at + 24);
        entry.name = {reinterpret_cast<const char*>(at) + kDirectoryEntrySize, nameLength};
        entry.data = {reinterpret_cast<const char*>(m_bytes) + Get<std::uint32_t>(at + 42) + kLocalSize + nameLength,
                      Get<std::uint32_t>(at + 20)};
        at += kDirectoryEntrySize + nameLength + Get<std::uint16_t>(at + 30) + Get<std::uint16_t>(at + 32);
    }
    return entries;
}

} // namespace VelBench
