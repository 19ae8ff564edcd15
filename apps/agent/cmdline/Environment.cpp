// Environment variables, decoded like file names.
//
// Tested by: unit/agent/cmdline/EnvironmentTest.cpp, blackbox/test_cmdline.py, blackbox/test_zippath.py.

#include "cmdline/Environment.h"

#include <cstdlib>
#include <optional>
#include <string>

#include <wx/log.h>

#include <VelCore/Utf8.h>

namespace {

std::optional<std::string> ValueOf(const std::string& name)
{
    const char* const value = std::getenv(name.c_str());
    return value ? std::optional<std::string>(value) : std::nullopt;
}

bool IsNameCharacter(char letter)
{
    return (letter >= 'A' && letter <= 'Z') || (letter >= 'a' && letter <= 'z') || (letter >= '0' && letter <= '9') ||
           letter == '_';
}

char ClosingBracket(char opening)
{
    switch (opening) {
    case '{':
        return '}';
    case '(':
        return ')';
    default:
        return '\0';
    }
}

// Takes the reference that begins with the dollar sign at `place` and moves `place` behind it.
std::string TakeReference(const std::string& text, std::size_t& place)
{
    const std::size_t start = place++;
    const char closing = place < text.size() ? ClosingBracket(text[place]) : '\0';
    if (closing)
        ++place;
    const std::size_t name = place;
    while (place < text.size() && IsNameCharacter(text[place]))
        ++place;
    const auto value = ValueOf(text.substr(name, place - name));
    const bool isClosed = !closing || (place < text.size() && text[place] == closing);
    if (!isClosed)
        wxLogWarning(L"'%s': a '%c' is missing", VelCore::FromUtf8(text), closing);
    else if (closing)
        ++place;
    return value && isClosed ? *value : text.substr(start, place - start);
}

std::string Expand(const std::string& text)
{
    std::string result;
    for (std::size_t place = 0; place < text.size();) {
        if (text[place] == '$') {
            result += TakeReference(text, place);
        } else {
            if (text.compare(place, 2, "\\$") == 0 || text.compare(place, 2, "\\%") == 0)
                ++place;
            result += text[place++];
        }
    }
    return result;
}

} // namespace

wxString ExpandHome(const wxString& name)
{
    if (name != L"~" && !name.StartsWith(L"~/"))
        return name;
    const auto home = ValueOf("HOME");
    return home && !home->empty() ? VelCore::FromUtf8(*home) + name.Mid(1) : name;
}

wxString ExpandFileName(const wxString& name)
{
    return ExpandHome(VelCore::FromUtf8(Expand(VelCore::ToUtf8(name))));
}
