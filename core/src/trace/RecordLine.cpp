// One log record while it is put together.
//
// Tested by: unit/core/trace/RecordLineTest.cpp.

#include "trace/RecordLine.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>

#include <VelCore/Utf8.h>

#include "trace/RecordText.h"

namespace VelCore {
namespace {

const std::size_t kKeptBytes = 16384;

// Most characters stand as they are: those from the blank to the tilde. They are looked at eight at a time, as the
// bytes of one number.
using Block = std::uint64_t;
const std::size_t kBlock = sizeof(Block);
const Block kOnes = ~Block{0} / 0xFF; // 1 in each byte

// Not 0 if a byte is none of those.
Block Others(Block bytes)
{
    const Block belowBlank = bytes - kOnes * ' '; // borrows, if at all, at a byte that counts itself
    const Block beyondTilde = bytes + kOnes * (0x7F - '~');
    return (bytes | belowBlank | beyondTilde) & kOnes * 0x80;
}

Block Others(const char* text, char* place)
{
    Block bytes;
    std::memcpy(&bytes, text, kBlock);
    std::memcpy(place, &bytes, kBlock);
    return Others(bytes);
}

Block Others(const wchar_t* text, char* place)
{
    char narrow[kBlock];
    std::uint32_t all = 0;
    for (std::size_t i = 0; i < kBlock; ++i) {
        narrow[i] = static_cast<char>(text[i]);
        all |= static_cast<std::uint32_t>(text[i]);
    }
    return Others(narrow, place) | (all & ~std::uint32_t{0x7F});
}

// Returns whether all of the text stands as it is.
template <typename Character>
bool CopyPlain(const Character* text, std::size_t size, char* place)
{
    Block others = 0;
    if (size < kBlock) {
        for (std::size_t i = 0; i < size; ++i) {
            place[i] = static_cast<char>(text[i]);
            others |= static_cast<std::uint32_t>(text[i]) - ' ' > '~' - ' ' ? 1 : 0;
        }
        return others == 0;
    }
    for (std::size_t i = 0; i + kBlock < size; i += kBlock)
        others |= Others(text + i, place + i);
    others |= Others(text + size - kBlock, place + size - kBlock); // may overlap the one before
    return others == 0;
}

} // namespace

void CRecordLine::Clear()
{
    m_size = 0;
    if (m_bytes.size() > kKeptBytes)
        m_bytes = std::vector<char>();
}

void CRecordLine::Grow(std::size_t size)
{
    m_bytes.resize(std::max(m_size + size, 2 * m_bytes.size()));
}

CRecordLine& CRecordLine::Add(long number)
{
    const std::size_t most = std::numeric_limits<long>::digits10 + 2; // one digit more, and the sign
    char* const place = Room(most);
    m_size += static_cast<std::size_t>(std::to_chars(place, place + most, number).ptr - place);
    return *this;
}

template <typename Character>
bool CRecordLine::AddPlain(const Character* text, std::size_t size)
{
    const bool isPlain = CopyPlain(text, size, Room(size));
    if (isPlain)
        m_size += size;
    return isPlain;
}

CRecordLine& CRecordLine::AddEscaped(std::string_view text)
{
    return AddPlain(text.data(), text.size()) ? *this : Add(EscapeControls(text));
}

CRecordLine& CRecordLine::AddEscaped(const wxString& text)
{
    const std::wstring& wide = text.ToStdWstring();
    return AddPlain(wide.data(), wide.size()) ? *this : Add(EscapeControls(ToUtf8(text)));
}

} // namespace VelCore
