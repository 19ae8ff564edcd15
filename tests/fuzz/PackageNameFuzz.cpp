// Foreign bytes as the base name of a package, next to a second reading of the same rules: by words between "-".

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <wx/string.h>

#include <VelCore/Utf8.h>

#include "packages/PackageName.h"

namespace {

void Require(bool promise)
{
    if (!promise)
        std::abort();
}

std::vector<std::wstring> WordsOf(const std::wstring& text)
{
    std::vector<std::wstring> words(1);
    for (const wchar_t character : text) {
        if (character == L'-')
            words.emplace_back();
        else
            words.back() += character;
    }
    return words;
}

std::wstring PluginNameByWords(const std::wstring& base)
{
    const auto words = WordsOf(base);
    return words[words.size() > 1 ? 1 : 0];
}

std::optional<std::wstring> VersionFieldByWords(const std::wstring& base)
{
    const std::size_t dot = base.rfind(L'.');
    if (dot == std::wstring::npos)
        return std::nullopt;
    const auto words = WordsOf(base.substr(0, dot));
    if (words.size() < 3 || words[words.size() - 2].empty())
        return std::nullopt;
    return words[words.size() - 2];
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const wxString name = VelCore::FromUtf8(std::string_view(reinterpret_cast<const char*>(data), size));
    const std::wstring base = name.ToStdWstring();

    Require(PluginNameIn(name).ToStdWstring() == PluginNameByWords(base));
    const auto field = VersionFieldIn(name);
    const auto expected = VersionFieldByWords(base);
    Require(field.has_value() == expected.has_value());
    Require(!field || field->ToStdWstring() == *expected);
    Require(VersionAllows(name) == (!expected || *expected == L"11.0.0"));
    return 0;
}
