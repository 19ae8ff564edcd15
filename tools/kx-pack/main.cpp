// kx-pack: the tool of plug-in authors. Here the words find their command.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <wx/init.h>

#include <VelCore/FileNames.h>

#include "AgentVersion.h"
#include "Command.h"

namespace {

const OptionSpec kCommonOptions[] = {
    {"help", 'h', nullptr, "this text"},
    {"version", 0, nullptr, "the agent's version that this tool belongs to"},
};

std::vector<Command> AllCommands()
{
    return {NewCommand(), PluginCommand(), RemovalCommand(), ExtensionCommand(), ArchiveCommand(), VerifyCommand()};
}

void PrintUsage()
{
    std::puts("usage: kx-pack COMMAND [OPTION...] [OPERAND...]\n");
    for (const Command& command : AllCommands())
        std::printf("  %-9s %s\n", command.name, command.purpose);
    std::puts("\n`kx-pack COMMAND --help` has the options of a command.\n"
              "Status: 0 done or accepted, 1 refused, 2 wrong usage or a file that cannot be read or written.");
}

void PrintOption(const OptionSpec& option)
{
    const std::string letter = option.letter != 0 ? std::string("-") + option.letter + ", " : std::string(4, ' ');
    const std::string name = letter + "--" + option.name + (option.value ? std::string(" ") + option.value : "");
    std::printf("  %-27s %s\n", name.c_str(), option.purpose);
}

void PrintCommandUsage(const Command& command)
{
    std::printf("usage: kx-pack %s [OPTION...] %s\n\n%s\n\n", command.name, command.operands, command.purpose);
    for (const OptionSpec& option : command.options)
        PrintOption(option);
}

Status RefuseUsage(const std::string& problem, const std::string& help)
{
    return Report(Failure{Status::Failed, problem + "; see `kx-pack " + help + "`"});
}

Status RunCommand(const Command& command, const std::vector<std::string>& words)
{
    std::vector<OptionSpec> known = command.options;
    known.insert(known.end(), std::begin(kCommonOptions), std::end(kCommonOptions));
    const std::string help = std::string(command.name) + " --help";
    Arguments arguments;
    std::string problem;
    if (!ParseWords(words, known, arguments, problem))
        return RefuseUsage(problem, help);
    if (arguments.Has("help")) {
        PrintCommandUsage({command.name, command.operands, command.purpose, 0, 0, known, nullptr});
        return Status::Done;
    }
    if (arguments.Has("version")) {
        std::printf("kx-pack %s\n", kAgentVersionText);
        return Status::Done;
    }
    const std::size_t count = arguments.operands.size();
    if (count < command.leastOperands || count > command.mostOperands)
        return RefuseUsage(std::string("wrong number of operands, wanted is ") + command.operands, help);
    return command.run(arguments);
}

Status Run(const std::vector<std::string>& words)
{
    if (words.empty())
        return RefuseUsage("a command is missing", "--help");
    if (words.front() == "--help" || words.front() == "-h") {
        PrintUsage();
        return Status::Done;
    }
    if (words.front() == "--version") {
        std::printf("kx-pack %s\n", kAgentVersionText);
        return Status::Done;
    }
    for (const Command& command : AllCommands()) {
        if (words.front() == command.name)
            return RunCommand(command, std::vector<std::string>(words.begin() + 1, words.end()));
    }
    return RefuseUsage("unknown command '" + words.front() + "'", "--help");
}

// Memory may run out, since files are packed in memory.
Status RunToTheEnd(const std::vector<std::string>& words)
{
    try {
        return Run(words);
    } catch (const std::exception& exception) {
        return Report(Failure{Status::Failed, std::string("cannot go on: ") + exception.what()});
    }
}

} // namespace

int main(int argc, char** argv)
{
    VelCore::UseUtf8FileNames();
    const wxInitializer framework;
    const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    Status status = RunToTheEnd(words);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        status = Report(Failure{Status::Failed, "cannot write to standard output"});
    return static_cast<int>(status);
}
