// Text in memory of a fixed size.
//
// Tested by: unit/core/crash/TextBufferTest.cpp.

#include "crash/TextBuffer.h"

#include <algorithm>
#include <cstring>

namespace VelCore {
namespace {

const char kDigits[] = "0123456789abcdef";

// Bytes of the UTF-8 character at the beginning of `text`; 0 when there is none. Of encodings that are too long or mean
// no character, the rare ones pass.
std::size_t CharacterLength(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
        return 1;
    if (first < 0xC2 || first > 0xF4)
        return 0;
    const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (text.size() < length)
        return 0;
    const auto isContinuation = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; };
    return std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length), isContinuation) ? length
                                                                                                             : 0;
}

// Whether a character could end the line or move a cursor: also the second set of controls, and the separators of lines
// and paragraphs.
bool IsControl(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character[0]);
    if (character.size() == 1)
        return first < 0x20 || first == 0x7F;
    return (character.size() == 2 && first == 0xC2 && static_cast<unsigned char>(character[1]) < 0xA0) ||
           character == "\u2028" || character == "\u2029";
}

} // namespace

CTextBuffer& CTextBuffer::Add(std::string_view text)
{
    if (m_isFull)
        return *this;
    const std::size_t length = std::min(text.size(), m_capacity - m_size);
    if (length > 0)
        std::memcpy(m_memory + m_size, text.data(), length);
    m_size += length;
    m_isFull = length < text.size();
    return *this;
}

CTextBuffer& CTextBuffer::AddNumber(std::int64_t number)
{
    // The most negative number has no positive counterpart.
    const bool isNegative = number < 0;
    if (isNegative)
        Add("-");
    auto rest = static_cast<std::uint64_t>(number);
    if (isNegative)
        rest = 0 - rest;
    char digits[20];
    std::size_t first = sizeof digits;
    do {
        digits[--first] = kDigits[rest % 10];
        rest /= 10;
    } while (rest != 0);
    return Add({digits + first, sizeof digits - first});
}

CTextBuffer& CTextBuffer::AddPadded(std::int64_t number, int digits)
{
    std::int64_t smallest = 1; // number with so many digits
    for (int more = 1; more < digits; ++more)
        smallest *= 10;
    for (; number < smallest && smallest > 1; smallest /= 10)
        Add("0");
    return AddNumber(number);
}

CTextBuffer& CTextBuffer::AddHex(std::uint64_t number)
{
    char digits[16];
    std::size_t first = sizeof digits;
    do {
        digits[--first] = kDigits[number & 0xF];
        number >>= 4;
    } while (number != 0);
    return Add("0x").Add({digits + first, sizeof digits - first});
}

CTextBuffer& CTextBuffer::AddEscaped(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = CharacterLength(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        if (length > 0 && !IsControl(character))
            Add(character);
        else
            std::for_each(character.begin(), character.end(), [this](char byte) { AddEscape(byte); });
        text.remove_prefix(character.size());
    }
    return *this;
}

void CTextBuffer::AddEscape(char byte)
{
    switch (byte) {
    case '\n':
        Add("\\n");
        return;
    case '\r':
        Add("\\r");
        return;
    case '\t':
        Add("\\t");
        return;
    default:
        break;
    }
    const auto value = static_cast<unsigned char>(byte);
    const char escape[] = {'\\', 'x', kDigits[value >> 4], kDigits[value & 0xF]};
    Add({escape, sizeof escape});
}

} // namespace VelCore
