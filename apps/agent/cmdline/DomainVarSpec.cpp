// `name=value` from the command line.
//
// Tested by: unit/agent/cmdline/DomainVarSpecTest.cpp, blackbox/test_cmdline.py.

#include "cmdline/DomainVarSpec.h"

#include <wx/strconv.h>

std::optional<DomainVarSpec> ParseDomainVarSpec(const wxString& text)
{
    const std::size_t equals = text.find(L'=');
    if (equals == wxString::npos || equals == 0)
        return std::nullopt;
    return DomainVarSpec{text.substr(0, equals), text.substr(equals + 1)};
}

std::string ToMultibyte(const wxString& text)
{
    const wxCharBuffer bytes = text.mb_str(wxConvLibc);
    return bytes.data() ? std::string(bytes.data(), bytes.length()) : std::string();
}
