/// @file  hexmold.h
/// @brief Umbrella header: everything a user of the library needs.
#pragma once
#include <hexmold/analysis/analyze.h>
#include <hexmold/analysis/channel_coarsen.h>
#include <hexmold/analysis/coarsen_refine.h>
#include <hexmold/analysis/grade_tile_tree.h>
#include <hexmold/analysis/level_set_sampler.h>
#include <hexmold/api/analyze.h>
#include <hexmold/api/create_level_set.h>
#include <hexmold/api/dilate_erode.h>
#include <hexmold/api/error.h>
#include <hexmold/api/redistance.h>
#include <hexmold/api/resize.h>
#include <hexmold/api/sample.h>
#include <hexmold/api/volume.h>
#include <hexmold/diagnostics/logger.h>
#include <hexmold/diagnostics/object_info.h>
#include <hexmold/levelset/dilate_erode.h>
#include <hexmold/levelset/dof_classification.h>
#include <hexmold/levelset/eikonal.h>
#include <hexmold/levelset/extrapolate_channel.h>
#include <hexmold/levelset/level_set_redistance.h>
#include <hexmold/levelset/redistance_tiles.h>
#include <hexmold/levelset/resize.h>
#include <hexmold/platform/quillon/job.h>
#include <hexmold/sampling/linear_sampler.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/commands.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/object.h>
#include <hexmold/substrate/topology.h>
#include <hexmold/voxelize/mesh/mesh_distance_field.h>
#include <hexmold/voxelize/mesh/triangle_distance_kernel.h>
#include <hexmold/voxelize/voxelize_types.h>

