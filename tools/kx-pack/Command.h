// Command.h: what kx-pack can be told to do.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Failure.h"

/// A command, and how its words are read.
struct Command
{
    const char* name;
    const char* operands; // for the usage
    const char* purpose;  // for the usage: one line, without a full stop
    std::size_t leastOperands;
    std::size_t mostOperands;
    std::vector<OptionSpec> options;

    /// Does it. Problems stand on standard error then.
    Status (*run)(const Arguments& arguments);
};

// One function for each file in commands/.
Command NewCommand();
Command PluginCommand();
Command RemovalCommand();
Command ExtensionCommand();
Command ArchiveCommand();
Command VerifyCommand();

/// `value` of an option -o: where to write a file that is called `fileName` unless the value says otherwise. A folder
/// takes the file under that name; anything else is the path of the file; an empty value is the current folder.
std::string OutputPath(const std::string& value, const std::string& fileName);

/// Writes "kx-pack: <text>" to standard error if there is a failure. Returns its status.
Status Report(const std::optional<Failure>& failure);

/// Writes a line to standard output. Control characters in it are escaped: names of files can hold any.
void PrintLine(const std::string& line);
