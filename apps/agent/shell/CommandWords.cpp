// The command line in wide characters.
//
// Tested by: unit/agent/shell/CommandWordsTest.cpp, blackbox/test_start.py.

#include "shell/CommandWords.h"

#include <VelCore/Utf8.h>

CCommandWords::CCommandWords(int argc, char** argv) : m_count(argc)
{
    for (int i = 0; i < argc; ++i)
        m_text.push_back(VelCore::FromUtf8(argv[i]).ToStdWstring());
    for (std::wstring& word : m_text)
        m_words.push_back(word.data());
    m_words.push_back(nullptr);
}
