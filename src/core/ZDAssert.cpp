#include "core/ZDAssert.h"

#include <cstdio>
#include <cstdlib>

void ZDAssertionFailed(const char *condition, const char *operation, const char *file, int line)
{
    std::fprintf(stderr, "zdpublish: assertion (%s) failed in %s at %s:%d\n", condition, operation,
                 file, line);
    std::fflush(stderr);
    std::abort();
}
