/// @file  hexmold.h
/// @brief Umbrella header: everything a user of the library needs.
#pragma once
#include <hexmold/diagnostics/logger.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/substrate/container.h>
