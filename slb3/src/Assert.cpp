// Last words of a broken binding.

#include <SLB3/Assert.h>

#include <cstdio>
#include <cstdlib>

namespace SLB3 {

void AssertFailed(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, condition);
    std::abort();
}

} // namespace SLB3
