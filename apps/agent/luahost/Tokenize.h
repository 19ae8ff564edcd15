// Tokenize.h: splitting text without empty tokens.
#pragma once

#include <wx/string.h>

/// Appends the pieces of `text` between characters of `delimiters` to `tokens`. Runs of delimiters, and delimiters at
/// either end, yield nothing; blanks stay part of a token unless they are delimiters.
template <typename List>
void Tokenize(List& tokens, const wxString& text, const wxString& delimiters)
{
    std::size_t position = 0;
    while (position < text.length()) {
        const std::size_t first = text.find_first_not_of(delimiters, position);
        if (first == wxString::npos)
            return;
        const std::size_t end = text.find_first_of(delimiters, first);
        if (end == wxString::npos) {
            tokens.push_back(text.substr(first));
            return;
        }
        tokens.push_back(text.substr(first, end - first));
        position = end + 1;
    }
}
