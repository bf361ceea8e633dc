/// @file  io/export.h
/// @brief Symbol visibility of the file-reading library: HEXMOLD_IO_API marks what it exports.
/// @details The io library is a shared library of its own, next to the core one, so that the core
///          keeps no file-format dependency; it has its own export macro for the same reason.
#pragma once

#if defined(_WIN32)
#if defined(HEXMOLD_BUILDING_IO_LIBRARY)
#define HEXMOLD_IO_API __declspec(dllexport)
#else
#define HEXMOLD_IO_API __declspec(dllimport)
#endif
#else
#define HEXMOLD_IO_API __attribute__((visibility("default")))
#endif
