#pragma once

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

// Some pieces want an application object (Qt's string and locale machinery do
// not, but the request layer's event loop does).
inline void ensureApplication()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication *app = new QCoreApplication(argc, argv);
    (void)app;
}

#define FUZZ_CHECK(cond)                                                                           \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__);    \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)
