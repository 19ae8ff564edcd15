// Tested by: unit/tools/kx-pack/CommandLineTest.cpp.

#include "CommandLine.h"

#include <algorithm>
#include <cstddef>
#include <optional>

namespace {

// An option as it stands in a word.
struct OptionWord
{
    const OptionSpec* spec; // null when nobody knows it
    std::string shown;      // for messages
    std::optional<std::string> value;
};

const OptionSpec* Find(const std::vector<OptionSpec>& known, const std::string& name, char letter)
{
    const auto found = std::find_if(known.begin(), known.end(), [&](const OptionSpec& spec) {
        return letter != 0 ? spec.letter == letter : spec.name == name;
    });
    return found == known.end() ? nullptr : &*found;
}

OptionWord ReadLong(const std::string& word, const std::vector<OptionSpec>& known)
{
    const std::size_t equals = word.find('=');
    OptionWord option = {nullptr, word.substr(0, equals), std::nullopt};
    option.spec = Find(known, option.shown.substr(2), 0);
    if (equals != std::string::npos)
        option.value = word.substr(equals + 1);
    return option;
}

OptionWord ReadShort(const std::string& word, const std::vector<OptionSpec>& known)
{
    OptionWord option = {Find(known, std::string(), word[1]), word.substr(0, 2), std::nullopt};
    if (word.size() > 2)
        option.value = word.substr(2);
    return option;
}

} // namespace

std::string Arguments::Get(const std::string& name, const std::string& otherwise) const
{
    const auto found = options.find(name);
    return found == options.end() ? otherwise : found->second;
}

bool ParseWords(const std::vector<std::string>& words, const std::vector<OptionSpec>& known, Arguments& arguments,
                std::string& problem)
{
    auto word = words.begin();
    for (; word != words.end() && *word != "--"; ++word) {
        if (word->size() < 2 || word->front() != '-') {
            arguments.operands.push_back(*word);
            continue;
        }
        OptionWord option = word->compare(0, 2, "--") == 0 ? ReadLong(*word, known) : ReadShort(*word, known);
        if (!option.spec) {
            problem = "unknown option '" + option.shown + "'";
            return false;
        }
        if (option.spec->value && !option.value && word + 1 != words.end())
            option.value = *++word;
        if (option.value.has_value() != (option.spec->value != nullptr)) {
            problem = "option '" + option.shown + (option.spec->value ? "' needs a value" : "' takes no value");
            return false;
        }
        arguments.options[option.spec->name] = option.value.value_or(std::string());
    }
    if (word != words.end())
        arguments.operands.insert(arguments.operands.end(), word + 1, words.end());
    return true;
}
