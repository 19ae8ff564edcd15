// Tested by: unit/tools/kx-pack/ZipWriterTest.cpp.

#include "ZipWriter.h"

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include <sys/stat.h>

#include <libdeflate.h>

namespace {

const std::uint32_t kLocalSignature = 0x04034b50;
const std::uint32_t kDirectorySignature = 0x02014b50;
const std::uint32_t kEndSignature = 0x06054b50;

const std::uint16_t kMadeByUnix = 3 << 8 | 20;
const std::uint16_t kNeeds20 = 20;       // deflate, folders
const std::uint16_t kUtf8Names = 0x0800; // what this tool and the agent take every name for
const std::uint16_t kStored = 0;
const std::uint16_t kDeflated = 8;

// 1980-01-01 00:00:00, the first moment that the format knows.
const std::uint16_t kTime = 0;
const std::uint16_t kDate = 1 << 5 | 1;

const std::size_t kLocalSize = 30; // fixed parts
const std::size_t kDirectoryEntrySize = 46;
const std::size_t kEndSize = 22;
const std::uint64_t kMaxOffset = 0xFFFFFFFE; // one more means Zip64
const std::uint16_t kMaxCount = 0xFFFE;

// Archives are packed once and shipped often. The level is part of what makes archives equal.
const int kLevel = 12;

void Put16(std::string& out, std::uint16_t value)
{
    out += static_cast<char>(value & 0xFF);
    out += static_cast<char>(value >> 8);
}

void Put32(std::string& out, std::uint32_t value)
{
    Put16(out, static_cast<std::uint16_t>(value & 0xFFFF));
    Put16(out, static_cast<std::uint16_t>(value >> 16));
}

// The deflated content; empty when that is not shorter.
std::string Deflate(const std::string& content)
{
    if (content.empty())
        return std::string();
    struct Free
    {
        void operator()(libdeflate_compressor* compressor) const { libdeflate_free_compressor(compressor); }
    };
    const std::unique_ptr<libdeflate_compressor, Free> compressor(libdeflate_alloc_compressor(kLevel));
    if (!compressor)
        throw std::bad_alloc();

    std::string deflated(content.size(), '\0');
    deflated.resize(libdeflate_deflate_compress(compressor.get(), content.data(), content.size(), &deflated[0],
                                                content.size() - 1));
    return deflated;
}

// The fields that both headers share, from "version needed" to the length of the extra field.
std::string CommonFields(const std::string& name, std::uint16_t method, const std::string& content, std::size_t stored)
{
    std::string fields;
    Put16(fields, kNeeds20);
    Put16(fields, kUtf8Names);
    Put16(fields, method);
    Put16(fields, kTime);
    Put16(fields, kDate);
    Put32(fields, libdeflate_crc32(0, content.data(), content.size()));
    Put32(fields, static_cast<std::uint32_t>(stored));
    Put32(fields, static_cast<std::uint32_t>(content.size()));
    Put16(fields, static_cast<std::uint16_t>(name.size()));
    Put16(fields, 0); // extra field
    return fields;
}

} // namespace

bool CZipWriter::Add(const std::string& name, unsigned mode, const std::string& content, std::string& reason)
{
    if (name.empty() || name.size() > std::numeric_limits<std::uint16_t>::max()) {
        reason = "an archive cannot hold a name of this length";
        return false;
    }
    const std::string deflated = content.size() > kMaxOffset ? std::string() : Deflate(content);
    const std::string& data = deflated.empty() ? content : deflated;
    const std::uint64_t end = std::uint64_t{m_archive.size()} + kLocalSize + name.size() + data.size() +
                              m_directory.size() + kDirectoryEntrySize + name.size() + kEndSize;
    if (m_count == kMaxCount || content.size() > kMaxOffset || end > kMaxOffset) {
        reason = "the archive would have more than 65534 entries or 4 GiB";
        return false;
    }

    const std::string fields = CommonFields(name, deflated.empty() ? kStored : kDeflated, content, data.size());
    Put32(m_directory, kDirectorySignature);
    Put16(m_directory, kMadeByUnix);
    m_directory += fields;
    Put16(m_directory, 0); // comment
    Put16(m_directory, 0); // volume
    Put16(m_directory, 0); // internal attributes
    Put32(m_directory, static_cast<std::uint32_t>((name.back() == '/' ? S_IFDIR : S_IFREG) | (mode & 0777)) << 16);
    Put32(m_directory, static_cast<std::uint32_t>(m_archive.size()));
    m_directory += name;

    Put32(m_archive, kLocalSignature);
    m_archive += fields;
    m_archive += name;
    m_archive += data;
    ++m_count;
    return true;
}

std::string CZipWriter::Finish()
{
    const auto offset = static_cast<std::uint32_t>(m_archive.size());
    m_archive += m_directory;
    Put32(m_archive, kEndSignature);
    Put16(m_archive, 0); // this volume
    Put16(m_archive, 0); // the directory's volume
    Put16(m_archive, m_count);
    Put16(m_archive, m_count);
    Put32(m_archive, static_cast<std::uint32_t>(m_directory.size()));
    Put32(m_archive, offset);
    Put16(m_archive, 0); // comment
    return std::move(m_archive);
}
