// TextBuffer.h: text that grows in memory of a fixed size.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace VelCore {

/// Puts text together where nothing may be allocated, as in a signal handler. What does not fit is left out, from the
/// first character that has no room.
///
/// Ownership: the memory is the caller's.
class CTextBuffer
{
public:
    CTextBuffer(char* memory, std::size_t size) : m_memory(memory), m_capacity(size) {}

    CTextBuffer& Add(std::string_view text);
    CTextBuffer& AddNumber(std::int64_t number);
    CTextBuffer& AddPadded(std::int64_t number, int digits); // zeros in front; for numbers that are not negative
    CTextBuffer& AddHex(std::uint64_t number);               // with "0x"

    /// Text with everything that could end the line or move a cursor, and bytes that are not UTF-8, shown as escapes; a
    /// character that is escaped is escaped byte by byte.
    CTextBuffer& AddEscaped(std::string_view text);

    std::string_view Text() const { return {m_memory, m_size}; }

private:
    void AddEscape(char byte);

    char* m_memory;
    std::size_t m_capacity;
    std::size_t m_size = 0;
    bool m_isFull = false;
};

} // namespace VelCore
