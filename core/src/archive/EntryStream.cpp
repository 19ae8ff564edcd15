// Entries that are too large to be inflated as a whole. zlib does it, because libdeflate cannot stop half-way.
//
// Tested by: unit/core/archive/EntryStreamTest.cpp, fuzz/ZipArchiveFuzz.cpp.

#include "archive/EntryStream.h"

#include <algorithm>
#include <utility>

#include <libdeflate.h>
#include <zlib.h>

namespace VelCore {

namespace {

const std::size_t kInputPiece = 0x20000; // bytes; larger pieces gain nothing
const std::size_t kOutputPiece = 0x40000;

bool Fail(std::string& reason, const char* text)
{
    reason = text;
    return false;
}

} // namespace

void CEntryStream::EndInflate::operator()(z_stream_s* stream) const
{
    inflateEnd(stream);
    delete stream;
}

CEntryStream::CEntryStream(const ByteSource& source, const ZipEntry& entry) : m_source(source), m_entry(entry) {}

CEntryStream::~CEntryStream() = default;

bool CEntryStream::Next(std::string_view& piece, std::string& reason)
{
    piece = {};
    if (!m_begun && !Begin(reason))
        return false;
    if (!(m_stream ? Inflate(piece, reason) : Copy(piece, reason)))
        return false;
    if (piece.empty())
        return CheckEnd(reason);
    m_handedOut += piece.size();
    m_crc32 = libdeflate_crc32(m_crc32, piece.data(), piece.size());
    return true;
}

bool CEntryStream::Begin(std::string& reason)
{
    if (!CheckReadable(m_entry, reason) || !LocateData(m_source, m_entry, m_offset, reason))
        return false;
    m_inputLeft = m_entry.compressedSize;
    m_input.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kInputPiece, m_inputLeft)));
    m_begun = true;
    if (!m_entry.IsDeflated())
        return true;

    auto stream = std::make_unique<z_stream>();
    if (inflateInit2(stream.get(), -MAX_WBITS) != Z_OK) // negative: a raw stream, without zlib's header
        return Fail(reason, "not enough memory");
    m_stream.reset(stream.release());
    m_output.resize(kOutputPiece);
    return true;
}

// Fills the input buffer with the next bytes of the data, the last time only as far as they go.
bool CEntryStream::ReadInput(std::string& reason)
{
    m_input.resize(static_cast<std::size_t>(std::min<std::uint64_t>(m_input.size(), m_inputLeft)));
    if (!m_source.ReadAt(m_offset, m_input.data(), m_input.size(), reason))
        return false;
    m_offset += m_input.size();
    m_inputLeft -= m_input.size();
    return true;
}

bool CEntryStream::Copy(std::string_view& piece, std::string& reason)
{
    if (m_inputLeft == 0)
        return true;
    if (!ReadInput(reason))
        return false;
    piece = {m_input.data(), m_input.size()};
    return true;
}

bool CEntryStream::Inflate(std::string_view& piece, std::string& reason)
{
    const std::uint64_t left = m_entry.size - m_handedOut;
    // With nothing left, one byte of room tells a stream that ends from one that goes on.
    const auto room = static_cast<std::size_t>(std::clamp<std::uint64_t>(left, 1, m_output.size()));
    while (!m_streamEnded && piece.empty()) {
        if (!InflateOnce(room, reason))
            return false;
        piece = {m_output.data(), room - m_stream->avail_out};
    }
    if (piece.size() > left)
        return Fail(reason, "the content is longer than declared");
    return true;
}

bool CEntryStream::InflateOnce(std::size_t room, std::string& reason)
{
    if (m_stream->avail_in == 0 && m_inputLeft > 0) {
        if (!ReadInput(reason))
            return false;
        m_stream->next_in = reinterpret_cast<Bytef*>(m_input.data());
        m_stream->avail_in = static_cast<uInt>(m_input.size());
    }
    m_stream->next_out = reinterpret_cast<Bytef*>(m_output.data());
    m_stream->avail_out = static_cast<uInt>(room);
    const int status = inflate(m_stream.get(), Z_NO_FLUSH);
    m_streamEnded = status == Z_STREAM_END;
    // Z_BUF_ERROR: no input is left, and the stream has not ended.
    return status == Z_OK || m_streamEnded || Fail(reason, "the compressed data is damaged");
}

bool CEntryStream::CheckEnd(std::string& reason) const
{
    if (m_handedOut != m_entry.size)
        return Fail(reason, "the content is shorter than declared");
    if (m_inputLeft > 0 || (m_stream && m_stream->avail_in > 0))
        return Fail(reason, "the compressed data ends before its declared size");
    if (m_crc32 != m_entry.crc32)
        return Fail(reason, "the checksum does not match");
    return true;
}

} // namespace VelCore
