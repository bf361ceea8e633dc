/// @file  diagnostics/channel_check.h
/// @brief The channel check: a debug report of a channel's smallest and largest value and where
///        they lie, which drivers run at named stages ("after_splat", "Resampling.source ").
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>

namespace CoreGL {

/// @brief Prints to standard output the smallest and the largest value of @p channel over the
///        tiles of depths [@p minDepth, @p maxDepth] and where each lies; does nothing unless
///        `Logger::verboseLevel()` or @p level is at least 4.
/// @details The range is clamped to the channel's depths and to the tree's. One reduction over
///          the tiles of the range (grain 50) finds the extremes; the smallest starts at the
///          channel's default value and the largest at its negation, so a channel whose voxels
///          all lie between a non-positive default and its negation reports those two. Vectors and
///          matrices are ordered by the sum of their components (as the voxel hash reduces them);
///          ties keep the place found first in the reduction's order. The line reads
///          "<label>: <name>[<size>] : <min depth>, <max depth> : <smallest>, <largest> at
///          (x, y, z, d) and (x, y, z, d)", a place being the voxel's tile-space corner and its
///          depth; vectors and matrices print as their components in parentheses. With no voxel
///          in the range both places are the sentinel (0, 0, 0, -1).
/// @param label  such as "after_splat" or "property.1: "
/// @param level  the caller's level; 4 or more prints whatever the verbose level
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for both trees and the 18 element types, voxel form.
template <typename Traits, typename T>
HEXMOLD_API void checkChannel(TVL::TileTree3D::Container<Traits> const& container,
                              TVL::TileTree3D::VoxelChannel<Traits, T> const& channel, int minDepth,
                              int maxDepth, Quillon::StringView label, int level);

} // namespace CoreGL
