// ZipFormat.h: what do the bytes of a ZIP archive say, and do they agree with each other?

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VelCore {

/// Bytes that can be read at any position: an open file, or memory in tests.
///
/// Threads: ReadAt and Size may be called from several threads at once.
class ByteSource
{
public:
    virtual ~ByteSource() = default;

    /// Fills `buffer` with exactly `length` bytes from `offset` on.
    ///
    /// Errors: false, and one line of English in `reason`; the buffer's content is then undefined.
    virtual bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::string& reason) const = 0;

    /// The number of bytes when the source was opened. It may have shrunk since; ReadAt then fails.
    virtual std::uint64_t Size() const = 0;
};

/// One entry as the archive's directory describes it.
///
/// Shape: numbers as stored, Zip64 values already in place; offsets count from the first byte of the source, also
///        when something stands in front of the archive.
struct ZipEntry
{
    std::string name; // raw bytes, never empty, without NUL; not vetted: "..", "/" in front, "\" are all possible
    std::uint16_t madeBy = 0;
    std::uint16_t flags = 0;
    std::uint16_t method = 0; // 0 stored, 8 deflated
    std::uint32_t crc32 = 0;
    std::uint64_t compressedSize = 0;
    std::uint64_t size = 0; // as declared; compare it with a limit of yours before reading
    std::uint64_t localHeaderOffset = 0;
    std::uint64_t dataLimit = 0; // header and data end at or before it: the next local header, or the directory
    std::uint32_t externalAttributes = 0;

    /// True when the name ends with "/".
    bool IsDirectory() const;

    /// True when the data is encrypted, which no function here reads.
    bool IsEncrypted() const;

    /// True when the data is a raw deflate stream.
    bool IsDeflated() const;

    /// Type and permission bits (st_mode) when the archive was made on Unix and carries any; the type may be 0.
    std::optional<unsigned> UnixMode() const;
};

/// Reads the directory, in its own order, duplicates included.
///
/// Accepted:  Zip64; an archive without entries; a comment; foreign bytes in front of the archive (offsets are
///            adjusted); foreign bytes behind it as long as the end record lies within the last 65557 bytes.
/// Refused:   everything else that does not add up: several volumes, a directory that is longer or shorter than its
///            entries, an entry outside the file, an empty name or one with a NUL.
/// Errors:    false, and one line of English in `reason`; `entries` is then empty.
/// Cost:      linear in the size of the directory but for one sort; memory a small multiple of what was really read.
/// Source:    PKWARE APPNOTE.TXT 6.3.10, sections 4.3 to 4.5.
bool ReadZipDirectory(const ByteSource& source, std::vector<ZipEntry>& entries, std::string& reason);

/// Tells whether the data of an entry can be read at all: it is not encrypted, its method is known, and its two sizes
/// are possible together.
///
/// Errors: false, and one line of English in `reason`, without the entry's name.
bool CheckReadable(const ZipEntry& entry, std::string& reason);

/// Compares the entry's local header with the directory and says where the data begins.
///
/// Name, method, encryption, checksum and sizes must agree; checksum and sizes may be 0 in a local header that
/// announces a data descriptor. The data must not reach the next entry or the directory.
///
/// Errors: false, and one line of English in `reason`, without the entry's name.
bool LocateData(const ByteSource& source, const ZipEntry& entry, std::uint64_t& dataOffset, std::string& reason);

/// Inflates a whole raw deflate stream into a buffer of exactly its size.
///
/// Errors:  false, and one line of English in `reason`: damaged data, a length other than `size`, or input left over.
/// Threads: any; each thread that calls it keeps one decompressor (about 12 KB) until it ends.
bool InflateWhole(const void* compressed, std::size_t compressedSize, void* content, std::size_t size,
                  std::string& reason);

/// Reads, inflates and checks one entry: local header, length and checksum are right, or there is no content.
///
/// Errors:  false, and one line of English in `reason`, without the entry's name; `content` is then empty. A size
///          that the compressed data cannot have is refused before memory is taken for it.
/// Threads: any.
bool ReadZipEntry(const ByteSource& source, const ZipEntry& entry, std::string& content, std::string& reason);

/// The name as it may stand in a message: UTF-8 without control characters, at most about 200 bytes.
///
/// Shape: bytes that are no UTF-8, and control characters, appear as \xNN; a longer name ends with "...".
std::string PrintableName(const std::string& name);

} // namespace VelCore
