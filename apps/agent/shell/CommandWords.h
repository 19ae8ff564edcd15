// CommandWords.h: the command line as the framework takes it.
#pragma once

#include <string>
#include <vector>

/// The words of the command line, decoded as UTF-8 whatever the locale: a service starts without one, and the
/// framework would then take every byte for a letter, or drop a word that it cannot decode.
///
/// Ownership: keeps the text; has to outlive the framework's use of it.
class CCommandWords
{
public:
    CCommandWords(int argc, char** argv);
    CCommandWords(const CCommandWords&) = delete; // points into itself
    CCommandWords& operator=(const CCommandWords&) = delete;

    int& Count() { return m_count; }
    wchar_t** Words() { return m_words.data(); }

private:
    std::vector<std::wstring> m_text;
    std::vector<wchar_t*> m_words; // ends with a null pointer
    int m_count;
};
