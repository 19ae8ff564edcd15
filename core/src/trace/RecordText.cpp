// One log record as one line that nothing inside can break.
//
// Tested by: unit/core/trace/RecordTextTest.cpp.

#include "trace/RecordText.h"

#include <cstdint>
#include <cstdio>

#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

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

} // namespace

std::string EscapeControls(std::string_view text)
{
    const wxString decoded = FromUtf8(text);
    std::string out;
    for (const wchar_t character : decoded.ToStdWstring()) {
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
    return out;
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
