/// @file  levelset/resize.h
/// @brief `resize`: sets the narrow band of a level set held in a volume object to a width: adds
///        tiles where the surface is nearer than the width, removes them where it is farther, and
///        recomputes the distance by sweeping outwards from the surface voxels.
#pragma once
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/channel.h>
#include <hexmold/substrate/container.h>
#include <hexmold/substrate/topology.h>

namespace TVL {
class Object;
}

namespace VolumeGL::TileTree3D::LevelSet {

/// Smallest bandwidth `resize` accepts: it refuses widths at or below this.
inline constexpr float kResizeMinimumBandwidth = 1.1920929e-7f;

/// The sweep settings of the redistancing that ends a resize.
struct ResizePasses {
    int maxNumPreSmoothingPasses = 2;        ///< sweeps per depth on the way to the coarsest depth
    int maxNumPostSmoothingPasses = 0;       ///< sweeps per depth on the way back
    bool performCoalescedRedistance = false; ///< the 8^3 sweep over a tile's eight children
};

/// @brief The ceiling of @p x as resize takes it: trunc(the float just below x) + 1 for x > 0,
///        trunc(x) otherwise. Equal to the ceiling for every float; kept in this form so that
///        the counts never depend on how a library rounds.
HEXMOLD_API int resizeCeiling(float x);

/// @brief The sweep settings for a band of @p bandwidth (world units) around a level set whose
///        finest voxels are @p voxelSize wide: with x = bandwidth / (voxelSize * 4),
///        coalesced when ceil(x) >= 10; post passes ceil(x / 2), plus 1 when positive; 2 pre
///        passes.
HEXMOLD_API ResizePasses resizePasses(float bandwidth, float voxelSize);

/// @brief The value types that the redistancing of a resize starts from: 1 (known) at the voxels
///        on the zero crossing of @p distance, 2 (unknown) elsewhere.
/// @details A voxel is on the zero crossing when a face neighbour has the other sign under the
///          test 0 > value, or when it lies within 0.001 h of zero (h the voxel spacing of its
///          depth) and a voxel of the 3 x 3 x 3 block around it changes sign towards one of its
///          neighbours above (+x, +y, +z or a diagonal between them) that is within 0.001 h of
///          zero too: the test of the adaptive sweep. Neighbours across tiles and depths come from
///          a halo copy in the general mode. Non-leaf voxels then take the type of the child voxel
///          at their sample.
/// @param container     the tree; its precomputed tile neighbours are used when present
/// @param topology      the voxel topology of @p distance and @p io_valueTypes
/// @param distance      the level set (world units)
/// @param io_valueTypes in: 2 everywhere (the caller's fill); out: the types. Tiles without a
///                      block in either channel are left alone.
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only.
/// Instantiated for `Traits<2,4,1>` and `Traits<5,5,1>`.
template <typename Traits>
HEXMOLD_API void
resizeValueTypes(TVL::TileTree3D::Container<Traits> const& container,
                 TVL::TileTree3D::VoxelTopology<Traits> const& topology,
                 TVL::TileTree3D::VoxelChannel<Traits, float> const& distance,
                 TVL::TileTree3D::VoxelChannel<Traits, unsigned char>& io_valueTypes);

/// @brief Sets the narrow band of the level set @p distanceChannelName of @p io_object to
///        @p bandwidth.
/// @details Runs for a `Traits<2,4,1>` tree and then for a `Traits<5,5,1>` tree: each body takes
///          its tree, topology and float channel by name, and does nothing when one is missing or
///          of the other tree type, so one call serves either kind of object. A body:
///          `dilate` (timer "Volume::resize_level_set.dilate"), initialisation of the new tiles
///          in every channel of the object from their parents (".initialize_tiles"), `erode`
///          (".erode"), the value types of `resizeValueTypes`, and `levelSetRedistance` of the
///          whole tree (".redistance") with the settings of `resizePasses`. The other channels of
///          the object follow the tile changes; their new tiles take their parents' values.
///          Prints "levelset_resize.begin"/".end" at verbose above 0 and the settings at
///          verbose above 1; the logger's info gets "Redistancing distance channel.".
/// @param bandwidth  half-width of the band, world units; at or below
///                   `kResizeMinimumBandwidth` the logger's warning gets "Bandwidth <= epsilon.
///                   Resize skipped." and nothing else happens
/// @param io_object  the volume; its components are taken out and put back by the call
/// @param tileTreeName, topologyName, distanceChannelName  component names
/// @param logger     `QuillonLogger`, `ConsoleLogger` or `NOPLogger`
/// @throws std::runtime_error(TVL::exceptionMessage) on job cancellation only; the components
///         return to the object, in whatever state was reached.
/// Instantiated for the three loggers.
template <typename Logger>
HEXMOLD_API void resize(float bandwidth, TVL::Object& io_object,
                        Quillon::String const& tileTreeName, Quillon::String const& topologyName,
                        Quillon::String const& distanceChannelName, Logger const& logger);

} // namespace VolumeGL::TileTree3D::LevelSet
