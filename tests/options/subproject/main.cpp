#include "core/zdglobal.h"

#include <cstdio>

int main()
{
    std::puts(ZD_VERSION_STRING);
    return 0;
}
