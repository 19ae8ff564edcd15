// One log record as one line that nothing inside can break.
//
// Tested by: unit/core/trace/RecordTextTest.cpp.

#include "trace/RecordText.h"

#include <cstdint>
#include <cstdio>

#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

const std::size_t kPieceBytes = 256;

template <typename Character>
bool IsPlain(Character character)
{
    return character >= 0x20 && character < 0x7F;
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
    std::size_t plain = 0;
    while (plain < text.size() && IsPlain(static_cast<unsigned char>(text[plain])))
        ++plain;
    out.append(text.substr(0, plain));
    if (plain < text.size())
        AppendDecoded(FromUtf8(text.substr(plain)), out);
}

void AppendEscaped(const wxString& text, std::string& out)
{
    const std::wstring& wide = text.ToStdWstring();
    std::size_t at = 0;
    while (at < wide.size() && IsPlain(wide[at])) {
        char bytes[kPieceBytes];
        std::size_t length = 0;
        while (length < kPieceBytes && at < wide.size() && IsPlain(wide[at]))
            bytes[length++] = static_cast<char>(wide[at++]);
        out.append(bytes, length);
    }
    if (at < wide.size())
        AppendEscaped(std::string_view(ToUtf8(text.substr(at))), out);
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
