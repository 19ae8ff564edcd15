// EntryStream.h: the content of an entry, piece by piece.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "archive/ZipFormat.h"

struct z_stream_s;

namespace VelCore {

/// Reads, inflates and checks one entry in memory that does not grow with it (about 400 KiB).
///
/// The same checks as in ReadZipEntry, but length and checksum are known to be right only at the end: what was handed
/// out before an error must be thrown away. Never hands out more than the declared size.
///
/// Ownership: `source` and `entry` must outlive the stream.
/// Threads:   one stream, one thread.
class CEntryStream
{
public:
    CEntryStream(const ByteSource& source, const ZipEntry& entry);
    ~CEntryStream();
    CEntryStream(const CEntryStream&) = delete;
    CEntryStream& operator=(const CEntryStream&) = delete;

    /// Gives the next piece, which is valid until the next call; an empty one is the end, with everything checked.
    ///
    /// Errors: false, and one line of English in `reason`, without the entry's name. The stream is then finished with.
    bool Next(std::string_view& piece, std::string& reason);

private:
    bool Begin(std::string& reason);
    bool ReadInput(std::string& reason);
    bool Copy(std::string_view& piece, std::string& reason);
    bool Inflate(std::string_view& piece, std::string& reason);
    bool InflateOnce(std::size_t room, std::string& reason);
    bool CheckEnd(std::string& reason) const;

    struct EndInflate
    {
        void operator()(z_stream_s* stream) const;
    };

    const ByteSource& m_source;
    const ZipEntry& m_entry;
    bool m_begun = false;
    std::uint64_t m_offset = 0;    // of the next byte to be read
    std::uint64_t m_inputLeft = 0; // bytes not read yet
    std::uint64_t m_handedOut = 0;
    std::uint32_t m_crc32 = 0;
    std::vector<char> m_input;
    std::vector<char> m_output;                       // deflated entries only
    std::unique_ptr<z_stream_s, EndInflate> m_stream; // deflated entries only
    bool m_streamEnded = false;
};

} // namespace VelCore
