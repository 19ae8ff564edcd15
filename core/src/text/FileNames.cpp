// The framework's conversion of file names, replaced by one that loses nothing.
//
// Tested by: unit/core/text/FileNamesTest.cpp, blackbox/test_start.py.

#include <VelCore/FileNames.h>

#include <algorithm>
#include <cwchar>
#include <string_view>

#include <wx/strconv.h>

#include <VelCore/Utf8.h>

namespace VelCore {
namespace {

// Copies the result of a conversion, or only says how long it is when there is no room to copy to.
template <typename Character, typename String>
size_t Deliver(const String& text, Character* destination, size_t room)
{
    if (!destination)
        return text.size();
    if (room < text.size())
        return wxCONV_FAILED;
    std::copy(text.begin(), text.end(), destination);
    return text.size();
}

class CFileNameConv : public wxMBConv
{
public:
    // A source of unknown length ends with a NUL, which is converted as well.
    size_t ToWChar(wchar_t* dst, size_t dstLen, const char* src, size_t srcLen) const override
    {
        const size_t length = srcLen == wxNO_LEN ? std::string_view(src).size() + 1 : srcLen;
        return Deliver(FromUtf8(std::string_view(src, length)).ToStdWstring(), dst, dstLen);
    }

    size_t FromWChar(char* dst, size_t dstLen, const wchar_t* src, size_t srcLen) const override
    {
        const size_t length = srcLen == wxNO_LEN ? std::wcslen(src) + 1 : srcLen;
        return Deliver(ToUtf8(wxString(src, length)), dst, dstLen);
    }

    size_t GetMaxCharLen() const override { return 4; }

    wxMBConv* Clone() const override { return new CFileNameConv; }
};

} // namespace

void UseUtf8FileNames()
{
    static CFileNameConv& conversion = *new CFileNameConv;
    wxConvFileName = &conversion;
}

} // namespace VelCore
