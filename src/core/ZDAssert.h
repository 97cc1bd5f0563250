#pragma once

#include "core/zdglobal.h"

// An always-on check, kept in release builds: when the condition fails it prints
// the condition text, the operation and the source position to stderr and
// aborts the process. Abstract operations of the base classes use
// ZD_ABSTRACT(), whose condition text is "0".
#define ZD_ASSERT(cond, operation)                                                                 \
    ((cond) ? static_cast<void>(0) : ::ZDAssertionFailed(#cond, operation, __FILE__, __LINE__))

// The same with the condition's text given, where it must read as the
// library's contract names it rather than as the code spells it.
#define ZD_ASSERT_TEXT(cond, text, operation)                                                      \
    ((cond) ? static_cast<void>(0) : ::ZDAssertionFailed(text, operation, __FILE__, __LINE__))

#define ZD_ABSTRACT(operation) ::ZDAssertionFailed("0", operation, __FILE__, __LINE__)

[[noreturn]] ZD_EXPORT void ZDAssertionFailed(const char *condition, const char *operation,
                                              const char *file, int line);
