// DomainVarSpec.h: `name=value` from the command line.
#pragma once

#include <optional>
#include <string>

#include <wx/string.h>

/// A domain variable and its value.
struct DomainVarSpec
{
    wxString name;
    wxString value; ///< may be empty and may hold "="
};

/// Splits at the first "="; nothing when there is none, or when it is the first character.
std::optional<DomainVarSpec> ParseDomainVarSpec(const wxString& text);

/// `text` in the C library's multibyte encoding; empty when it cannot be converted.
std::string ToMultibyte(const wxString& text);
