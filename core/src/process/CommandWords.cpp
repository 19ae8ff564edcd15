// Splitting the arguments of a program.
//
// Tested by: unit/core/process/CommandWordsTest.cpp.

#include "process/CommandWords.h"

namespace VelCore {

std::optional<std::vector<std::string>> SplitCommandWords(std::string_view text)
{
    std::vector<std::string> words;
    bool inWord = false;
    char quote = '\0';
    for (const char character : text) {
        const bool isBlank = character == ' ' || character == '\t';
        const bool isQuote = character == '"' || character == '\'';
        if (quote == '\0' && isBlank) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.emplace_back();
        inWord = true;
        if (quote == '\0' && isQuote)
            quote = character;
        else if (character == quote)
            quote = '\0';
        else
            words.back() += character;
    }
    if (quote != '\0')
        return std::nullopt;
    return words;
}

} // namespace VelCore
