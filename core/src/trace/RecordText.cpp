// One log record as one line that nothing inside can break.
//
// Tested by: unit/core/trace/RecordTextTest.cpp.

#include "trace/RecordText.h"

#include <cstdint>
#include <cstdio>

#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

template <typename Character>
bool IsPlain(Character character)
{
    return character >= 0x20 && character < 0x7F;
}

// How many characters at the front of a text stand as they are. A block at a time, because most texts are plain.
template <typename Character>
std::size_t PlainLength(const Character* text, std::size_t size)
{
    const std::size_t block = 16;
    std::size_t length = 0;
    for (bool isPlain = true; length + block <= size; length += block) {
        for (std::size_t i = 0; i < block; ++i)
            isPlain &= IsPlain(text[length + i]);
        if (!isPlain)
            break;
    }
    while (length < size && IsPlain(text[length]))
        ++length;
    return length;
}

bool IsControl(std::uint32_t point)
{
    return point < 0x20 || (point >= 0x7F && point < 0xA0);
}

void AppendEscape(std::uint32_t point, std::string& out)
{
    switch (point) {
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    default:
        break;
    }
    char escape[16];
    std::snprintf(escape, sizeof escape, point < 0x100 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(point));
    out += escape;
}

// Points that FromUtf8 uses for bytes that are no UTF-8.
bool IsRawByte(std::uint32_t point)
{
    return point >= 0xDC80 && point <= 0xDCFF;
}

void AppendDecoded(const wxString& text, std::string& out)
{
    for (const wchar_t character : text.ToStdWstring()) {
        const auto point = static_cast<std::uint32_t>(character);
        if (IsRawByte(point))
            AppendEscape(point & 0xFF, out);
        else if (IsControl(point) || point == 0x2028 || point == 0x2029)
            AppendEscape(point, out);
        else if (point < 0x80)
            out += static_cast<char>(point);
        else
            out += ToUtf8(wxString(character));
    }
}

} // namespace

std::string EscapeControls(std::string_view text)
{
    std::string out;
    AppendEscaped(text, out);
    return out;
}

void AppendEscaped(std::string_view text, std::string& out)
{
    const std::size_t plain = PlainLength(text.data(), text.size());
    out.append(text.substr(0, plain));
    if (plain < text.size())
        AppendDecoded(FromUtf8(text.substr(plain)), out);
}

void AppendEscaped(const wxString& text, std::string& out)
{
    const std::wstring& wide = text.ToStdWstring();
    const std::size_t plain = PlainLength(wide.data(), wide.size());
    const std::size_t start = out.size();
    out.resize(start + plain);
    for (std::size_t i = 0; i < plain; ++i)
        out[start + i] = static_cast<char>(wide[i]);
    if (plain < wide.size())
        AppendEscaped(std::string_view(ToUtf8(text.substr(plain))), out);
}

std::string LogFileStem(std::string_view applicationName)
{
    std::string stem(applicationName);
    for (char& c : stem) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '/' || byte < 0x20 || byte == 0x7F)
            c = '_';
    }
    return stem;
}

} // namespace VelCore
