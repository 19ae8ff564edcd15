#include "support/ZipBuilder.h"

#include <memory>
#include <stdexcept>

#include <libdeflate.h>

namespace VelTest {

namespace {

void Put16(std::string& out, std::uint64_t value)
{
    out += static_cast<char>(value & 0xFF);
    out += static_cast<char>(value >> 8 & 0xFF);
}

void Put32(std::string& out, std::uint64_t value)
{
    Put16(out, value & 0xFFFF);
    Put16(out, value >> 16);
}

void Put64(std::string& out, std::uint64_t value)
{
    Put32(out, value & 0xFFFFFFFF);
    Put32(out, value >> 32);
}

std::string Zip64Extra(const std::vector<std::uint64_t>& values)
{
    std::string out;
    Put16(out, 1);
    Put16(out, 8 * values.size());
    for (const std::uint64_t value : values)
        Put64(out, value);
    return out;
}

// What is true of an item, before its lies.
struct Facts
{
    std::string data;
    std::uint32_t crc;
    std::uint16_t flags;
    std::uint64_t offset; // of the local header in the archive
};

const std::uint64_t kSentinel = 0xFFFFFFFF;

void PutLocal(std::string& out, const ZipItem& item, const Facts& facts)
{
    const std::string name = item.localName.value_or(item.name);
    const std::uint64_t compressedSize = item.localCompressedSize.value_or(item.dataDescriptor ? 0 : facts.data.size());
    const std::uint64_t size = item.localSize.value_or(item.dataDescriptor ? 0 : item.content.size());
    const std::string extra =
        (item.zip64 ? item.localZip64Extra.value_or(Zip64Extra({size, compressedSize})) : std::string()) +
        item.localExtra;

    Put32(out, item.localSignature.value_or(0x04034b50));
    Put16(out, item.zip64 ? 45 : 20);
    Put16(out, item.localFlags.value_or(facts.flags));
    Put16(out, item.localMethod.value_or(item.method));
    Put32(out, 0x5A212000); // a time and a day
    Put32(out, item.localCrc.value_or(item.dataDescriptor ? 0 : facts.crc));
    Put32(out, item.zip64 ? kSentinel : compressedSize);
    Put32(out, item.zip64 ? kSentinel : size);
    Put16(out, name.size());
    Put16(out, extra.size());
    out += name + extra + facts.data;

    if (item.dataDescriptor) {
        Put32(out, 0x08074b50);
        Put32(out, facts.crc);
        if (item.zip64) {
            Put64(out, facts.data.size());
            Put64(out, item.content.size());
        } else {
            Put32(out, facts.data.size());
            Put32(out, item.content.size());
        }
    }
}

void PutDirectoryEntry(std::string& out, const ZipItem& item, const Facts& facts)
{
    const std::uint64_t compressedSize = item.directoryCompressedSize.value_or(facts.data.size());
    const std::uint64_t size = item.directorySize.value_or(item.content.size());
    const std::uint64_t offset = item.directoryOffset.value_or(facts.offset);
    const std::string extra =
        (item.zip64 ? item.directoryZip64Extra.value_or(Zip64Extra({size, compressedSize, offset})) : std::string()) +
        item.directoryExtra;

    Put32(out, item.directorySignature.value_or(0x02014b50));
    Put16(out, item.madeBy);
    Put16(out, item.zip64 ? 45 : 20);
    Put16(out, facts.flags);
    Put16(out, item.directoryMethod.value_or(item.method));
    Put32(out, 0x5A212000);
    Put32(out, item.directoryCrc.value_or(facts.crc));
    Put32(out, item.zip64 ? kSentinel : compressedSize);
    Put32(out, item.zip64 ? kSentinel : size);
    Put16(out, item.name.size());
    Put16(out, extra.size());
    Put16(out, item.comment.size());
    Put16(out, item.directoryVolume.value_or(0));
    Put16(out, 0);
    Put32(out, item.externalAttributes);
    Put32(out, item.zip64 ? kSentinel : offset);
    out += item.name + extra + item.comment;
}

} // namespace

std::string CZipBuilder::Build() const
{
    std::string archive;
    std::string directory;
    for (const ZipItem& item : items) {
        Facts facts;
        facts.data = item.data.value_or(item.method == 8 ? Deflate(item.content) : item.content);
        facts.crc = Crc32(item.content);
        facts.flags = static_cast<std::uint16_t>(item.flags | (item.dataDescriptor ? 8 : 0));
        facts.offset = archive.size();
        PutLocal(archive, item, facts);
        PutDirectoryEntry(directory, item, facts);
    }

    const std::uint64_t saidCount = count.value_or(items.size());
    const std::uint64_t saidSize = directorySize.value_or(directory.size());
    const std::uint64_t saidOffset = directoryOffset.value_or(archive.size());
    archive += directory + gap;

    if (zip64) {
        const std::uint64_t zip64Offset = archive.size();
        Put32(archive, zip64EndSignature.value_or(0x06064b50));
        Put64(archive, 44 + zip64Padding);
        Put16(archive, 45);
        Put16(archive, 45);
        Put32(archive, volume.value_or(0));
        Put32(archive, volume.value_or(0));
        Put64(archive, countHere.value_or(saidCount));
        Put64(archive, saidCount);
        Put64(archive, saidSize);
        Put64(archive, saidOffset);
        archive.append(zip64Padding, '\0');
        Put32(archive, 0x07064b50);
        Put32(archive, 0);
        Put64(archive, zip64Offset);
        Put32(archive, 1);
    }
    Put32(archive, 0x06054b50);
    Put16(archive, zip64 ? 0 : volume.value_or(0));
    Put16(archive, zip64 ? 0 : volume.value_or(0));
    Put16(archive, zip64 ? 0xFFFF : countHere.value_or(saidCount));
    Put16(archive, zip64 ? 0xFFFF : saidCount);
    Put32(archive, zip64 ? kSentinel : saidSize);
    Put32(archive, zip64 ? kSentinel : saidOffset);
    Put16(archive, commentLength.value_or(static_cast<std::uint16_t>(comment.size())));
    return prefix + archive + comment + suffix;
}

std::string Deflate(const std::string& content)
{
    const std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> compressor(
        libdeflate_alloc_compressor(6), libdeflate_free_compressor);
    if (!compressor)
        throw std::runtime_error("cannot allocate a compressor");
    std::string out(libdeflate_deflate_compress_bound(compressor.get(), content.size()), '\0');
    out.resize(libdeflate_deflate_compress(compressor.get(), content.data(), content.size(), &out[0], out.size()));
    if (out.empty())
        throw std::runtime_error("cannot compress");
    return out;
}

std::uint32_t Crc32(const std::string& content)
{
    return libdeflate_crc32(0, content.data(), content.size());
}

} // namespace VelTest
