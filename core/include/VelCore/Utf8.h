// Utf8.h: between the framework's wide text and bytes, without losing any.
#pragma once

#include <string>
#include <string_view>

#include <wx/string.h>

namespace VelCore {

/// Decodes UTF-8, whatever the locale says.
///
/// A byte that is not part of valid UTF-8 becomes one of the code points U+DC80 to U+DCFF, which no valid text
/// holds, so that `ToUtf8` gives back exactly the bytes that were decoded: file names are bytes, and no name may be
/// lost on its way through the framework.
///
/// Source: the Unicode Standard, section 3.9 (well-formed sequences); the escape is the one known as
///         "surrogateescape".
wxString FromUtf8(std::string_view bytes);

/// Encodes as UTF-8, undoing the escapes of `FromUtf8`. Other code points that cannot be encoded become U+FFFD.
std::string ToUtf8(const wxString& text);

} // namespace VelCore
