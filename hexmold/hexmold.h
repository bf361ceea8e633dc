/// @file  hexmold.h
/// @brief Umbrella header: everything a user of the library needs.
#pragma once
#include <hexmold/analysis/coarsen_refine.h>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/analysis/level_set_sampler.h>
#include <hexmold/diagnostics/logger.h>
#include <hexmold/levelset/dilate_erode.h>
#include <hexmold/levelset/resize.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/substrate/container.h>
