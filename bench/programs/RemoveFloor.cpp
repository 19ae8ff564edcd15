// The least that removing listed files costs: the list is there, and unlinkat takes each.
//
// Usage: RemoveFloor NAMES FOLDER

#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "programs/Measure.h"
#include "programs/Requires.h"

using namespace VelBench;

int main(int argc, char** argv)
{
    if (argc != 3)
        Die("usage: RemoveFloor NAMES FOLDER");
    const std::vector<std::string> names = Split(ReadText(argv[1]), '\n');
    Measure([&] {
        const int folder = open(argv[2], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (const std::string& name : names) {
            if (unlinkat(folder, name.c_str(), 0) != 0)
                Die("cannot remove " + name);
        }
    });
    return 0;
}
