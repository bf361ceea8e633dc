/// @file  export.h
/// @brief Symbol visibility of the shared library: HEXMOLD_API marks what it exports.
#pragma once

#if defined(_WIN32)
#if defined(HEXMOLD_BUILDING_LIBRARY)
#define HEXMOLD_API __declspec(dllexport)
#else
#define HEXMOLD_API __declspec(dllimport)
#endif
#else
#define HEXMOLD_API __attribute__((visibility("default")))
#endif

#if !defined(NDEBUG)
#include <cstdio>
#include <cstdlib>
/// Debug-build invariant check; compiled out in release builds. Never used for input validation.
#define HEXMOLD_ASSERT(cond)                                                                       \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            std::fprintf(stderr, "hexmold: assertion failed: %s (%s:%d)\n", #cond, __FILE__,       \
                         __LINE__);                                                                \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)
#else
#define HEXMOLD_ASSERT(cond) ((void)0)
#endif
