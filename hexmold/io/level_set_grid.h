/// @file  io/level_set_grid.h
/// @brief Level sets exchanged with other tools as plain OpenVDB grids: `writeLevelSetGrid`
///        writes a channel as one narrow-band `FloatGrid`, `importLevelSet` turns such a grid
///        into a graded adaptive volume.
/// @details Without OpenVDB at build time both throw `IoError` saying so
///          (`volumeFilesAvailable()` is false then).
#pragma once
#include <filesystem>
#include <hexmold/io/export.h>
#include <hexmold/io/io_error.h>
#include <hexmold/io/volume_file.h>
#include <hexmold/platform/quillon/ptr.h>
#include <hexmold/platform/quillon/string.h>
#include <hexmold/substrate/object.h>
#include <string>

namespace hexmold::io {

/// How `writeLevelSetGrid` writes.
struct LevelSetGridOptions {
    /// Half width of the narrow band, in finest voxels (> 0): voxels with |value| below
    /// halfWidth * voxelSize are active, and the grid's background is halfWidth * voxelSize.
    float halfWidth = 3.0f;
    /// Name of the grid; empty: the channel's name.
    std::string gridName;
    VolumeCompression compression = VolumeCompression::kBlosc;
};

/// @brief Writes the float channel @p channelName of @p object as one plain OpenVDB level set
///        at the finest voxel size, to the .vdb file @p path.
/// @details The grid has class `GRID_LEVEL_SET`, a linear transform of the tree's voxel size
///          whose index (i, j, k) is the finest voxel of tile-space corner (i, j, k), with its
///          sample where the topology puts it, and background halfWidth * voxelSize. Its active
///          voxels are the finest voxels within the band:
///          - in tiles of the deepest depth, the channel's own values, bit for bit;
///          - where the band reaches into leaf voxels of coarser tiles (an adaptive tree may
///            keep flat parts of a surface coarser), each finest voxel under such a coarse voxel
///            is sampled with the library's trilinear sampler (`VoxelSamplerLinear`), so that
///            the surface has no holes where the tree is coarse. A coarse voxel is examined when
///            its value is within the band plus its half diagonal, the farthest the surface can
///            be from its sample in a distance field.
///          Inactive voxels and tiles get plus or minus the background by OpenVDB's
///          `signedFloodFill`, so that inside and outside are known everywhere. The file is a
///          plain OpenVDB file (no Hexmold metadata, no trailer); `readVolume` refuses it and
///          `importLevelSet` reads it.
/// @param path         the file to write (replaced if it exists)
/// @param object       a volume holding one tree, its voxel topology and the channel
/// @param channelName  a `VoxelChannel<Traits, float>` of @p object, a signed distance in
///                     world units (negative inside)
/// @param options      band width, grid name, compression
/// @throws IoError naming @p path when the object has no tree or topology, the channel is
///         missing or not a float voxel channel, the band width is not positive, the file cannot
///         be written, or the build has no OpenVDB.
HEXMOLD_IO_API void writeLevelSetGrid(std::filesystem::path const& path, TVL::Object const& object,
                                      Quillon::String const& channelName,
                                      LevelSetGridOptions const& options = {});

/// The tree instance of an imported volume.
enum class TreeKind : int {
    kTraits24 = 0, ///< `Traits<2,4,1>`: tiles of 4 voxels, refinement 2
    kTraits55 = 1, ///< `Traits<5,5,1>`: tiles of 5 voxels, refinement 5
};

/// How `importLevelSet` builds its volume.
struct ImportLevelSetOptions {
    TreeKind tree = TreeKind::kTraits24;
    /// Name of the distance channel; empty: `Tavrel::Geometry::sVoxelSignedDistance`.
    Quillon::String channelName;
};

/// @brief Reads a level-set `FloatGrid` from the .vdb file @p path and makes a graded adaptive
///        volume of it.
/// @details
/// - The grid: the one named @p gridName, or with an empty name the first float grid of class
///   level set (or of no class) in the file. Its transform must be linear with equal voxel
///   sizes on the three axes and no rotation, and put voxel samples on whole or half voxels of
///   its lattice (so that they coincide with the samples of a topology of offset type 0 to 7).
/// - The tree: a deepest-depth tile wherever the grid has an active voxel, graded by
///   `gradeTileTree` from depth 0, so coarser tiles surround the band and the depth-0 tile
///   covers everything. The finest voxel size is the grid's voxel size.
/// - The values: deepest-depth voxels that are active in the grid keep the grid's values
///   exactly and are the boundary condition (known voxels) of `levelSetRedistance`, which
///   computes every other voxel of every depth as the signed distance to them; signs come from
///   the grid's values there (inactive values of a level set carry its inside and outside).
///   The channel's default value is a power of two beyond the domain, positive.
/// - The object: a tree `sVoxelTileTree`, a topology `sVoxelComp` and the float channel, over
///   all depths. Built aside and returned complete.
/// A Hexmold volume file is checked against its checksum first and refused (it is read with
/// `readVolume`); other files are parsed by OpenVDB as they are.
/// @param path      the file
/// @param gridName  the grid's name; empty for the first level set
/// @param options   tree instance and channel name
/// @return a new object (never null)
/// @throws IoError naming @p path and the reason when the file is missing, not an OpenVDB file,
///         unreadable by OpenVDB, has no such grid, the grid is not a float grid, is a fog
///         volume, has no active voxel, an unsupported transform, or extends beyond the tree's
///         domain, or when the build has no OpenVDB; `std::runtime_error` on job cancellation.
HEXMOLD_IO_API Quillon::Ptr<TVL::Object> importLevelSet(std::filesystem::path const& path,
                                                        std::string const& gridName = {},
                                                        ImportLevelSetOptions const& options = {});

} // namespace hexmold::io
