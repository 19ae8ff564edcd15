// Preloaded into the agent by tests: a wait for a child throws what TEST_THROW names.

#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <sys/types.h>

extern "C" pid_t waitpid(pid_t, int*, int)
{
    const char* const what = std::getenv("TEST_THROW");
    if (what && std::strcmp(what, "int") == 0)
        throw 42;
    throw std::runtime_error("x");
}
