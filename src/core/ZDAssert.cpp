#include "core/ZDAssert.h"

#include <cstdio>
#include <cstdlib>

void ZDAssertionFailed(const char *condition, const char *operation, const char *file, int line)
{
    std::fprintf(stderr, "*** Assertion failure in %s, %s:%d: (%s)\n", operation, file, line,
                 condition);
    std::fflush(stderr);
    std::abort();
}
