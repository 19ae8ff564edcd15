// CommandLine.h: from the words behind a command's name to its options and operands.
#pragma once

#include <map>
#include <string>
#include <vector>

/// An option that a command knows.
struct OptionSpec
{
    const char* name;    // without "--"
    char letter;         // its short form; 0 when it has none
    const char* value;   // what the usage calls its value; null for a switch
    const char* purpose; // for the usage
};

/// What the words say.
struct Arguments
{
    std::map<std::string, std::string> options; // by name; a switch has an empty value
    std::vector<std::string> operands;

    bool Has(const std::string& name) const { return options.count(name) > 0; }

    /// The value of an option, or `otherwise` when it was not given.
    std::string Get(const std::string& name, const std::string& otherwise = std::string()) const;
};

/// Reads options and operands in any order; behind "--" all are operands. The last of repeated options counts.
///
/// Shape:  `--name value`, `--name=value`, `-n value`, `-nvalue`.
/// Errors: false, and one line of English in `problem`: an unknown option, a value that is missing or not wanted.
bool ParseWords(const std::vector<std::string>& words, const std::vector<OptionSpec>& known, Arguments& arguments,
                std::string& problem);
