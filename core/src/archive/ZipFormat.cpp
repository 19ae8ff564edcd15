// The one reader of the ZIP container. Whoever vets an archive and whoever takes data out of it use the same entries,
// so the two can never disagree about what the archive holds.
//
// Every number comes from a file that may be hostile: positions are compared by subtraction (see Fits), and nothing is
// allocated on the word of a count or a size alone.
//
// Tested by: unit/core/archive/ZipFormatTest.cpp, fuzz/ZipArchiveFuzz.cpp.

#include "archive/ZipFormat.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include <libdeflate.h>

namespace VelCore {

namespace {

const std::uint32_t kLocalSignature = 0x04034b50;
const std::uint32_t kDirectorySignature = 0x02014b50;
const std::uint32_t kEndSignature = 0x06054b50;
const std::uint32_t kZip64EndSignature = 0x06064b50;
const std::uint32_t kZip64LocatorSignature = 0x07064b50;

const std::size_t kLocalSize = 30; // fixed parts; names, extra fields and comments follow
const std::size_t kDirectoryEntrySize = 46;
const std::size_t kEndSize = 22;
const std::size_t kZip64EndSize = 56;
const std::size_t kZip64LocatorSize = 20;
const std::size_t kMaxComment = 0xFFFF;

const std::uint16_t kSentinel16 = 0xFFFF;     // "see the Zip64 record"
const std::uint32_t kSentinel32 = 0xFFFFFFFF; // "see the Zip64 record" or "see the Zip64 extra field"
const std::uint16_t kZip64Extra = 0x0001;

const std::uint16_t kEncryptionFlags = 0x0001 | 0x0040 | 0x2000; // traditional, strong, masked headers
const std::uint16_t kDescriptorFlag = 0x0008;                    // checksum and sizes follow the data

const std::uint16_t kStored = 0;
const std::uint16_t kDeflated = 8;

// A match of 258 bytes costs at least two bits.
const std::uint64_t kMaxDeflateRatio = 1032;

// Writers put up to about 36 bytes of times and owners into the local header only.
const std::size_t kLikelyLocalExtra = 64;

const char* const kNoMemory = "not enough memory";

bool Fail(std::string& reason, std::string text)
{
    reason = std::move(text);
    return false;
}

bool Contradiction(std::string& reason, const char* field)
{
    return Fail(reason, std::string("the local header contradicts the directory (") + field + ")");
}

bool Fits(std::uint64_t offset, std::uint64_t length, std::uint64_t limit)
{
    return offset <= limit && length <= limit - offset;
}

std::uint16_t Get16(const unsigned char* bytes)
{
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

std::uint32_t Get32(const unsigned char* bytes)
{
    return Get16(bytes) | static_cast<std::uint32_t>(Get16(bytes + 2)) << 16;
}

std::uint64_t Get64(const unsigned char* bytes)
{
    return Get32(bytes) | static_cast<std::uint64_t>(Get32(bytes + 4)) << 32;
}

// ---- end of the archive --------------------------------------------------------------------------------------------

struct EndRecord
{
    std::uint64_t entryCount = 0;
    std::uint64_t directorySize = 0;
    std::uint64_t directoryOffset = 0; // as stored: counts from the archive's own first byte
    std::uint64_t directoryEnd = 0;    // position in the source: where the first end record begins
    bool singleVolume = false;
};

// The last record whose comment fits wins, as in every other reader.
bool FindEndRecord(const ByteSource& source, std::uint64_t& position, unsigned char (&record)[kEndSize],
                   std::string& reason)
{
    const std::uint64_t size = source.Size();
    const auto window = static_cast<std::size_t>(std::min<std::uint64_t>(size, kEndSize + kMaxComment));
    std::vector<unsigned char> tail(window);
    if (window >= kEndSize && !source.ReadAt(size - window, tail.data(), window, reason))
        return false;

    for (std::size_t room = kEndSize; room <= window; ++room) { // bytes from the candidate to the end
        const unsigned char* candidate = tail.data() + (window - room);
        if (Get32(candidate) == kEndSignature && Get16(candidate + 20) <= room - kEndSize) {
            position = size - room;
            std::memcpy(record, candidate, kEndSize);
            return true;
        }
    }
    return Fail(reason, "not a ZIP archive: no end-of-directory record");
}

// Looks for a Zip64 end record and its locator directly in front of the end record; false is a read error only. The
// locator's offset is wrong when something stands in front of the archive: the record is then looked for where one
// without an extensible part must be.
bool FindZip64End(const ByteSource& source, std::uint64_t endPosition, std::uint64_t& position,
                  unsigned char (&record)[kZip64EndSize], bool& found, std::string& reason)
{
    found = false;
    if (endPosition < kZip64LocatorSize)
        return true;
    const std::uint64_t locatorPosition = endPosition - kZip64LocatorSize;
    unsigned char locator[kZip64LocatorSize];
    if (!source.ReadAt(locatorPosition, locator, sizeof locator, reason))
        return false;
    if (Get32(locator) != kZip64LocatorSignature || locatorPosition < kZip64EndSize)
        return true;

    for (const std::uint64_t candidate : {Get64(locator + 8), locatorPosition - kZip64EndSize}) {
        if (!Fits(candidate, kZip64EndSize, locatorPosition))
            continue;
        if (!source.ReadAt(candidate, record, sizeof record, reason))
            return false;
        if (Get32(record) == kZip64EndSignature && Get64(record + 4) == locatorPosition - candidate - 12) {
            found = true;
            position = candidate;
            return true;
        }
    }
    return true;
}

bool ReadEnd(const ByteSource& source, EndRecord& end, std::string& reason)
{
    std::uint64_t position = 0;
    unsigned char record[kEndSize];
    if (!FindEndRecord(source, position, record, reason))
        return false;

    const std::uint16_t volume = Get16(record + 4);
    const std::uint16_t directoryVolume = Get16(record + 6);
    const std::uint16_t countHere = Get16(record + 8);
    const std::uint16_t count = Get16(record + 10);
    const std::uint32_t directorySize = Get32(record + 12);
    const std::uint32_t directoryOffset = Get32(record + 16);

    end.entryCount = count;
    end.directorySize = directorySize;
    end.directoryOffset = directoryOffset;
    end.directoryEnd = position;
    end.singleVolume = volume == 0 && directoryVolume == 0 && countHere == count;

    bool hasZip64 = false;
    unsigned char zip64[kZip64EndSize];
    if (!FindZip64End(source, position, end.directoryEnd, zip64, hasZip64, reason))
        return false;
    if (!hasZip64) {
        // 65535 entries without Zip64 are possible, if only just.
        if (directorySize == kSentinel32 || directoryOffset == kSentinel32)
            return Fail(reason, "the Zip64 end-of-directory record is missing");
        return true;
    }

    end.entryCount = Get64(zip64 + 32);
    end.directorySize = Get64(zip64 + 40);
    end.directoryOffset = Get64(zip64 + 48);
    end.singleVolume = Get32(zip64 + 16) == 0 && Get32(zip64 + 20) == 0 && Get64(zip64 + 24) == end.entryCount &&
                       (volume == 0 || volume == kSentinel16) &&
                       (directoryVolume == 0 || directoryVolume == kSentinel16);
    if ((count != kSentinel16 && count != end.entryCount) ||
        (directorySize != kSentinel32 && directorySize != end.directorySize) ||
        (directoryOffset != kSentinel32 && directoryOffset != end.directoryOffset))
        return Fail(reason, "the two end-of-directory records contradict each other");
    return true;
}

// The archive's first byte in the source: 0, or the length of what stands in front of it.
//
// A file that begins like an archive has nothing in front of it: the end record found then belongs to an archive that
// is an entry of this one, and this one's own end is cut off.
bool FindBase(const ByteSource& source, const EndRecord& end, std::uint64_t& base, std::string& reason)
{
    if (end.directorySize > end.directoryEnd || end.directoryOffset > end.directoryEnd - end.directorySize)
        return Fail(reason, "the directory does not lie in front of its end record");
    base = end.directoryEnd - end.directorySize - end.directoryOffset;
    if (base == 0)
        return true;

    unsigned char start[4] = {};
    if (base >= sizeof start && !source.ReadAt(0, start, sizeof start, reason))
        return false;
    if (Get32(start) == kLocalSignature)
        return Fail(reason, "the directory does not belong to the beginning of the file");
    return true;
}

// ---- directory -----------------------------------------------------------------------------------------------------

// A window that moves over the directory, so that memory follows what is really there.
class CDirectoryReader
{
public:
    CDirectoryReader(const ByteSource& source, std::uint64_t begin, std::uint64_t end)
        : m_source(source), m_position(begin), m_end(end)
    {
    }

    std::uint64_t Left() const { return m_end - m_position; }

    /// The next `length` bytes, which must be left and no more than the window; null when they cannot be read.
    const unsigned char* Peek(std::size_t length, std::string& reason)
    {
        if (m_used + length > m_window.size()) {
            m_window.resize(static_cast<std::size_t>(std::min<std::uint64_t>(Left(), s_WindowSize)));
            m_used = 0;
            if (!m_source.ReadAt(m_position, m_window.data(), m_window.size(), reason))
                return nullptr;
        }
        return m_window.data() + m_used;
    }

    void Skip(std::size_t length)
    {
        m_used += length;
        m_position += length;
    }

private:
    static constexpr std::size_t s_WindowSize = 0x40000;
    static_assert(s_WindowSize >= kDirectoryEntrySize + std::size_t{3} * 0xFFFF, "the largest entry fits");

    const ByteSource& m_source;
    std::uint64_t m_position;
    std::uint64_t m_end;
    std::vector<unsigned char> m_window;
    std::size_t m_used = 0;
};

// The content of the Zip64 extra field; null and 0 when there is none. A block that overruns the area ends the search:
// some writers pad the area with zeros.
std::pair<const unsigned char*, std::size_t> FindZip64Extra(const unsigned char* extra, std::size_t length)
{
    while (length >= 4) {
        const std::size_t blockLength = Get16(extra + 2);
        if (blockLength > length - 4)
            break;
        if (Get16(extra) == kZip64Extra)
            return {extra + 4, blockLength};
        extra += 4 + blockLength;
        length -= 4 + blockLength;
    }
    return {nullptr, 0};
}

// Directory: the extra field holds exactly the values whose place in the entry is taken by a sentinel, in this order.
bool ResolveZip64(const unsigned char* extra, std::size_t extraLength, ZipEntry& entry, std::uint32_t& volume)
{
    auto [field, left] = FindZip64Extra(extra, extraLength);
    for (std::uint64_t* value : {&entry.size, &entry.compressedSize, &entry.localHeaderOffset}) {
        if (*value != kSentinel32)
            continue;
        if (left < 8)
            return false;
        *value = Get64(field);
        field += 8;
        left -= 8;
    }
    if (volume == kSentinel16) {
        if (left < 4)
            return false;
        volume = Get32(field);
    }
    return true;
}

bool FailEntry(std::string& reason, const std::string& name, const char* text)
{
    return Fail(reason, "entry '" + PrintableName(name) + "': " + text);
}

// Takes one entry off the directory.
bool TakeEntry(CDirectoryReader& directory, std::uint64_t base, std::uint64_t sourceSize, ZipEntry& entry,
               std::string& reason)
{
    if (directory.Left() < kDirectoryEntrySize)
        return Fail(reason, "the directory ends early");
    const unsigned char* bytes = directory.Peek(kDirectoryEntrySize, reason);
    if (!bytes)
        return false;
    if (Get32(bytes) != kDirectorySignature)
        return Fail(reason, "the directory is damaged");

    const std::size_t nameLength = Get16(bytes + 28);
    const std::size_t extraLength = Get16(bytes + 30);
    const std::size_t length = kDirectoryEntrySize + nameLength + extraLength + Get16(bytes + 32);
    if (directory.Left() < length)
        return Fail(reason, "the directory ends early");
    bytes = directory.Peek(length, reason);
    if (!bytes)
        return false;

    entry.madeBy = Get16(bytes + 4);
    entry.flags = Get16(bytes + 8);
    entry.method = Get16(bytes + 10);
    entry.crc32 = Get32(bytes + 16);
    entry.compressedSize = Get32(bytes + 20);
    entry.size = Get32(bytes + 24);
    std::uint32_t volume = Get16(bytes + 34);
    entry.externalAttributes = Get32(bytes + 38);
    entry.localHeaderOffset = Get32(bytes + 42);
    entry.name.assign(reinterpret_cast<const char*>(bytes) + kDirectoryEntrySize, nameLength);

    if (entry.name.empty())
        return Fail(reason, "the directory has an entry without a name");
    if (entry.name.find('\0') != std::string::npos)
        return FailEntry(reason, entry.name, "the name contains a NUL byte");
    if (!ResolveZip64(bytes + kDirectoryEntrySize + nameLength, extraLength, entry, volume))
        return FailEntry(reason, entry.name, "the Zip64 sizes are missing");
    if (volume != 0)
        return FailEntry(reason, entry.name, "lies on another volume");

    if (!Fits(base, entry.localHeaderOffset, sourceSize))
        return FailEntry(reason, entry.name, "lies outside the file");
    entry.localHeaderOffset += base;
    if (!Fits(entry.localHeaderOffset, kLocalSize + nameLength, sourceSize) ||
        entry.compressedSize > sourceSize - entry.localHeaderOffset - kLocalSize - nameLength)
        return FailEntry(reason, entry.name, "lies outside the file");

    directory.Skip(length);
    return true;
}

// Each entry ends where the next one in the file begins; two that begin at one place have no room at all. Without
// this a small file could hold one large stream many times over.
void SetDataLimits(std::vector<ZipEntry>& entries, std::uint64_t directoryStart)
{
    std::vector<std::uint64_t> starts;
    starts.reserve(entries.size());
    for (const ZipEntry& entry : entries)
        starts.push_back(entry.localHeaderOffset);
    if (!std::is_sorted(starts.begin(), starts.end()))
        std::sort(starts.begin(), starts.end());

    for (ZipEntry& entry : entries) {
        const auto [first, next] = std::equal_range(starts.begin(), starts.end(), entry.localHeaderOffset);
        if (next - first > 1)
            entry.dataLimit = entry.localHeaderOffset;
        else
            entry.dataLimit = next == starts.end() ? directoryStart : std::min(*next, directoryStart);
    }
}

bool ReadEntries(const ByteSource& source, std::vector<ZipEntry>& entries, std::string& reason)
{
    EndRecord end;
    if (!ReadEnd(source, end, reason))
        return false;
    if (!end.singleVolume)
        return Fail(reason, "is one volume of several");
    std::uint64_t base = 0;
    if (!FindBase(source, end, base, reason))
        return false;

    const std::uint64_t directoryStart = end.directoryEnd - end.directorySize;
    if (end.entryCount > end.directorySize / kDirectoryEntrySize)
        return Fail(reason, "the directory ends early");

    CDirectoryReader directory(source, directoryStart, end.directoryEnd);
    for (std::uint64_t taken = 0; taken < end.entryCount; ++taken) {
        ZipEntry entry;
        if (!TakeEntry(directory, base, source.Size(), entry, reason))
            return false;
        entries.push_back(std::move(entry));
    }
    if (directory.Left() != 0)
        return Fail(reason, "the directory holds more than its number of entries");
    SetDataLimits(entries, directoryStart);
    return true;
}

// ---- local header and data -----------------------------------------------------------------------------------------

// A piece of the source in memory that is not cleared first.
class CPiece
{
public:
    bool Read(const ByteSource& source, std::uint64_t offset, std::uint64_t length, std::string& reason)
    {
        if (length > std::numeric_limits<std::size_t>::max())
            return Fail(reason, kNoMemory);
        m_length = static_cast<std::size_t>(length);
        m_bytes = m_small;
        if (m_length > sizeof m_small) {
            m_large.reset(new (std::nothrow) unsigned char[m_length]);
            m_bytes = m_large.get();
        }
        if (!m_bytes)
            return Fail(reason, kNoMemory);
        return source.ReadAt(offset, m_bytes, m_length, reason);
    }

    const unsigned char* Bytes() const { return m_bytes; }
    std::size_t Length() const { return m_length; }

private:
    unsigned char m_small[16384]; // most modules; a piece of the heap each time makes the C library tidy up there
    std::unique_ptr<unsigned char[]> m_large;
    unsigned char* m_bytes = nullptr;
    std::size_t m_length = 0;
};

// Sizes of a local header. Its Zip64 field should hold both; when it holds one only, it is the one that is needed.
// A size that the field does not hold is given as 0, as if a data descriptor told it.
void GetLocalSizes(const unsigned char* header, std::size_t headerLength, std::size_t nameLength,
                   std::uint64_t& compressedSize, std::uint64_t& size)
{
    compressedSize = Get32(header + 18);
    size = Get32(header + 22);
    const bool sizeInField = size == kSentinel32;
    const bool compressedSizeInField = compressedSize == kSentinel32;
    if (!sizeInField && !compressedSizeInField)
        return;

    const std::size_t extraStart = kLocalSize + nameLength;
    const auto [field, length] = FindZip64Extra(header + extraStart, headerLength - extraStart);
    if (sizeInField)
        size = length >= 8 ? Get64(field) : 0;
    if (compressedSizeInField) {
        const std::size_t place = sizeInField || length >= 16 ? 8 : 0;
        compressedSize = length >= place + 8 ? Get64(field + place) : 0;
    }
}

// `header` holds `headerLength` bytes: the fixed part, a name of the directory's length, the extra field.
bool CheckLocalHeader(const ZipEntry& entry, const unsigned char* header, std::size_t headerLength, std::string& reason)
{
    if (std::memcmp(header + kLocalSize, entry.name.data(), entry.name.size()) != 0)
        return Contradiction(reason, "name");
    if (Get16(header + 8) != entry.method)
        return Contradiction(reason, "method");

    // The other flags differ in archives that are all right: they speak of the writer's effort and of alphabets.
    const std::uint16_t flags = Get16(header + 6);
    if ((flags & kEncryptionFlags) != (entry.flags & kEncryptionFlags))
        return Contradiction(reason, "encryption");

    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0;
    GetLocalSizes(header, headerLength, entry.name.size(), compressedSize, size);
    const bool deferred = (flags & kDescriptorFlag) != 0;
    const auto differs = [deferred](std::uint64_t local, std::uint64_t directory) {
        return local != directory && !(deferred && local == 0);
    };
    if (differs(Get32(header + 14), entry.crc32))
        return Contradiction(reason, "checksum");
    if (differs(compressedSize, entry.compressedSize))
        return Contradiction(reason, "compressed size");
    if (differs(size, entry.size))
        return Contradiction(reason, "size");
    return true;
}

// Reads and checks the local header; up to `dataWanted` bytes of the data come along when the extra field is not
// longer than usual, so that a small entry costs one read.
bool ReadLocalHeader(const ByteSource& source, const ZipEntry& entry, std::uint64_t dataWanted, CPiece& piece,
                     std::size_t& headerLength, std::string& reason)
{
    const char* const overlap = "its data overlaps another entry or the directory";
    if (!Fits(entry.localHeaderOffset, kLocalSize, entry.dataLimit))
        return Fail(reason, overlap);
    const std::uint64_t room = entry.dataLimit - entry.localHeaderOffset;
    const std::uint64_t likelyHeader = kLocalSize + entry.name.size() + kLikelyLocalExtra;
    if (!piece.Read(source, entry.localHeaderOffset, std::min(room, likelyHeader + std::min(room, dataWanted)), reason))
        return false;

    if (Get32(piece.Bytes()) != kLocalSignature)
        return Contradiction(reason, "no local header at its offset");
    if (Get16(piece.Bytes() + 26) != entry.name.size())
        return Contradiction(reason, "name");
    headerLength = kLocalSize + entry.name.size() + Get16(piece.Bytes() + 28);
    if (!Fits(headerLength, entry.compressedSize, room))
        return Fail(reason, overlap);
    if (headerLength > piece.Length() && !piece.Read(source, entry.localHeaderOffset, headerLength, reason))
        return false;
    return CheckLocalHeader(entry, piece.Bytes(), headerLength, reason);
}

bool Resize(std::string& content, std::uint64_t size, std::string& reason)
{
    if (size > std::numeric_limits<std::size_t>::max())
        return Fail(reason, kNoMemory);
    try {
        content.resize(static_cast<std::size_t>(size));
    } catch (const std::bad_alloc&) {
        return Fail(reason, kNoMemory);
    } catch (const std::length_error&) {
        return Fail(reason, kNoMemory);
    }
    return true;
}

bool ReadContent(const ByteSource& source, const ZipEntry& entry, std::string& content, std::string& reason)
{
    if (!CheckReadable(entry, reason))
        return false;

    CPiece piece;
    std::size_t headerLength = 0;
    if (!ReadLocalHeader(source, entry, entry.compressedSize, piece, headerLength, reason))
        return false;
    std::size_t dataStart = headerLength;
    if (!Fits(headerLength, entry.compressedSize, piece.Length())) {
        if (!piece.Read(source, entry.localHeaderOffset + headerLength, entry.compressedSize, reason))
            return false;
        dataStart = 0;
    }

    const unsigned char* data = piece.Bytes() + dataStart;
    const auto compressedSize = static_cast<std::size_t>(entry.compressedSize); // no more than the piece
    if (!Resize(content, entry.size, reason))
        return false;
    if (entry.method == kStored)
        std::copy_n(data, compressedSize, content.begin());
    else if (!InflateWhole(data, compressedSize, &content[0], content.size(), reason))
        return false;

    if (libdeflate_crc32(0, content.data(), content.size()) != entry.crc32)
        return Fail(reason, "the checksum does not match");
    return true;
}

// The number of bytes of the UTF-8 character at `position` that may be shown; 0 when there is none.
std::size_t ShowableLength(const std::string& text, std::size_t position)
{
    const auto at = [&text](std::size_t index) -> unsigned {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0u;
    };
    const unsigned lead = at(position);
    if (lead < 0x80)
        return lead >= 0x20 && lead != 0x7F ? 1 : 0;

    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    unsigned code = lead & (0xFFu >> (length + 1));
    for (std::size_t index = 1; index < length; ++index) {
        if ((at(position + index) & 0xC0) != 0x80)
            return 0;
        code = code << 6 | (at(position + index) & 0x3F);
    }
    const unsigned smallest[] = {0, 0, 0xA0, 0x800, 0x10000}; // below U+00A0 are control characters
    const bool valid = lead >= 0xC2 && lead <= 0xF4 && code >= smallest[length] && code <= 0x10FFFF &&
                       !(code >= 0xD800 && code <= 0xDFFF);
    return valid ? length : 0;
}

} // namespace

bool ZipEntry::IsDirectory() const
{
    return !name.empty() && name.back() == '/';
}

bool ZipEntry::IsEncrypted() const
{
    return (flags & kEncryptionFlags) != 0;
}

bool ZipEntry::IsDeflated() const
{
    return method == kDeflated;
}

std::optional<unsigned> ZipEntry::UnixMode() const
{
    const unsigned kUnix = 3;
    const unsigned kDarwin = 19;
    const unsigned system = madeBy >> 8;
    const unsigned mode = externalAttributes >> 16;
    if ((system != kUnix && system != kDarwin) || mode == 0)
        return std::nullopt;
    return mode;
}

bool ReadZipDirectory(const ByteSource& source, std::vector<ZipEntry>& entries, std::string& reason)
{
    entries.clear();
    if (ReadEntries(source, entries, reason))
        return true;
    entries.clear();
    return false;
}

// No deflater takes more for so many bytes: it can always store them in blocks, and the worst of them do not come near
// this. Without the bound, memory would be taken for whatever somebody appends to an entry.
std::uint64_t MostCompressed(std::uint64_t size)
{
    const std::uint64_t slack = 0x10000;
    return size > UINT64_MAX / 2 ? UINT64_MAX : size + size / 4 + slack;
}

bool CheckReadable(const ZipEntry& entry, std::string& reason)
{
    if (entry.IsEncrypted())
        return Fail(reason, "the entry is encrypted");
    if (entry.method != kStored && entry.method != kDeflated)
        return Fail(reason, "unsupported compression method " + std::to_string(entry.method));
    if (entry.method == kStored && entry.compressedSize != entry.size)
        return Fail(reason, "the entry is stored, but its two sizes differ");
    if (entry.method == kDeflated && entry.size / kMaxDeflateRatio > entry.compressedSize)
        return Fail(reason, "the declared size is impossible for the compressed size");
    if (entry.method == kDeflated && entry.compressedSize > MostCompressed(entry.size))
        return Fail(reason, "the compressed size is impossible for the declared size");
    return true;
}

bool LocateData(const ByteSource& source, const ZipEntry& entry, std::uint64_t& dataOffset, std::string& reason)
{
    CPiece piece;
    std::size_t headerLength = 0;
    if (!ReadLocalHeader(source, entry, 0, piece, headerLength, reason))
        return false;
    dataOffset = entry.localHeaderOffset + headerLength;
    return true;
}

bool InflateWhole(const void* compressed, std::size_t compressedSize, void* content, std::size_t size,
                  std::string& reason)
{
    struct Free
    {
        void operator()(libdeflate_decompressor* decompressor) const { libdeflate_free_decompressor(decompressor); }
    };
    thread_local std::unique_ptr<libdeflate_decompressor, Free> decompressor;
    if (!decompressor)
        decompressor.reset(libdeflate_alloc_decompressor());
    if (!decompressor)
        return Fail(reason, kNoMemory);

    // Without a place for the real output length, anything but `size` is an error.
    std::size_t consumed = 0;
    switch (libdeflate_deflate_decompress_ex(decompressor.get(), compressed, compressedSize, content, size, &consumed,
                                             nullptr)) {
    case LIBDEFLATE_SUCCESS:
        break;
    case LIBDEFLATE_SHORT_OUTPUT:
        return Fail(reason, "the content is shorter than declared");
    case LIBDEFLATE_INSUFFICIENT_SPACE:
        return Fail(reason, "the content is longer than declared");
    default:
        return Fail(reason, "the compressed data is damaged");
    }
    if (consumed != compressedSize)
        return Fail(reason, "the compressed data ends before its declared size");
    return true;
}

bool ReadZipEntry(const ByteSource& source, const ZipEntry& entry, std::string& content, std::string& reason)
{
    if (ReadContent(source, entry, content, reason))
        return true;
    content.clear();
    return false;
}

std::string PrintableName(const std::string& name)
{
    const std::size_t kLongest = 200;
    std::string text;
    for (std::size_t position = 0; position < name.size();) {
        if (text.size() >= kLongest)
            return text + "...";
        const std::size_t length = ShowableLength(name, position);
        if (length > 0) {
            text.append(name, position, length);
            position += length;
            continue;
        }
        const char* const digits = "0123456789ABCDEF";
        const auto byte = static_cast<unsigned char>(name[position]);
        text += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        ++position;
    }
    return text;
}

} // namespace VelCore
