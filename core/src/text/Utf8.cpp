// UTF-8 by hand: the framework's converters answer an invalid byte with an empty string.
//
// Tested by: unit/core/text/Utf8Test.cpp, fuzz/Utf8Fuzz.cpp.

#include <VelCore/Utf8.h>

#include <cstdint>

namespace VelCore {
namespace {

const std::uint32_t kEscapeBase = 0xDC00; // an invalid byte B is kept as kEscapeBase + B
const std::uint32_t kReplacement = 0xFFFD;

struct Lead
{
    int length;          // bytes of the sequence; 0: the byte starts none
    std::uint32_t bits;  // payload of the lead byte
    std::uint32_t least; // smallest code point that needs this length
};

Lead LeadOf(unsigned char byte)
{
    if (byte < 0x80)
        return {1, byte, 0};
    if ((byte & 0xE0) == 0xC0)
        return {2, byte & 0x1Fu, 0x80};
    if ((byte & 0xF0) == 0xE0)
        return {3, byte & 0x0Fu, 0x800};
    if ((byte & 0xF8) == 0xF0)
        return {4, byte & 0x07u, 0x10000};
    return {0, 0, 0};
}

bool IsSurrogate(std::uint32_t point)
{
    return point >= 0xD800 && point <= 0xDFFF;
}

// Decodes the sequence at the front of `bytes`; gives its length, 0 when it is not well-formed.
std::size_t DecodeOne(std::string_view bytes, std::uint32_t& point)
{
    const Lead lead = LeadOf(static_cast<unsigned char>(bytes[0]));
    const auto length = static_cast<std::size_t>(lead.length);
    if (length == 0 || length > bytes.size())
        return 0;

    point = lead.bits;
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if ((byte & 0xC0) != 0x80)
            return 0;
        point = point << 6 | (byte & 0x3Fu);
    }
    return point < lead.least || point > 0x10FFFF || IsSurrogate(point) ? 0 : length;
}

void EncodeOne(std::uint32_t point, std::string& out)
{
    const auto tail = [&out](std::uint32_t bits) { out += static_cast<char>(0x80 | (bits & 0x3F)); };

    if (point < 0x80) {
        out += static_cast<char>(point);
    } else if (point < 0x800) {
        out += static_cast<char>(0xC0 | point >> 6);
        tail(point);
    } else if (point < 0x10000) {
        out += static_cast<char>(0xE0 | point >> 12);
        tail(point >> 6);
        tail(point);
    } else {
        out += static_cast<char>(0xF0 | point >> 18);
        tail(point >> 12);
        tail(point >> 6);
        tail(point);
    }
}

} // namespace

wxString FromUtf8(std::string_view bytes)
{
    std::wstring text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        std::uint32_t point = 0;
        std::size_t length = DecodeOne(bytes, point);
        if (length == 0) {
            point = kEscapeBase + static_cast<unsigned char>(bytes[0]);
            length = 1;
        }
        text += static_cast<wchar_t>(point);
        bytes.remove_prefix(length);
    }
    return wxString(text);
}

std::string ToUtf8(const wxString& text)
{
    std::string bytes;
    bytes.reserve(text.length());
    for (const wchar_t character : text.ToStdWstring()) {
        const auto point = static_cast<std::uint32_t>(character);
        if (point >= kEscapeBase + 0x80 && point <= kEscapeBase + 0xFF)
            bytes += static_cast<char>(point - kEscapeBase);
        else
            EncodeOne(IsSurrogate(point) || point > 0x10FFFF ? kReplacement : point, bytes);
    }
    return bytes;
}

} // namespace VelCore
